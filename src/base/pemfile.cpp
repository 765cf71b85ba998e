#include "base/pemfile.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavik {

namespace {

using PrivateKeyInfoPtr = OpenSSLPtr<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using AlgorithmPtr = OpenSSLPtr<X509_ALGOR, X509_ALGOR_free>;
using SealedKeyPtr = OpenSSLPtr<X509_SIG, X509_SIG_free>;

// A file BIO on `path`, owner-only before anything is in it. A failure is
// told on OpenSSL's queue as BIO_new_file tells its own.
BIO* openPrivate(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd < 0 || ::fchmod(fd, S_IRUSR | S_IWUSR) != 0 || ::ftruncate(fd, 0) != 0) {
    const int error = errno;
    if (fd >= 0) ::close(fd);
    ERR_raise_data(ERR_LIB_SYS, error, "calling open(%s)", path.c_str());
    return nullptr;
  }
  BIO* bio = BIO_new_fd(fd, BIO_CLOSE);
  if (bio == nullptr) ::close(fd);
  return bio;
}

}  // namespace

PemFileWriter::PemFileWriter(const std::string& path, Mode mode)
    : bio_(mode == Mode::kPrivate ? openPrivate(path) : BIO_new_file(path.c_str(), "w")) {}

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

bool PemFileWriter::writeEncryptedKeyPbes2(EVP_PKEY* key, const std::string& password,
                                           int iterations) {
  PrivateKeyInfoPtr info(EVP_PKEY2PKCS8(key));
  if (!info) return false;
  AlgorithmPtr scheme(
      PKCS5_pbe2_set_iv(EVP_aes_256_cbc(), iterations, nullptr, 0, nullptr, NID_hmacWithSHA256));
  if (!scheme) return false;
  const char* passPhrase = password.c_str();
  SealedKeyPtr sealed(PKCS8_set0_pbe(passPhrase, static_cast<int>(std::strlen(passPhrase)),
                                     info.get(), scheme.get()));
  if (!sealed) return false;
  static_cast<void>(scheme.release());  // the sealed key owns its scheme from here
  return flushed(PEM_write_bio_PKCS8(bio_.get(), sealed.get()) == 1);
}

}  // namespace tavik
