// Reading a store's key file with its password, telling whether a key is a
// certificate's, and judging a key file's protection without the password:
// what the tool checks before it puts a certificate beside a key, and what
// `check` looks at in a store.
#ifndef TAVIK_TOOLS_CERTCACHE_KEYFILE_H_
#define TAVIK_TOOLS_CERTCACHE_KEYFILE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"

namespace tavik {
namespace cli {

// The private key in the PEM file `path`, decrypted with `password`. Throws
// ToolError: 74 when the file cannot be opened, 103 when the key does not open
// with the password.
PkeyHandle readKeyFile(const std::string& path, const std::string& password);

// True when `key` is the key of `certificate` (null: false).
bool isKeyOf(X509* certificate, const EVP_PKEY* key);

// What is weak about the protection of the PEM key file `path`, read without
// its password: the words after "key file", e.g. "encrypted with Triple-DES and
// protected with 2048 PBKDF2 iterations", or "not encrypted". Empty when the
// protection is strong enough, and for a file that cannot be read or holds no
// PEM block, which other checks report.
std::string keyFileWeakness(const std::string& path);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_KEYFILE_H_
