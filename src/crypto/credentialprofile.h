// How strong a new credential is: the type and size of its key, how long a
// self-signed certificate is valid, and how much work protects the key file.
//
// The cache's members that take a profile make credentials that today's
// authorities issue and today's TLS and mail software accept: SHA-256 (SHA-384
// with P-384) signatures, requests and self-signed certificates that name the
// address and the key's uses, and key files under AES-256 with PBKDF2. The
// members without one keep making the store's original credentials (RSA 1024,
// SHA-1 requests, Triple-DES key files), which other readers of a store may
// depend on.
#ifndef TAVIK_CRYPTO_CREDENTIALPROFILE_H_
#define TAVIK_CRYPTO_CREDENTIALPROFILE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"

namespace tavik {

// A plain value: the members that take one read it during the call and keep
// nothing. The functions below depend on their arguments alone; they may be
// called from any thread and throw nothing but std::bad_alloc.
struct CredentialProfile {
  enum class Key { rsa2048, rsa3072, rsa4096, ecP256, ecP384 };
  Key key = Key::rsa3072;
  int validityDays = 365;      // self-signed certificates only; 1 to 3650
  int kdfIterations = 100000;  // PBKDF2 iterations protecting the key file; at least 1
};

// What makes `profile` unusable, in words ("" when nothing does). Validity
// counts only for self-signed certificates (`selfSigned`).
std::string profileProblem(const CredentialProfile& profile, bool selfSigned);

// A new key of the profile's type; empty when generation fails, with
// OpenSSL's error queue cleared.
PkeyHandle generateProfileKey(const CredentialProfile& profile);

// The digest that signs the profile's requests and certificates.
const EVP_MD* profileDigest(const CredentialProfile& profile);

// The extensions a credential of `email` carries: subjectAltName email:EMAIL,
// keyUsage (critical; digitalSignature with keyEncipherment for RSA, with
// keyAgreement for EC) and extendedKeyUsage emailProtection and clientAuth.
// A certificate (`certificate` non-null, its public key set) also gets
// basicConstraints (critical, CA false) and a subjectKeyIdentifier. Null
// when one cannot be made. The address enters as an rfc822Name as it stands,
// never through OpenSSL's configuration syntax, so no text in it can add a name.
X509ExtensionsPtr credentialExtensions(const std::string& email, const CredentialProfile& profile,
                                       X509* certificate);

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CREDENTIALPROFILE_H_
