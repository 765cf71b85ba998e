#include "certificatedescription.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <memory>

#include "base/opensslutil.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

using BignumPtr = OpenSSLPtr<BIGNUM, BN_free>;

[[noreturn]] void unreadable(const char* field) {
  throw ToolError(kExitIoError, std::string("the certificate's ") + field + " cannot be read");
}

std::string nameText(const X509_NAME* name, const char* field) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) unreadable(field);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

// OpenSSL's long name of an object, or its dotted form when OpenSSL knows no name.
// An identifier may be long, so the text is asked for its length first.
std::string objectText(const ASN1_OBJECT* object, const char* field) {
  const int length = object == nullptr ? -1 : OBJ_obj2txt(nullptr, 0, object, 0);
  if (length <= 0) unreadable(field);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  OBJ_obj2txt(&text[0], length + 1, object, 0);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::string serialText(const ASN1_INTEGER* serial) {
  BignumPtr number(ASN1_INTEGER_to_BN(serial, nullptr));
  if (!number) unreadable("serial number");
  OpenSSLCharsPtr hex(BN_bn2hex(number.get()));
  if (!hex) unreadable("serial number");
  return hex.get();
}

// A key OpenSSL cannot decode (an algorithm it does not know) is still named,
// by the identifier of its algorithm.
std::string publicKeyText(X509* cert) {
  const EVP_PKEY* key = X509_get0_pubkey(cert);
  ERR_clear_error();
  if (key != nullptr) return keyText(key);
  ASN1_OBJECT* algorithm = nullptr;
  if (X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr, X509_get_X509_PUBKEY(cert)) !=
      1) {
    unreadable("public key");
  }
  return objectText(algorithm, "public key") + " (unreadable)";
}

std::string signatureText(const X509* cert) {
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(nullptr, &algorithm, cert);
  const ASN1_OBJECT* name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
  return objectText(name, "signature algorithm");
}

std::time_t timeValue(const ASN1_TIME* time, const char* field) {
  std::tm broken{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &broken) != 1) unreadable(field);
  return ::timegm(&broken);
}

std::string sha256Text(X509* cert) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(cert, EVP_sha256(), digest, &length) != 1) unreadable("fingerprint");
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text.push_back(kHex[digest[i] >> 4]);
    text.push_back(kHex[digest[i] & 0x0f]);
  }
  return text;
}

// The full names of its distribution points that are URIs; a distribution
// point named relative to its issuer, or one whose extension does not decode,
// names none that a person could fetch.
std::vector<std::string> distributionPointUris(X509* cert) {
  const OpenSSLPtr<CRL_DIST_POINTS, CRL_DIST_POINTS_free> points(static_cast<CRL_DIST_POINTS*>(
      X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr)));
  ERR_clear_error();
  std::vector<std::string> uris;
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
    const DIST_POINT_NAME* name = sk_DIST_POINT_value(points.get(), i)->distpoint;
    if (name == nullptr || name->type != 0) continue;
    for (int j = 0; j < sk_GENERAL_NAME_num(name->name.fullname); ++j) {
      const GENERAL_NAME* entry = sk_GENERAL_NAME_value(name->name.fullname, j);
      if (entry->type != GEN_URI) continue;
      const ASN1_IA5STRING* uri = entry->d.uniformResourceIdentifier;
      uris.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                        static_cast<std::size_t>(ASN1_STRING_length(uri)));
    }
  }
  return uris;
}

}  // namespace

std::string keyText(const EVP_PKEY* key) {
  if (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS")) {
    return "RSA " + std::to_string(EVP_PKEY_get_bits(key));
  }
  char group[80];
  if (EVP_PKEY_is_a(key, "EC") &&
      EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group, sizeof group,
                                     nullptr) == 1) {
    // P-256 rather than prime256v1: the name that people and authorities use.
    const char* nist = EC_curve_nid2nist(OBJ_txt2nid(group));
    return std::string("EC ") + (nist != nullptr ? nist : group);
  }
  ERR_clear_error();
  const char* kind = EVP_PKEY_get0_type_name(key);
  return std::string(kind != nullptr ? kind : "unknown") + " " +
         std::to_string(EVP_PKEY_get_bits(key));
}

std::string formatTime(std::time_t time) {
  std::tm broken{};
  ::gmtime_r(&time, &broken);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &broken);
  return text;
}

CertificateDescription describeCertificate(X509* cert, std::time_t now) {
  CertificateDescription description;
  description.subject = nameText(X509_get_subject_name(cert), "subject");
  description.issuer = nameText(X509_get_issuer_name(cert), "issuer");
  description.serial = serialText(X509_get0_serialNumber(cert));
  description.publicKey = publicKeyText(cert);
  description.signature = signatureText(cert);
  description.notBeforeTime = timeValue(X509_get0_notBefore(cert), "start of validity");
  description.notAfterTime = timeValue(X509_get0_notAfter(cert), "end of validity");
  description.notBefore = formatTime(description.notBeforeTime);
  description.notAfter = formatTime(description.notAfterTime);
  description.expired = description.notAfterTime < now;
  description.notYetValid = description.notBeforeTime > now;
  description.sha256 = sha256Text(cert);
  description.crlDistributionPoints = distributionPointUris(cert);
  return description;
}

}  // namespace cli
}  // namespace tavik
