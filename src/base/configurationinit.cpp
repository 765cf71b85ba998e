#include "base/configurationinit.h"

#include <openssl/crypto.h>

#include <mutex>

namespace tavik {

// Nothing happens here on purpose: construction may run before main(), and an
// OpenSSL allocation at that point would lock out CRYPTO_set_mem_functions.
ConfigurationInit::ConfigurationInit() = default;

// OpenSSL releases its global state in its own exit handler.
ConfigurationInit::~ConfigurationInit() = default;

void ConfigurationInit::ensure() {
  static std::once_flag once;
  std::call_once(once, [] {
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_ADD_ALL_CIPHERS |
                            OPENSSL_INIT_ADD_ALL_DIGESTS,
                        nullptr);
  });
}

}  // namespace tavik
