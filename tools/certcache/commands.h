// The tool's commands, each a thin layer over one or two operations of
// CertFileCache: they check what people type, call the cache, and turn its
// results into output and an exit status.
#ifndef TAVIK_TOOLS_CERTCACHE_COMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_COMMANDS_H_

#include <iosfwd>

#include "commandline.h"

namespace tavik {
namespace cli {

// Runs the command of `invocation`, writing its output to `out`, and returns
// the exit status. Failures are thrown as ToolError.
int runCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_COMMANDS_H_
