#include "benchstore.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "base/opensslutil.h"

namespace tavik {
namespace bench {

const char kStorePassword[] = "bench-password";

namespace {

namespace fs = std::filesystem;

using X509ExtensionPtr =
    std::unique_ptr<X509_EXTENSION, openssl_detail::Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

constexpr char kCompleteMarker[] = ".complete";
constexpr int kSubjectKeyCount = 4;
constexpr int kSubjectKeyBits = 1024;
constexpr int kAuthorityKeyBits = 2048;
constexpr long kValiditySeconds = 10L * 365 * 24 * 3600;

std::string opensslError(const char* step) {
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof text);
  ERR_clear_error();
  return std::string(step) + ": " + text;
}

bool addNameEntry(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                    0) == 1;
}

bool addExtension(X509* cert, X509V3_CTX* context, int nid, const char* value) {
  X509ExtensionPtr extension(X509V3_EXT_nconf_nid(nullptr, context, nid, value));
  return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

bool writeBytes(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

std::string bioText(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(length));
}

// The authority that signs every certificate of a store.
struct Authority {
  PkeyHandle key;
  X509NamePtr name;
};

bool makeAuthority(Authority& authority, std::string& error) {
  authority.key = OpenSSLUtil::generateRsaPkey(kAuthorityKeyBits);
  authority.name.reset(X509_NAME_new());
  if (!authority.key || !authority.name || !addNameEntry(authority.name.get(), "C", "DE") ||
      !addNameEntry(authority.name.get(), "O", "Tavik Bench") ||
      !addNameEntry(authority.name.get(), "CN", "Tavik Bench Mail CA")) {
    error = opensslError("making the authority");
    return false;
  }
  return true;
}

// A subject key and its encrypted PEM, made once and shared by many certificates.
struct SubjectKey {
  PkeyHandle key;
  std::string encryptedPem;
};

bool makeSubjectKey(SubjectKey& subject, std::string& error) {
  subject.key = OpenSSLUtil::generateRsaPkey(kSubjectKeyBits);
  BioPtr bio(BIO_new(BIO_s_mem()));
  // The same form the cache writes: Triple-DES under the password, given as the
  // default pass-phrase callback's data.
  if (!subject.key || !bio ||
      PEM_write_bio_PrivateKey(bio.get(), subject.key.get(), EVP_des_ede3_cbc(), nullptr, 0,
                               nullptr, const_cast<char*>(kStorePassword)) != 1) {
    error = opensslError("encrypting a subject key");
    return false;
  }
  subject.encryptedPem = bioText(bio.get());
  return true;
}

// The PEM of certificate `i`, signed by `authority` over `subjectKey`.
bool makeCertificatePem(std::size_t i, const Authority& authority, EVP_PKEY* subjectKey,
                        std::string& pem, std::string& error) {
  X509Ptr cert(X509_new());
  X509NamePtr subject(X509_NAME_new());
  const std::string email = certificateEmail(i);
  char commonName[64];
  std::snprintf(commonName, sizeof commonName, "Bench User %06zu", i);
  bool made = cert && subject && X509_set_version(cert.get(), 2) == 1 &&
              ASN1_INTEGER_set_int64(X509_get_serialNumber(cert.get()),
                                     static_cast<int64_t>(i) + 1000) == 1 &&
              X509_set_issuer_name(cert.get(), authority.name.get()) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValiditySeconds) != nullptr &&
              addNameEntry(subject.get(), "C", "DE") &&
              addNameEntry(subject.get(), "O", "Tavik Bench") &&
              addNameEntry(subject.get(), "CN", commonName) &&
              addNameEntry(subject.get(), "emailAddress", email) &&
              X509_set_subject_name(cert.get(), subject.get()) == 1 &&
              X509_set_pubkey(cert.get(), subjectKey) == 1;
  if (made) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, nullptr, cert.get(), nullptr, nullptr, 0);
    const std::string altName = "email:" + email;
    made = addExtension(cert.get(), &context, NID_basic_constraints, "critical,CA:FALSE") &&
           addExtension(cert.get(), &context, NID_key_usage,
                        "critical,digitalSignature,keyEncipherment") &&
           addExtension(cert.get(), &context, NID_ext_key_usage, "emailProtection") &&
           addExtension(cert.get(), &context, NID_subject_alt_name, altName.c_str()) &&
           X509_sign(cert.get(), authority.key.get(), EVP_sha256()) > 0;
  }
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!made || !bio || PEM_write_bio_X509(bio.get(), cert.get()) != 1) {
    error = opensslError("making a certificate");
    return false;
  }
  pem = bioText(bio.get());
  return true;
}

}  // namespace

std::string storeRoot(const std::string& storesDir, std::size_t count) {
  return (fs::path(storesDir) / ("store-" + std::to_string(count))).string();
}

std::string storeUserDir(const std::string& storesDir, std::size_t count) {
  return (fs::path(storeRoot(storesDir, count)) / "user").string();
}

std::string certificateBaseName(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "user%06zu", i);
  return name;
}

std::string certificateEmail(std::size_t i) { return certificateBaseName(i) + "@bench.example"; }

bool storeExists(const std::string& storesDir, std::size_t count) {
  std::error_code error;
  return fs::exists(fs::path(storeRoot(storesDir, count)) / kCompleteMarker, error);
}

bool generateStore(const std::string& storesDir, std::size_t count, std::string& error) {
  if (storeExists(storesDir, count)) return true;
  const fs::path root = storeRoot(storesDir, count);
  const fs::path userDir = storeUserDir(storesDir, count);
  std::error_code fsError;
  fs::remove_all(root, fsError);
  fs::create_directories(userDir, fsError);
  if (fsError) {
    error = "cannot make " + userDir.string() + ": " + fsError.message();
    return false;
  }

  Authority authority;
  if (!makeAuthority(authority, error)) return false;
  std::array<SubjectKey, kSubjectKeyCount> subjectKeys;
  for (SubjectKey& subjectKey : subjectKeys) {
    if (!makeSubjectKey(subjectKey, error)) return false;
  }

  std::string pem;
  for (std::size_t i = 0; i < count; ++i) {
    const SubjectKey& subjectKey = subjectKeys[i % kSubjectKeyCount];
    if (!makeCertificatePem(i, authority, subjectKey.key.get(), pem, error)) return false;
    const fs::path base = userDir / certificateBaseName(i);
    if (!writeBytes(fs::path(base).concat(".crt"), pem) ||
        !writeBytes(fs::path(base).concat(".key"), subjectKey.encryptedPem)) {
      error = "cannot write " + base.string();
      return false;
    }
    if ((i + 1) % 10000 == 0) std::fprintf(stderr, "  %zu of %zu\n", i + 1, count);
  }
  if (!writeBytes(root / kCompleteMarker, std::to_string(count) + "\n")) {
    error = "cannot mark " + root.string() + " complete";
    return false;
  }
  return true;
}

}  // namespace bench
}  // namespace tavik
