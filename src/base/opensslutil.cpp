#include "base/opensslutil.h"

#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>

#include "base/configurationinit.h"

namespace tavik {

PkeyHandle::PkeyHandle(EVP_PKEY* key) : key_(key) {}

EVP_PKEY* PkeyHandle::get() const { return key_.get(); }

PkeyHandle::operator bool() const { return key_ != nullptr; }

namespace {

// A new key of `type`, its generation set up by `configure`; an empty handle
// when any step fails, with OpenSSL's error queue cleared.
template <typename Configure>
PkeyHandle generateKey(const char* type, Configure configure) {
  ConfigurationInit::ensure();
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 || configure(context.get()) <= 0 ||
      EVP_PKEY_generate(context.get(), &key) <= 0) {
    ERR_clear_error();
    return PkeyHandle();
  }
  return PkeyHandle(key);
}

}  // namespace

PkeyHandle OpenSSLUtil::generateRsaPkey(int bits) {
  return generateKey("RSA", [bits](EVP_PKEY_CTX* context) {
    return EVP_PKEY_CTX_set_rsa_keygen_bits(context, bits);
  });
}

PkeyHandle OpenSSLUtil::generateEcPkey(const char* curve) {
  return generateKey("EC", [curve](EVP_PKEY_CTX* context) {
    return EVP_PKEY_CTX_set_group_name(context, curve);
  });
}

std::string OpenSSLUtil::nameText(const X509_NAME* name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) return "?";
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(std::max(length, 0L)));
}

unsigned long OpenSSLUtil::nameHash(const X509_NAME* name) {
  int ok = 0;
  ERR_set_mark();
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
  ERR_pop_to_mark();
  return ok == 1 ? hash : 0;
}

}  // namespace tavik
