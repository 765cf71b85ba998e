#include "bareopenssl.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "base/opensslutil.h"
#include "benchstore.h"

namespace tavik {
namespace bench {

namespace fs = std::filesystem;

std::size_t bareOpenSslLoad(const std::string& dir) {
  std::map<std::string, std::string> index;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    const fs::path& path = entry.path();
    if (path.extension() != ".crt") continue;
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    if (!bio) continue;
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) continue;
    const X509_NAME* subject = X509_get_subject_name(cert.get());
    const int position = X509_NAME_get_index_by_NID(subject, NID_pkcs9_emailAddress, -1);
    if (position < 0) continue;
    const ASN1_STRING* email = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, position));
    fs::path keyFile = path;
    keyFile.replace_extension(".key");
    struct stat info {};
    if (::stat(keyFile.c_str(), &info) != 0) continue;
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
