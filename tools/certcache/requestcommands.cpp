#include "requestcommands.h"

#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
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

// The steps that request and renew share. The pending request is looked for
// before anything is written: a retry must not replace the request file that
// went to the authority. The --out file is begun beside its place before the
// request is made, so that an unwritable path fails before any key exists, and
// the commit puts it in place with the key, so that the request sent away is
// always the one whose key waits.
int makeRequest(StoreSession& session, const std::string& subject, const std::string& email,
                const std::string& password, int flags, const Invocation& invocation,
                std::ostream& out) {
  const std::string baseName = subjectToFilename(subject, email);
  if (!invocation.overwrite) refusePendingRequest(session.directory(), baseName);
  const std::string what = "no request made for '" + email + "'";
  StoreCommit commit(session.root(), session.filter().subdirectory());
  // The library refuses an existing key unless asked to replace it; the staging
  // place is empty, so the store is asked here.
  if ((flags & CertFileCache::overwriteExisting) == 0 && !baseName.empty() &&
      entryExists(commit.stored(baseName, kKeyExtension))) {
    failOnResult(CertFileCache::kExists, what);
  }
  const std::string file =
      invocation.outFile.empty() ? std::string() : commit.besideOutput(invocation.outFile);
  CertFileCache& cache = commit.cache(session.sharedFilter(), session.withKeys());
  std::string csr;
  failOnResult(invocation.legacyKey
                   ? cache.createCsr(subject, email, password, flags, csr)
                   : cache.createCsr(subject, email, password, flags, csr, invocation.credential),
               what);
  const char* extension =
      (flags & CertFileCache::skipTemporaryKey) != 0 ? kKeyExtension : kTempKeyExtension;
  commit.rename(commit.staged(baseName, extension), commit.stored(baseName, extension));
  if (!file.empty()) {
    writeRequest(file, csr);
    commit.rename(file, invocation.outFile);
  }
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
  const std::string password = readPassword(invocation.passin, true);
  StoreSession session(invocation.store, StoreAccess::kCreate);
  int flags = invocation.overwrite ? CertFileCache::overwriteExisting : 0;
  if (invocation.noTempKey) flags |= CertFileCache::skipTemporaryKey;
  return makeRequest(session, invocation.subject, invocation.email, password, flags, invocation,
                     out);
}

int renewCommand(const Invocation& invocation, std::ostream& out) {
  const std::string password = readPassword(invocation.passin, true);
  StoreSession session(invocation.store, StoreAccess::kChange);
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
  return makeRequest(session, subject, email, password, CertFileCache::overwriteExisting,
                     invocation, out);
}

}  // namespace cli
}  // namespace tavik
