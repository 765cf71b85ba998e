// certcache watch: what changes in the store, one line a change as it happens,
// the operator's view of the library's store watcher.
#ifndef TAVIK_TOOLS_CERTCACHE_WATCHCOMMAND_H_
#define TAVIK_TOOLS_CERTCACHE_WATCHCOMMAND_H_

#include <iosfwd>

#include "commandline.h"

namespace tavik {
namespace cli {

// Prints added, removed and changed lines (JSON: one object a line), flushed
// at once, until SIGINT or SIGTERM, or until --timeout seconds have passed;
// then exits 0. Takes no lock: it only reads, and must not keep writers out
// for as long as it runs.
int watchCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_WATCHCOMMAND_H_
