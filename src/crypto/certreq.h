// Building new credentials in memory: a PKCS#10 certificate request for an
// e-mail address with its new key (CertReq), and the self-signed certificate
// of a new key pair. Nothing here knows of files or of the cache; the cache
// writes what these build. Their statements are the cache's own (cachelog.h).
// Nothing here throws but std::bad_alloc; nothing holds shared state, so
// several threads may build at once.
#ifndef TAVIK_CRYPTO_CERTREQ_H_
#define TAVIK_CRYPTO_CERTREQ_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"
#include "crypto/credentialprofile.h"

namespace tavik {

// The size of every key that the members without a profile make, whatever a
// caller asks for: the store's original credentials.
constexpr int kRsaKeyBits = 1024;

// Builds a PKCS#10 certificate request for an e-mail address together with its
// new key. Construction does all the work; afterwards `generated` says whether
// it succeeded (a failing step is logged as an error) and `pkey` holds the key
// (also after every failure but that of making the key). On success `csr`
// holds the request as PEM; on failure it keeps what it held.
class CertReq {
 public:
  // RSA 1024, signed over SHA-1, no attributes; `keyBits` changes nothing.
  CertReq(const std::string& email, std::string& csr, int keyBits);
  // The profile's key, signed with its digest, with an extension request for
  // the credential's extensions (credentialExtensions), so that an authority
  // that copies them issues a certificate for mail and for TLS clients.
  CertReq(const std::string& email, std::string& csr, const CredentialProfile& profile);
  CertReq(const CertReq&) = delete;
  CertReq& operator=(const CertReq&) = delete;

  // Sets version 1, the subject emailAddress=`email` (`type` as
  // X509_NAME_add_entry_by_txt takes it, MBSTRING_UTF8 for text) and the
  // public key of `key` in `req`; both borrowed. False when a step fails, with
  // the steps before it left done.
  static bool makeReq(X509_REQ* req, EVP_PKEY* key, const std::string& email, unsigned long type);

  bool generated;   // read by the caller
  PkeyHandle pkey;  // read by the caller; the key stays owned here

 private:
  // The steps both constructors take; `profile` null for the original request.
  void build(const std::string& email, std::string& csr, const CredentialProfile* profile);
};

// The self-signed certificate of a new pair: version 1 (no version field),
// serial 1, subject and issuer CN = email, valid from 2010-01-01 to
// 2037-01-01 whatever the day, signed with `key` (borrowed) over SHA-256.
// `cert` owns the certificate from the first step. False, with the failing
// step's message when it has one, when a step fails; `cert` may then hold an
// unfinished certificate, which the caller discards.
bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key, X509Ptr& cert);

// The self-signed certificate of a new pair made with `profile`: version 3, a
// random positive serial of 16 octets, subject and issuer CN = email, valid
// from now for the profile's days, the credential's extensions, signed with
// `key` over the profile's digest. False as above.
bool buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key,
                                const CredentialProfile& profile, X509Ptr& cert);

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTREQ_H_
