// Owning handles for OpenSSL objects, and RSA key generation.
//
// Every OpenSSL object the library makes is owned by one of these handles from
// the line that creates it, so it is freed on every way out of the code that
// made it. Plain pointers to OpenSSL objects are borrowed.
#ifndef TAVIK_BASE_OPENSSLUTIL_H_
#define TAVIK_BASE_OPENSSLUTIL_H_

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace tavik {

namespace openssl_detail {

template <typename T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* object) const { Free(object); }
};

inline void freeBio(BIO* bio) { BIO_free_all(bio); }
inline void freeGeneralNames(GENERAL_NAMES* names) { GENERAL_NAMES_free(names); }
inline void freeExtensions(STACK_OF(X509_EXTENSION) * extensions) {
  sk_X509_EXTENSION_pop_free(extensions, X509_EXTENSION_free);
}
inline void freeOpenSslBytes(unsigned char* bytes) { OPENSSL_free(bytes); }

}  // namespace openssl_detail

using X509Ptr = std::unique_ptr<X509, openssl_detail::Deleter<X509, X509_free>>;
using X509ReqPtr = std::unique_ptr<X509_REQ, openssl_detail::Deleter<X509_REQ, X509_REQ_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, openssl_detail::Deleter<X509_NAME, X509_NAME_free>>;
using BioPtr = std::unique_ptr<BIO, openssl_detail::Deleter<BIO, openssl_detail::freeBio>>;
using EvpPkeyCtxPtr =
    std::unique_ptr<EVP_PKEY_CTX, openssl_detail::Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using BasicConstraintsPtr =
    std::unique_ptr<BASIC_CONSTRAINTS,
                    openssl_detail::Deleter<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>>;
using GeneralNamesPtr =
    std::unique_ptr<GENERAL_NAMES,
                    openssl_detail::Deleter<GENERAL_NAMES, openssl_detail::freeGeneralNames>>;
using X509ExtensionsPtr = std::unique_ptr<
    STACK_OF(X509_EXTENSION),
    openssl_detail::Deleter<STACK_OF(X509_EXTENSION), openssl_detail::freeExtensions>>;
using OpenSslBytesPtr =
    std::unique_ptr<unsigned char,
                    openssl_detail::Deleter<unsigned char, openssl_detail::freeOpenSslBytes>>;

// The owner of one EVP_PKEY. Move-only; frees the key when it goes.
class PkeyHandle {
 public:
  PkeyHandle() = default;
  explicit PkeyHandle(EVP_PKEY* key);

  EVP_PKEY* get() const;  // borrowed; null when the handle holds nothing
  explicit operator bool() const;

 private:
  std::unique_ptr<EVP_PKEY, openssl_detail::Deleter<EVP_PKEY, EVP_PKEY_free>> key_;
};

struct OpenSSLUtil {
  // A new RSA key of `bits` bits (public exponent 65537); an empty handle when
  // generation fails, with OpenSSL's error queue cleared.
  static PkeyHandle generateRsaPkey(int bits);
};

}  // namespace tavik

#endif  // TAVIK_BASE_OPENSSLUTIL_H_
