// The one writer of the store's PEM files: certificates and encrypted keys.
//
// The file is opened as OpenSSL's own file BIO opens it, BIO_new_file(path,
// "w"): created, or emptied when it exists, with the mode the process gives
// new files. What a failed open leaves on OpenSSL's error queue stays there for
// the caller. Each write is one PEM block followed by a flush: the flush belongs
// to the write, since a full disk shows only there, and a key file cut short
// must count as not written.
#ifndef TAVIK_BASE_PEMFILE_H_
#define TAVIK_BASE_PEMFILE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"

namespace tavik {

class PemFileWriter {
 public:
  explicit PemFileWriter(const std::string& path);
  PemFileWriter(const PemFileWriter&) = delete;
  PemFileWriter& operator=(const PemFileWriter&) = delete;

  bool isOpen() const { return static_cast<bool>(bio_); }

  // True when the whole block reached the file.
  bool writeCertificate(X509* certificate);
  bool writeCertificateDer(const std::string& der);
  // The key in encrypted PKCS#8 under Triple-DES. The password reaches OpenSSL
  // as the default pass-phrase callback's user data, so the pass phrase is its
  // characters up to the first NUL.
  bool writeEncryptedKey(EVP_PKEY* key, const std::string& password);

  // Frees the BIO, which closes the file.
  void close() { bio_.reset(); }

 private:
  bool flushed(bool written);

  BioPtr bio_;
};

}  // namespace tavik

#endif  // TAVIK_BASE_PEMFILE_H_
