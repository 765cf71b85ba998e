#include "base/opensslutil.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include "base/configurationinit.h"

namespace tavik {

PkeyHandle::PkeyHandle(EVP_PKEY* key) : key_(key) {}

EVP_PKEY* PkeyHandle::get() const { return key_.get(); }

PkeyHandle::operator bool() const { return key_ != nullptr; }

PkeyHandle OpenSSLUtil::generateRsaPkey(int bits) {
  ConfigurationInit::ensure();
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits) <= 0 ||
      EVP_PKEY_generate(context.get(), &key) <= 0) {
    ERR_clear_error();
    return PkeyHandle();
  }
  return PkeyHandle(key);
}

PkeyHandle OpenSSLUtil::generateEcPkey(const char* curve) {
  ConfigurationInit::ensure();
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_group_name(context.get(), curve) <= 0 ||
      EVP_PKEY_generate(context.get(), &key) <= 0) {
    ERR_clear_error();
    return PkeyHandle();
  }
  return PkeyHandle(key);
}

}  // namespace tavik
