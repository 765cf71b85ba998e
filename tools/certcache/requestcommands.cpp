#include "requestcommands.h"

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>

#include "base/stringutil.h"
#include "cachecalls.h"
#include "passwordsource.h"
#include "safeguards.h"
#include "storecommit.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

namespace fs = boost::filesystem;

// Writes `text` to `path`, which the commit renames into place.
void writeRequest(const std::string& path, const std::string& text) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream << text;
  stream.close();
  if (!stream) throw ToolError(kExitIoError, "cannot write " + path);
}

// What refuses a request before and again after its key is made: a pending
// request (a retry must not replace the request file that went to the
// authority) and, unless asked to replace it, an existing key. The staging
// place is empty, so the library cannot see them; the store is asked here.
void refuseRequest(StoreSession& session, const std::string& baseName, int flags,
                   const Invocation& invocation, const std::string& what) {
  if (!invocation.overwrite) refusePendingRequest(session.directory(), baseName);
  if ((flags & CertFileCache::overwriteExisting) == 0 && !baseName.empty() &&
      entryExists(storeFile(session.directory(), baseName, kKeyExtension))) {
    failOnResult(CertFileCache::kExists, what);
  }
}

// The steps that request and renew share. The key and the request are made in
// the run's own staging place before the store is locked (`session` is not
// locked yet); `recheck` then checks, under the exclusive lock, that what the
// command read before still stands. The --out file is begun beside its place
// before the request is made, so that an unwritable path fails before any key
// exists, and the commit puts it in place with the key, so that the request
// sent away is always the one whose key waits.
int makeRequest(StoreSession& session, const std::string& subject, const std::string& email,
                const std::string& password, int flags, const Invocation& invocation,
                const std::function<void()>& recheck, std::ostream& out) {
  const std::string baseName = subjectToFilename(subject, email);
  const std::string what = "no request made for '" + email + "'";
  refuseRequest(session, baseName, flags, invocation, what);
  StoreCommit commit(session.root(), session.filter().subdirectory());
  const std::string file =
      invocation.outFile.empty() ? std::string() : commit.besideOutput(invocation.outFile);
  CertFileCache& cache = commit.cache(session.sharedFilter(), session.withKeys());
  std::string csr;
  failOnResult(invocation.legacyKey
                   ? cache.createCsr(subject, email, password, flags, csr)
                   : cache.createCsr(subject, email, password, flags, csr, invocation.credential),
               what);
  if (!file.empty()) writeRequest(file, csr);
  session.change();
  recheck();
  refuseRequest(session, baseName, flags, invocation, what);
  const char* extension =
      (flags & CertFileCache::skipTemporaryKey) != 0 ? kKeyExtension : kTempKeyExtension;
  commit.rename(commit.staged(baseName, extension), commit.stored(baseName, extension));
  if (!file.empty()) commit.rename(file, invocation.outFile);
  commit.commit();
  if (file.empty()) {
    out << csr;
    return kExitOk;
  }
  out << "wrote the certificate request for " << email << " to " << invocation.outFile << '\n';
  return kExitOk;
}

}  // namespace

int requestCommand(const Invocation& invocation, std::ostream& out) {
  checkEmailAddress(invocation.email);
  const SecretString password = readPassword(invocation.passin, true);
  StoreSession session(invocation.store, StoreAccess::kPrepare);
  int flags = invocation.overwrite ? CertFileCache::overwriteExisting : 0;
  if (invocation.noTempKey) flags |= CertFileCache::skipTemporaryKey;
  return makeRequest(
      session, invocation.subject, invocation.email, password.str(), flags, invocation, [] {}, out);
}

int renewCommand(const Invocation& invocation, std::ostream& out) {
  const SecretString password = readPassword(invocation.passin, true);
  StoreSession session(invocation.store, StoreAccess::kRead);
  std::string baseName;
  const std::shared_ptr<Certificate> certificate =
      readCertificateAlone(session.cache(), invocation.id, baseName);
  const std::string email = certificate->identity().email;
  if (email.empty()) {
    throw ToolError(kExitDataError,
                    "'" + invocation.id + "' names no e-mail address to request a certificate for");
  }
  // The cache names a request's files by encoding its subject, so the subject
  // that gives the installed base name is that name decoded.
  const std::string subject = decodeFilename(baseName);
  if (encodeFilename(subject) != baseName) {
    throw ToolError(kExitDataError, "the files of '" + invocation.id + "' are named " + baseName +
                                        ", a name that no request makes; rename them first");
  }
  session.release();
  // The identity may have been renamed or removed while the key was made.
  const auto recheck = [&session, &invocation, &baseName] {
    std::string now;
    readCertificateAlone(session.cache(), invocation.id, now);
    if (now != baseName) {
      throw ToolError(kExitBusy, "the files of '" + invocation.id +
                                     "' changed while its new key was made; try again");
    }
  };
  return makeRequest(session, subject, email, password.str(), CertFileCache::overwriteExisting,
                     invocation, recheck, out);
}

}  // namespace cli
}  // namespace tavik
