// The commands that make a certificate request: `request` for an e-mail
// address, and `renew` for the address of an installed certificate.
#ifndef TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_

#include <iosfwd>

#include "commandline.h"

namespace tavik {
namespace cli {

// A new key and a request for `invocation.email`; refuses (2) while a request
// is pending for the same base name, unless --overwrite.
int requestCommand(const Invocation& invocation, std::ostream& out);

// A new key and a request for the address of the installed certificate
// `invocation.id`, under its base name, with the cache's overwriting allowed so
// that the installed pair keeps working until `install --overwrite` replaces
// both. Refuses a pending request as `request` does.
int renewCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_REQUESTCOMMANDS_H_
