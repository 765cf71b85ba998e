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
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

namespace fs = boost::filesystem;

// The --out file of a request. It is opened before the request is made, so
// that an unwritable path fails before any key exists, but emptied only when
// the request is there to be written: a request the cache refuses must not
// cost the file that went to the authority. A file that was new goes again.
class RequestOutput {
 public:
  explicit RequestOutput(const std::string& path) : path_(path) {
    boost::system::error_code error;
    existed_ = fs::exists(fs::symlink_status(path, error));
    std::ofstream probe(path, std::ios::binary | std::ios::app);
    if (!probe) {
      throw ToolError(kExitIoError, "cannot write " + path + ": " + std::strerror(errno));
    }
  }
  ~RequestOutput() {
    if (!done_ && !existed_) std::remove(path_.c_str());
  }
  RequestOutput(const RequestOutput&) = delete;
  RequestOutput& operator=(const RequestOutput&) = delete;

  void write(const std::string& text) {
    std::ofstream stream(path_, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    if (!stream) throw ToolError(kExitIoError, "cannot write " + path_);
    done_ = true;
  }

 private:
  std::string path_;
  bool existed_ = false;
  bool done_ = false;
};

// The steps that request and renew share. The pending request is looked for
// before the --out file is opened: a retry must not empty the request file
// that went to the authority.
int makeRequest(StoreSession& session, const std::string& subject, const std::string& email,
                const std::string& password, int flags, const Invocation& invocation,
                std::ostream& out) {
  if (!invocation.overwrite)
    refusePendingRequest(session.directory(), subjectToFilename(subject, email));
  std::unique_ptr<RequestOutput> file;
  if (!invocation.outFile.empty()) file = std::make_unique<RequestOutput>(invocation.outFile);
  std::string csr;
  CertFileCache& cache = session.cache();
  failOnResult(invocation.legacyKey
                   ? cache.createCsr(subject, email, password, flags, csr)
                   : cache.createCsr(subject, email, password, flags, csr, invocation.credential),
               "no request made for '" + email + "'");
  if (!file) {
    out << csr;
    return kExitOk;
  }
  file->write(csr);
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
