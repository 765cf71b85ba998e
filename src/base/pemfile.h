// The one writer of the store's PEM files: certificates and encrypted keys.
//
// By default the file is opened as OpenSSL's own file BIO opens it,
// BIO_new_file(path, "w"): created, or emptied when it exists, with the mode
// the process gives new files. A private file is owner-only (0600) from the
// moment it exists, and an existing one is restricted before it is emptied,
// so no key is readable by others at any moment. What a failed open leaves on
// OpenSSL's error queue stays there for the caller. Each write is one PEM block followed by a
// flush: the flush belongs to the write, since a full disk shows only there, and a key file cut
// short must count as not written.
#ifndef TAVIK_BASE_PEMFILE_H_
#define TAVIK_BASE_PEMFILE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>

#include "base/opensslutil.h"

namespace tavik {

class PemFileWriter {
 public:
  enum class Mode { kProcessDefault, kPrivate };
  explicit PemFileWriter(const std::string& path, Mode mode = Mode::kProcessDefault);
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
  // The key in encrypted PKCS#8 under PBES2: AES-256-CBC with a key from
  // PBKDF2-HMAC-SHA256 at `iterations`. The pass phrase is read as above.
  bool writeEncryptedKeyPbes2(EVP_PKEY* key, const std::string& password, int iterations);

  // Frees the BIO, which closes the file.
  void close() { bio_.reset(); }

 private:
  bool flushed(bool written);

  BioPtr bio_;
};

}  // namespace tavik

#endif  // TAVIK_BASE_PEMFILE_H_
