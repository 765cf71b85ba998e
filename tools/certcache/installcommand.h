// The `install` command: a signed certificate from a file or standard input,
// put beside the key it belongs to.
#ifndef TAVIK_TOOLS_CERTCACHE_INSTALLCOMMAND_H_
#define TAVIK_TOOLS_CERTCACHE_INSTALLCOMMAND_H_

#include <iosfwd>

#include "commandline.h"

namespace tavik {
namespace cli {

// In a key-holding cache the certificate whose public key is the pending key
// of its base name is installed with the cache's saveCert; one whose key is the
// installed key replaces the installed certificate (with --overwrite when one
// is there) and leaves the key alone. Without keys, the first certificate that
// the cache's filter takes is installed. The other certificates of a bundle are
// named on standard error. Every check comes before anything is written.
int installCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_INSTALLCOMMAND_H_
