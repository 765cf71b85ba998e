// What the tool tells about one certificate: names, serial, key, signature,
// validity, fingerprint and where its revocation list is published, in the
// forms that its output promises.
#ifndef TAVIK_TOOLS_CERTCACHE_CERTIFICATEDESCRIPTION_H_
#define TAVIK_TOOLS_CERTCACHE_CERTIFICATEDESCRIPTION_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <ctime>
#include <string>
#include <vector>

namespace tavik {
namespace cli {

struct CertificateDescription {
  std::string subject;    // OpenSSL's one-line RFC 2253 form
  std::string issuer;     // likewise
  std::string serial;     // upper-case hex without colons
  std::string publicKey;  // "RSA 3072", "EC P-256"; other kinds by OpenSSL's name and size
  std::string signature;  // OpenSSL's long name of the algorithm, e.g. sha256WithRSAEncryption
  std::string notBefore;  // 2010-01-01T00:00:00Z
  std::string notAfter;
  std::time_t notBeforeTime = 0;
  std::time_t notAfterTime = 0;
  bool expired = false;      // notAfter lies before `now`
  bool notYetValid = false;  // notBefore lies after `now`
  std::string sha256;        // of the DER encoding, lower-case hex without colons
  // The URIs of its CRL distribution points, where its issuer publishes the
  // list that would revoke it, in their order; none when it names none.
  std::vector<std::string> crlDistributionPoints;
};

// Describes `cert` (borrowed, not null) as seen at time `now`. Throws ToolError
// (74) when a field cannot be read, which a certificate that OpenSSL decoded
// does not normally give.
CertificateDescription describeCertificate(X509* cert, std::time_t now);

// What the kind and size of `key` (borrowed, not null) are called in the
// description: "RSA 3072", "EC P-256", or OpenSSL's name of the kind and its
// size in bits.
std::string keyText(const EVP_PKEY* key);

// Formats a time as 2010-01-01T00:00:00Z.
std::string formatTime(std::time_t time);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_CERTIFICATEDESCRIPTION_H_
