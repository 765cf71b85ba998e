// Moving a credential between the store and the PKCS#12 files that browsers,
// mail clients and other tools import and export.
#ifndef TAVIK_TOOLS_CERTCACHE_PKCS12COMMANDS_H_
#define TAVIK_TOOLS_CERTCACHE_PKCS12COMMANDS_H_

#include <ostream>

#include "commandline.h"

namespace tavik {
namespace cli {

// Writes the certificate and key of an identifier to --out as PKCS#12: the key
// opened with --passin, the file protected with --passout (default the same).
int exportCommand(const Invocation& invocation, std::ostream& out);

// Reads a PKCS#12 file with --passin and writes its certificate and key into
// the store under the certificate's base name, the key encrypted with
// --passout (default the same).
int importCommand(const Invocation& invocation, std::ostream& out);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_PKCS12COMMANDS_H_
