// Building new credentials in memory: a PKCS#10 certificate request for an
// e-mail address with its new RSA key (CertReq), and the self-signed
// certificate of a new key pair. Nothing here knows of files or of the cache;
// the cache writes what these build.
#ifndef TAVIK_CRYPTO_CERTREQ_H_
#define TAVIK_CRYPTO_CERTREQ_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"

namespace tavik {

// Every key the library makes is RSA of this size, whatever a caller asks for.
constexpr int kRsaKeyBits = 1024;

// Builds a PKCS#10 certificate request for an e-mail address together with its
// new RSA key. Construction does all the work; afterwards `generated` says
// whether it succeeded and `pkey` holds the key (also after most failures).
class CertReq {
 public:
  CertReq(const std::string& email, std::string& csr, int keyBits);
  CertReq(const CertReq&) = delete;
  CertReq& operator=(const CertReq&) = delete;

  static bool makeReq(X509_REQ* req, EVP_PKEY* key, const std::string& email, unsigned long type);

  bool generated;   // read by the caller
  PkeyHandle pkey;  // read by the caller; the key stays owned here
};

// The self-signed certificate of a new pair: version 1 (no version field),
// serial 1, subject and issuer CN = email, valid from 2010-01-01 to
// 2037-01-01 whatever the day, signed with `key` over SHA-256. False, with
// the failing step's message when it has one, when a step fails.
bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key, X509Ptr& cert);

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTREQ_H_
