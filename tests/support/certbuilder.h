// Certificates and keys made at run time, for the tests and the benchmarks.
#ifndef TAVIK_TESTS_SUPPORT_CERTBUILDER_H_
#define TAVIK_TESTS_SUPPORT_CERTBUILDER_H_

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/opensslutil.h"

namespace tavik {
namespace test {

// Keys 0 to 3 are RSA 1024, 4 to 7 EC P-256, each made once per process: key generation is slow.
inline EVP_PKEY* testKey(int which) {
  static std::array<PkeyHandle, 8> keys;
  if (!keys.at(which)) {
    keys.at(which) =
        which < 4 ? OpenSSLUtil::generateRsaPkey(1024) : OpenSSLUtil::generateEcPkey("P-256");
  }
  return keys.at(which).get();
}

struct CertRecipe {
  std::vector<std::pair<std::string, std::string>> subject;  // ("CN", "Some One"), ... in UTF-8
  std::vector<std::pair<int, std::string>> extensions;       // NID and OpenSSL config value
  EVP_PKEY* key = nullptr;     // the subject's key; testKey(0) when null
  long days = 365;             // valid since yesterday for this many days
  EVP_PKEY* signer = nullptr;  // self-signed when null
  X509* issuer = nullptr;      // self-issued when null
  long serial = 2;
};

// Version 1 without extensions, else 3.
inline X509Ptr makeCertificate(const CertRecipe& recipe) {
  EVP_PKEY* key = recipe.key != nullptr ? recipe.key : testKey(0);
  X509Ptr cert(X509_new());
  X509* issuer = recipe.issuer != nullptr ? recipe.issuer : cert.get();
  X509_NAME* subject = X509_get_subject_name(cert.get());
  bool made = X509_set_version(cert.get(), recipe.extensions.empty() ? 0 : 2) &&
              ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), recipe.serial) &&
              X509_gmtime_adj(X509_getm_notBefore(cert.get()), -86400) &&
              X509_gmtime_adj(X509_getm_notAfter(cert.get()), recipe.days * 86400) &&
              X509_set_pubkey(cert.get(), key);
  for (const auto& entry : recipe.subject) {
    const auto* value = reinterpret_cast<const unsigned char*>(entry.second.c_str());
    made = made && X509_NAME_add_entry_by_txt(subject, entry.first.c_str(), MBSTRING_UTF8, value,
                                              -1, -1, 0);
  }
  made = made && X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer));
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, cert.get(), nullptr, nullptr, 0);
  for (const auto& wanted : recipe.extensions) {
    X509_EXTENSION* extension =
        X509V3_EXT_nconf_nid(nullptr, &context, wanted.first, wanted.second.c_str());
    made = made && extension != nullptr && X509_add_ext(cert.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }
  if (!made || X509_sign(cert.get(), recipe.signer ? recipe.signer : key, EVP_sha256()) <= 0) {
    throw std::runtime_error("cannot make a test certificate");
  }
  return cert;
}

struct CrlRecipe {
  const X509_NAME* issuer = nullptr;          // the list's issuer
  EVP_PKEY* signer = nullptr;                 // the key that signs it
  std::vector<std::pair<long, int>> revoked;  // serial and reason code (-1: none), on 2025-01-01
  long thisUpdateDays = -1;                   // from now
  long nextUpdateDays = 7;
  long number = 1;  // the CRL number; 0: none
  bool delta = false, indirect = false;
};

// A revocation list, signed with SHA-256.
inline X509CrlPtr makeRevocationList(const CrlRecipe& recipe) {
  X509CrlPtr crl(X509_CRL_new());
  const std::time_t now = std::time(nullptr);
  const OpenSSLPtr<ASN1_TIME, ASN1_TIME_free> thisUpdate(
      ASN1_TIME_adj(nullptr, now, recipe.thisUpdateDays, 0)),
      nextUpdate(ASN1_TIME_adj(nullptr, now, recipe.nextUpdateDays, 0)),
      revokedAt(ASN1_TIME_adj(nullptr, 1735689600, 0, 0));
  const Asn1IntegerPtr number(ASN1_INTEGER_new());
  OpenSSLPtr<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free> scope(ISSUING_DIST_POINT_new());
  bool made = crl && thisUpdate && nextUpdate && revokedAt && number && scope &&
              X509_CRL_set_version(crl.get(), 1) &&
              X509_CRL_set_issuer_name(crl.get(), recipe.issuer) &&
              X509_CRL_set1_lastUpdate(crl.get(), thisUpdate.get()) &&
              X509_CRL_set1_nextUpdate(crl.get(), nextUpdate.get()) &&
              ASN1_INTEGER_set(number.get(), recipe.number);
  for (const auto& [serial, reason] : recipe.revoked) {
    OpenSSLPtr<X509_REVOKED, X509_REVOKED_free> entry(X509_REVOKED_new());
    const Asn1IntegerPtr value(ASN1_INTEGER_new());
    const OpenSSLPtr<ASN1_ENUMERATED, ASN1_ENUMERATED_free> code(ASN1_ENUMERATED_new());
    made =
        made && entry && value && code && ASN1_INTEGER_set(value.get(), serial) &&
        X509_REVOKED_set_serialNumber(entry.get(), value.get()) &&
        X509_REVOKED_set_revocationDate(entry.get(), revokedAt.get()) &&
        ASN1_ENUMERATED_set(code.get(), reason) &&
        (reason < 0 || X509_REVOKED_add1_ext_i2d(entry.get(), NID_crl_reason, code.get(), 0, 0)) &&
        X509_CRL_add0_revoked(crl.get(), entry.get()) && entry.release() != nullptr;
  }
  scope->indirectCRL = 1;
  made = made &&
         (recipe.number == 0 ||
          X509_CRL_add1_ext_i2d(crl.get(), NID_crl_number, number.get(), 0, 0)) &&
         (!recipe.delta || X509_CRL_add1_ext_i2d(crl.get(), NID_delta_crl, number.get(), 1, 0)) &&
         (!recipe.indirect ||
          X509_CRL_add1_ext_i2d(crl.get(), NID_issuing_distribution_point, scope.get(), 1, 0)) &&
         X509_CRL_sort(crl.get()) && X509_CRL_sign(crl.get(), recipe.signer, EVP_sha256()) > 0;
  if (!made) throw std::runtime_error("cannot make a test revocation list");
  return crl;
}

// An end entity with CN "User", emailAddress `email` and CA:FALSE.
inline CertRecipe userRecipe(const std::string& email, EVP_PKEY* key = nullptr, long days = 365) {
  return {
      {{"CN", "User"}, {"emailAddress", email}}, {{NID_basic_constraints, "CA:FALSE"}}, key, days};
}

// What `write` writes to a memory BIO.
template <typename Write>
std::string written(Write write) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (write(bio.get()) <= 0) return "";
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, size);
}
inline std::string toPem(X509* cert) {
  return written([cert](BIO* bio) { return PEM_write_bio_X509(bio, cert); });
}
inline std::string toDer(X509* cert) {
  return written([cert](BIO* bio) { return i2d_X509_bio(bio, cert); });
}
inline std::string toPem(X509_CRL* crl) {
  return written([crl](BIO* bio) { return PEM_write_bio_X509_CRL(bio, crl); });
}
inline std::string toDer(X509_CRL* crl) {
  return written([crl](BIO* bio) { return i2d_X509_CRL_bio(bio, crl); });
}
// The key as PEM, encrypted with Triple-DES under `password`, as the cache writes keys.
inline std::string encryptedKeyPem(EVP_PKEY* key, const std::string& password) {
  return written([&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key, EVP_des_ede3_cbc(), nullptr, 0, nullptr,
                                    const_cast<char*>(password.c_str()));
  });
}

}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_SUPPORT_CERTBUILDER_H_
