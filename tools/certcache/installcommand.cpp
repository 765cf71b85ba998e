#include "installcommand.h"

#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>

#include "authoritykeeping.h"
#include "cachecalls.h"
#include "certificatedescription.h"
#include "certificateinput.h"
#include "installtarget.h"
#include "passwordsource.h"
#include "storecommit.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

// No certificate comes near this; the library refuses larger text anyway, so
// reading stops here rather than taking in an endless stream.
constexpr std::size_t kMaxCertificateBytes = std::size_t{1024} * 1024;

std::string readInput(const std::string& file) {
  std::ifstream stream;
  std::istream* in = &std::cin;
  const std::string name = file.empty() ? std::string("standard input") : file;
  if (!file.empty()) {
    stream.open(file, std::ios::binary);
    if (!stream) {
      throw ToolError(kExitNoInput, "cannot read " + file + ": " + std::strerror(errno));
    }
    in = &stream;
  }
  std::string text(kMaxCertificateBytes + 1, '\0');
  in->read(&text[0], static_cast<std::streamsize>(text.size()));
  if (in->bad()) throw ToolError(kExitNoInput, "cannot read " + name);
  text.resize(static_cast<std::size_t>(in->gcount()));
  if (text.size() > kMaxCertificateBytes) {
    throw ToolError(kExitDataError, name + " is larger than any certificate (1 MiB)");
  }
  return text;
}

std::shared_ptr<Certificate> firstAccepted(const CertificateInput& input,
                                           CertificateFilter& filter) {
  for (const std::shared_ptr<Certificate>& certificate : input.certificates) {
    if (filter.acceptsCertificate(certificate)) return certificate;
  }
  return input.certificates.front();
}

// An installed certificate is replaced only when asked, and the person hears
// what would go.
void refuseReplacing(StoreSession& session, const InstallTarget& target) {
  if (!entryExists(storeFile(session.directory(), target.baseName, kCertExtension))) return;
  throw ToolError(CertFileCache::kExists,
                  target.baseName + kCertExtension + " is installed (add --overwrite to replace " +
                      (target.route == InstallRoute::kPendingKey
                           ? "it and its key with this certificate and the pending key)"
                           : "it with this one for the same key)"));
}

// The certificates that came with the one installed.
std::vector<std::shared_ptr<Certificate>> others(const CertificateInput& input,
                                                 const Certificate& installed) {
  std::vector<std::shared_ptr<Certificate>> found;
  for (const std::shared_ptr<Certificate>& certificate : input.certificates) {
    if (certificate.get() != &installed) found.push_back(certificate);
  }
  return found;
}

void nameWhatWasLeftOut(const CertificateInput& input, const Certificate& installed) {
  const std::time_t now = std::time(nullptr);
  for (const std::shared_ptr<Certificate>& certificate : others(input, installed)) {
    if (certificate->identity().authority) continue;  // kept beside it
    std::cerr << "certcache: install: left out "
              << describeCertificate(certificate->getX509(), now).subject
              << ": not the certificate installed\n";
  }
  for (const std::string& other : input.others) {
    std::cerr << "certcache: install: left out " << other << ": not a certificate\n";
  }
}

}  // namespace

int installCommand(const Invocation& invocation, std::ostream& out) {
  const bool withKeys = invocation.store.withKeys;
  const SecretString password = withKeys ? readPassword(invocation.passin, false) : SecretString();
  const CertificateInput input = readCertificateInput(readInput(invocation.inputFile));
  StoreSession session(invocation.store, StoreAccess::kCreate);

  InstallTarget target;
  if (withKeys) {
    target = findKeyHolder(input.certificates, invocation.id, session.filter(), session.directory(),
                           password.str());
    if (!invocation.overwrite) refuseReplacing(session, target);
  } else {
    // No key to compare with: the cache's own refusal of an existing file is all.
    target.certificate = firstAccepted(input, session.filter());
    target.baseName =
        subjectToFilename(invocation.id, session.filter().certificateId(target.certificate));
  }
  // The library installs in the staging place as it would in the store: the
  // certificate, and the pending key promoted beside it (linked in, so that
  // the store's own stays where it is until the commit).
  const std::string what = "the certificate was not installed";
  const std::string& baseName = target.baseName;
  StoreCommit commit(session.root(), session.filter().subdirectory());
  const bool promote = withKeys && target.route == InstallRoute::kPendingKey;
  if (promote) {
    const std::string pending = commit.stored(baseName, kTempKeyExtension);
    if (::link(pending.c_str(), commit.staged(baseName, kTempKeyExtension).c_str()) != 0) {
      throw ToolError(CertFileCache::kKeyNotPromoted,
                      "cannot take up the pending key " + pending + ": " + std::strerror(errno));
    }
  } else if (!invocation.overwrite && entryExists(commit.stored(baseName, kCertExtension))) {
    failOnResult(CertFileCache::kExists, what);  // refused as the library refuses it
  }
  // A re-issue goes beside the installed key, which stays: a cache without keys writes
  // the certificate alone.
  CertFileCache& staging = commit.cache(session.sharedFilter(), promote);
  failOnResult(staging.saveCert(invocation.id, base64Of(*target.certificate), true), what);
  // The chain that came with it goes into the same change.
  const std::vector<std::string> kept =
      stageAuthorities(others(input, *target.certificate), session.store(), commit, staging);
  commit.rename(commit.staged(baseName, kCertExtension), commit.stored(baseName, kCertExtension));
  if (promote) {
    commit.rename(commit.staged(baseName, kKeyExtension), commit.stored(baseName, kKeyExtension));
    commit.remove(commit.stored(baseName, kTempKeyExtension));
  }
  commit.commit();
  tellKeptAuthorities(kept);
  nameWhatWasLeftOut(input, *target.certificate);
  out << "installed the certificate\n";
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
