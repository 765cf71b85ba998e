// Calls on the cache that several command families make alike: a result code
// turned into the tool's error, and a certificate read without its key.
#ifndef TAVIK_TOOLS_CERTCACHE_CACHECALLS_H_
#define TAVIK_TOOLS_CERTCACHE_CACHECALLS_H_

#include <memory>
#include <string>

#include "base/certificate.h"
#include "crypto/certificatefilecache.h"

namespace tavik {
namespace cli {

// Throws ToolError with the cache's `result` as status, `what` and the words of
// the result as message, unless the result is 0.
void failOnResult(int result, const std::string& what);

// Reads the certificate of `id` alone, without its key: the index's base name
// (into `baseName`), the file in the root, and the certificate factory. Throws
// ToolError 100 to 104 as a lookup would, or with getFileInfo's result.
std::shared_ptr<Certificate> readCertificateAlone(const CertFileCache& cache, const std::string& id,
                                                  std::string& baseName);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_CACHECALLS_H_
