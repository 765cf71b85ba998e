#include "base/pemfile.h"

#include <openssl/pem.h>

namespace tavik {

PemFileWriter::PemFileWriter(const std::string& path) : bio_(BIO_new_file(path.c_str(), "w")) {}

bool PemFileWriter::flushed(bool written) { return written && BIO_flush(bio_.get()) == 1; }

bool PemFileWriter::writeCertificate(X509* certificate) {
  return flushed(PEM_write_bio_X509(bio_.get(), certificate) == 1);
}

bool PemFileWriter::writeCertificateDer(const std::string& der) {
  return flushed(PEM_write_bio(bio_.get(), PEM_STRING_X509, "",
                               reinterpret_cast<const unsigned char*>(der.data()),
                               static_cast<long>(der.size())) > 0);
}

bool PemFileWriter::writeEncryptedKey(EVP_PKEY* key, const std::string& password) {
  return flushed(PEM_write_bio_PrivateKey(bio_.get(), key, EVP_des_ede3_cbc(), nullptr, 0, nullptr,
                                          const_cast<char*>(password.c_str())) == 1);
}

}  // namespace tavik
