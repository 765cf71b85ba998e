// The tool's commands, each a thin layer over one or two operations of
// CertFileCache: they check what people type, call the cache, and turn its
// results into output and an exit status.
#ifndef TAVIK_TOOLS_CERTCACHE_COMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_COMMANDS_H_

#include <iosfwd>
#include <memory>
#include <string>

#include "base/certificate.h"
#include "commandline.h"

namespace tavik {
namespace cli {

// Runs the command of `invocation`, writing its output to `out`, and returns
// the exit status. Failures are thrown as ToolError.
int runCommand(const Invocation& invocation, std::ostream& out);

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

#endif  // TAVIK_TOOLS_CERTCACHE_COMMANDS_H_
