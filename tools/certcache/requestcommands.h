// The command that makes a certificate request for an e-mail address.
#ifndef TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_

#include <iosfwd>

#include "commandline.h"

namespace tavik {
namespace cli {

// A new key and a request for `invocation.email`; refuses (2) while a request
// is pending for the same base name, unless --overwrite.
int requestCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_
