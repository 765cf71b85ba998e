#include "benchstore.h"

#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>

#include "base/opensslutil.h"
#include "support/certbuilder.h"

namespace tavik {
namespace bench {

const char kStorePassword[] = "bench-password";

namespace {

namespace fs = std::filesystem;

constexpr char kCompleteMarker[] = ".complete";
constexpr int kSubjectKeys = 4;  // testKey() holds this many
constexpr long kDays = 3650;     // stores are kept across runs for years
constexpr int kAuthorityBits = 2048;

bool writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

}  // namespace

bool keyFileExists(std::filesystem::path certFile) {
  struct stat info {};
  return ::stat(certFile.replace_extension(".key").c_str(), &info) == 0;
}

std::string storeRoot(const std::string& storesDir, std::size_t count) {
  return (fs::path(storesDir) / ("store-" + std::to_string(count))).string();
}

std::string certificateBaseName(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "user%06zu", i);
  return name;
}

std::string certificateEmail(std::size_t i) { return certificateBaseName(i) + "@bench.example"; }

bool storeExists(const std::string& storesDir, std::size_t count) {
  std::error_code ignored;
  return fs::exists(fs::path(storeRoot(storesDir, count)) / kCompleteMarker, ignored);
}

bool generateStore(const std::string& storesDir, std::size_t count, std::string& error) {
  if (storeExists(storesDir, count)) return true;
  const fs::path root = storeRoot(storesDir, count);
  std::error_code fsError;
  fs::remove_all(root, fsError);
  fs::create_directories(root / "user", fsError);
  if (fsError) {
    error = "cannot make " + root.string() + "/user: " + fsError.message();
    return false;
  }
  try {
    const PkeyHandle authorityKey = OpenSSLUtil::generateRsaPkey(kAuthorityBits);
    if (!authorityKey) throw std::runtime_error("cannot make the authority's key");
    const X509Ptr authority =
        test::makeCertificate({{{"C", "DE"}, {"O", "Tavik Bench"}, {"CN", "Tavik Bench Mail CA"}},
                               {{NID_basic_constraints, "critical,CA:TRUE"}},
                               authorityKey.get(),
                               kDays});
    std::string keyPems[kSubjectKeys];
    for (int k = 0; k < kSubjectKeys; ++k) {
      keyPems[k] = test::encryptedKeyPem(test::testKey(k), kStorePassword);
    }
    for (std::size_t i = 0; i < count; ++i) {
      const std::string email = certificateEmail(i);
      char commonName[32];
      std::snprintf(commonName, sizeof commonName, "Bench User %06zu", i);
      test::CertRecipe user{
          {{"C", "DE"}, {"O", "Tavik Bench"}, {"CN", commonName}, {"emailAddress", email}},
          {{NID_basic_constraints, "critical,CA:FALSE"},
           {NID_key_usage, "critical,digitalSignature,keyEncipherment"},
           {NID_ext_key_usage, "emailProtection"},
           {NID_subject_alt_name, "email:" + email}},
          test::testKey(static_cast<int>(i % kSubjectKeys)),
          kDays,
          authorityKey.get(),
          authority.get()};
      const fs::path base = root / "user" / certificateBaseName(i);
      if (!writeFile(fs::path(base).concat(".crt"),
                     test::toPem(test::makeCertificate(user).get())) ||
          !writeFile(fs::path(base).concat(".key"), keyPems[i % kSubjectKeys])) {
        throw std::runtime_error("cannot write " + base.string());
      }
      if ((i + 1) % 10000 == 0) std::fprintf(stderr, "  %zu of %zu\n", i + 1, count);
    }
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
  // Written last, so that an interrupted run leaves a store that is made again.
  if (!writeFile(root / kCompleteMarker, std::to_string(count) + "\n")) {
    error = "cannot mark " + root.string() + " complete";
    return false;
  }
  return true;
}

std::size_t bareOpenSslLoad(const std::string& dir) {
  std::map<std::string, std::string> index;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    const fs::path& path = entry.path();
    if (path.extension() != ".crt") continue;
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert) continue;
    const X509_NAME* subject = X509_get_subject_name(cert.get());
    const int position = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1);
    if (position < 0 || !keyFileExists(path)) continue;
    const ASN1_STRING* email = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, position));
    index.emplace(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(email)),
                              static_cast<std::size_t>(ASN1_STRING_length(email))),
                  path.stem().string());
  }
  return index.size();
}

bool bareReadCertificateAndKey(const std::string& base) {
  BioPtr certBio(BIO_new_file((base + ".crt").c_str(), "r"));
  X509Ptr cert(certBio ? PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr) : nullptr);
  BioPtr keyBio(BIO_new_file((base + ".key").c_str(), "r"));
  PkeyHandle key(keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr,
                                                  const_cast<char*>(kStorePassword))
                        : nullptr);
  return cert && key;
}

}  // namespace bench
}  // namespace tavik
