// The store's revocation lists: `crl add` keeps the lists that authorities
// publish, so that a job fetching them on a timer can hand over each one it
// gets; `crl list` tells which lists are kept.
#ifndef TAVIK_TOOLS_CERTCACHE_CRLCOMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_CRLCOMMANDS_H_

#include <ostream>

#include "commandline.h"

namespace tavik {
namespace cli {

// Keeps every list of the files given in the root's `crl` directory, in one
// commit, or none: a list that is no list, that no authority of the store
// issued or verifies, or that is older than the one kept for its issuer, is
// refused with ToolError 65 before anything is written. Prints "kept
// revocation list: ISSUER" for each list kept and "already kept: ISSUER" for
// one the store holds as it is; warns on stderr of a list past its nextUpdate.
int crlAddCommand(const Invocation& invocation, std::ostream& out);

// Prints ISSUER<TAB>THIS_UPDATE<TAB>NEXT_UPDATE<TAB>ENTRIES for each kept list;
// JSON: [{"issuer", "this_update", "next_update", "entries", "file"}].
int crlListCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_CRLCOMMANDS_H_
