// Owning handles for OpenSSL objects, and key generation.
//
// Every OpenSSL object the library makes is owned by one of these handles from
// the line that creates it, so it is freed on every way out of the code that
// made it. Plain pointers to OpenSSL objects are borrowed. Nothing here throws.
#ifndef TAVIK_BASE_OPENSSLUTIL_H_
#define TAVIK_BASE_OPENSSLUTIL_H_

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

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
inline void freeCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}
inline void freeRevocationLists(STACK_OF(X509_CRL) * lists) {
  sk_X509_CRL_pop_free(lists, X509_CRL_free);
}
// OPENSSL_free is a macro; memory OpenSSL hands out must go back through it.
template <typename T>
void freeOpenSSLMemory(T* memory) {
  OPENSSL_free(memory);
}

}  // namespace openssl_detail

// The owner of one OpenSSL object of type T, freed with `Free`. Every owning
// handle below is one of these; code outside the library names its own, as in
// OpenSSLPtr<BIGNUM, BN_free>.
template <typename T, void (*Free)(T*)>
using OpenSSLPtr = std::unique_ptr<T, openssl_detail::Deleter<T, Free>>;

using X509Ptr = OpenSSLPtr<X509, X509_free>;
using X509ReqPtr = OpenSSLPtr<X509_REQ, X509_REQ_free>;
using X509NamePtr = OpenSSLPtr<X509_NAME, X509_NAME_free>;
using BioPtr = OpenSSLPtr<BIO, openssl_detail::freeBio>;
using EvpPkeyCtxPtr = OpenSSLPtr<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using BasicConstraintsPtr = OpenSSLPtr<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>;
using GeneralNamesPtr = OpenSSLPtr<GENERAL_NAMES, openssl_detail::freeGeneralNames>;
using X509ExtensionsPtr = OpenSSLPtr<STACK_OF(X509_EXTENSION), openssl_detail::freeExtensions>;
// A stack of certificates that holds a reference to each.
using X509StackPtr = OpenSSLPtr<STACK_OF(X509), openssl_detail::freeCertificates>;
using X509CrlPtr = OpenSSLPtr<X509_CRL, X509_CRL_free>;
// A stack of revocation lists that holds a reference to each.
using X509CrlStackPtr = OpenSSLPtr<STACK_OF(X509_CRL), openssl_detail::freeRevocationLists>;
using X509StorePtr = OpenSSLPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSSLPtr<X509_STORE_CTX, X509_STORE_CTX_free>;
using AuthorityKeyIdPtr = OpenSSLPtr<AUTHORITY_KEYID, AUTHORITY_KEYID_free>;
using Asn1IntegerPtr = OpenSSLPtr<ASN1_INTEGER, ASN1_INTEGER_free>;
// Bytes and text that OpenSSL allocated for the caller.
using OpenSSLBytesPtr = OpenSSLPtr<unsigned char, openssl_detail::freeOpenSSLMemory<unsigned char>>;
using OpenSSLCharsPtr = OpenSSLPtr<char, openssl_detail::freeOpenSSLMemory<char>>;

// The owner of one EVP_PKEY. Move-only; frees the key when it goes.
class PkeyHandle {
 public:
  PkeyHandle() = default;
  explicit PkeyHandle(EVP_PKEY* key);

  EVP_PKEY* get() const;  // borrowed; null when the handle holds nothing
  explicit operator bool() const;

 private:
  OpenSSLPtr<EVP_PKEY, EVP_PKEY_free> key_;
};

struct OpenSSLUtil {
  // A new RSA key of `bits` bits (public exponent 65537); an empty handle when
  // generation fails, with OpenSSL's error queue cleared.
  static PkeyHandle generateRsaPkey(int bits);
  // A new EC key on the named curve ("P-256", "P-384"); empty as above.
  static PkeyHandle generateEcPkey(const char* curve);
  // `name` (borrowed) in OpenSSL's one-line RFC 2253 form, as statements and
  // people see names; "?" when it cannot be printed.
  static std::string nameText(const X509_NAME* name);
  // The canonical hash of `name` (borrowed), as OpenSSL's own certificate
  // directories use it; 0 for a name that cannot be hashed, which then matches
  // nothing. OpenSSL's error queue is left as it was.
  static unsigned long nameHash(const X509_NAME* name);
};

}  // namespace tavik

#endif  // TAVIK_BASE_OPENSSLUTIL_H_
