#include "installcommand.h"

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>

#include "cachecalls.h"
#include "certificatedescription.h"
#include "certificateinput.h"
#include "installtarget.h"
#include "passwordsource.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

// No certificate comes near this; the library refuses larger text anyway, so
// reading stops here rather than taking in an endless stream.
constexpr std::size_t kMaxCertificateBytes = std::size_t{1024} * 1024;

// Where a re-issued certificate is written before it is renamed over the
// installed one. Its extension is none that a scan of the store reads.
const char kNewCertExtension[] = ".crt.new";

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

// The pair stays whole at every moment: the new certificate is written beside
// the installed one and renamed over it.
void replaceBesideInstalledKey(StoreSession& session, const InstallTarget& target) {
  const std::string& baseName = target.baseName;
  const std::string newFile = storeFile(session.directory(), baseName, kNewCertExtension);
  if (session.cache().writeCert(newFile, target.certificate->getX509()) != CertFileCache::kDone ||
      !session.cache().renameFile(baseName, kNewCertExtension, baseName, kCertExtension, false)) {
    boost::system::error_code ignored;
    boost::filesystem::remove(newFile, ignored);
    throw ToolError(
        CertFileCache::kFailed,
        "the certificate was not installed (the error logged before this line says why)");
  }
}

void nameWhatWasLeftOut(const CertificateInput& input, const Certificate& installed) {
  const std::time_t now = std::time(nullptr);
  for (const std::shared_ptr<Certificate>& certificate : input.certificates) {
    if (certificate.get() == &installed) continue;
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
  const std::string password = withKeys ? readPassword(invocation.passin, false) : std::string();
  const CertificateInput input = readCertificateInput(readInput(invocation.inputFile));
  StoreSession session(invocation.store, StoreAccess::kCreate);

  InstallTarget target;
  if (withKeys) {
    target = findKeyHolder(input.certificates, invocation.id, session.filter(), session.directory(),
                           password);
    if (!invocation.overwrite) refuseReplacing(session, target);
  } else {
    // No key to compare with: the cache's own refusal of an existing file is all.
    target.certificate = firstAccepted(input, session.filter());
  }
  if (target.route == InstallRoute::kInstalledKey) {
    replaceBesideInstalledKey(session, target);
  } else {
    failOnResult(session.cache().saveCert(invocation.id, base64Of(*target.certificate),
                                          invocation.overwrite),
                 "the certificate was not installed");
  }
  nameWhatWasLeftOut(input, *target.certificate);
  out << "installed the certificate\n";
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
