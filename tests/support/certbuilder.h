// Certificates and keys made at run time, for the tests and the benchmarks.
#ifndef TAVIK_TESTS_SUPPORT_CERTBUILDER_H_
#define TAVIK_TESTS_SUPPORT_CERTBUILDER_H_

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/opensslutil.h"

namespace tavik {
namespace test {

// One of four RSA 1024 keys, each made once per process: key generation is slow.
inline EVP_PKEY* testKey(int which) {
  static std::array<PkeyHandle, 4> keys;
  if (!keys.at(which)) keys.at(which) = OpenSSLUtil::generateRsaPkey(1024);
  return keys.at(which).get();
}

struct CertRecipe {
  std::vector<std::pair<std::string, std::string>> subject;  // ("CN", "Some One"), ... in UTF-8
  std::vector<std::pair<int, std::string>> extensions;       // NID and OpenSSL config value
  EVP_PKEY* key = nullptr;     // the subject's key; testKey(0) when null
  long days = 365;             // valid since yesterday for this many days
  EVP_PKEY* signer = nullptr;  // self-signed when null
  X509* issuer = nullptr;      // self-issued when null
};

// Serial 2; version 1 without extensions, else 3.
inline X509Ptr makeCertificate(const CertRecipe& recipe) {
  EVP_PKEY* key = recipe.key != nullptr ? recipe.key : testKey(0);
  X509Ptr cert(X509_new());
  X509* issuer = recipe.issuer != nullptr ? recipe.issuer : cert.get();
  X509_NAME* subject = X509_get_subject_name(cert.get());
  bool made = X509_set_version(cert.get(), recipe.extensions.empty() ? 0 : 2) &&
              ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 2) &&
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
