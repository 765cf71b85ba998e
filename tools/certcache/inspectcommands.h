// The commands that judge a store without changing it: `check` looks at every
// file for what needs a person, `verify` asks OpenSSL whether a certificate
// chains to a given authority.
#ifndef TAVIK_TOOLS_CERTCACHE_INSPECTCOMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_INSPECTCOMMANDS_H_

#include <ostream>

#include "commandline.h"

namespace tavik {
namespace cli {

// Prints the findings; returns 0 when there is none and 20 when there are.
int checkCommand(const Invocation& invocation, std::ostream& out);

// Prints "ID: OK" and returns 0, or prints "ID: FAILED: REASON" and throws
// ToolError 65 with OpenSSL's reason.
int verifyCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_INSPECTCOMMANDS_H_
