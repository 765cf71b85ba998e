#include "cachecalls.h"

#include "resultwords.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

void failOnResult(int result, const std::string& what) {
  if (result != CertFileCache::kDone) throw ToolError(result, what + ": " + describeResult(result));
}

// A lookup would also read the key; the tool reads the certificate alone by
// the same steps the cache takes to find its file.
std::shared_ptr<Certificate> readCertificateAlone(const CertFileCache& cache, const std::string& id,
                                                  std::string& baseName) {
  baseName = cache.getFileBaseName(id);
  if (baseName.empty()) {
    throw ToolError(lookupExitStatus(CertFileCache::kNotInIndex),
                    describeLookupError(CertFileCache::kNotInIndex, id));
  }
  std::string keyFile;
  std::string certFile;
  failOnResult(cache.getFileInfo(baseName, keyFile, certFile), "'" + id + "'");
  std::shared_ptr<Certificate> certificate = Certificate::createFromFile(certFile, true);
  if (!certificate || certificate->getX509() == nullptr) {
    throw ToolError(lookupExitStatus(CertFileCache::kCertUnreadable),
                    describeLookupError(CertFileCache::kCertUnreadable, id));
  }
  return certificate;
}

}  // namespace cli
}  // namespace tavik
