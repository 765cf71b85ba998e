// One X.509 certificate, with its private key when it was read together with one.
//
// Certificates are made only by the static factories, which return an empty
// pointer when they cannot make one. Reading a store is the hot path: with
// loadFlag false, createFromFile checks that the file holds one whole,
// well-formed certificate and reads only what identifies it (subject and
// extensions); the full decoding, public key included, waits for the first
// getX509().
//
// Failures: every factory returns an empty pointer; when OpenSSL's decoding
// fails, its error queue is cleared, the caller's earlier errors included.
// Nothing throws but std::bad_alloc. Threads: a Certificate may be
// used from several threads at once; the first getX509() of a lazily read
// certificate decodes it once, under a once-flag, whichever thread comes first.
#ifndef TAVIK_BASE_CERTIFICATE_H_
#define TAVIK_BASE_CERTIFICATE_H_

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/certificateidentity.h"
#include "base/opensslutil.h"

namespace tavik {

class Certificate {
 public:
  // Reads a PEM or DER certificate file. With loadFlag true the certificate is
  // decoded whole at once; with false, see the class comment.
  static std::shared_ptr<Certificate> createFromFile(std::string path, bool loadFlag);
  // The same from a certificate file's bytes, read by the caller.
  static std::shared_ptr<Certificate> createFromContents(std::string_view contents, bool loadFlag);
  // Reads a certificate and its PEM private key, decrypted with `password` (its
  // characters up to the first NUL). Empty unless the key decrypts and matches
  // the certificate's public key. The certificate is always decoded whole.
  // `password`, the function's own copy, and the key file's bytes are
  // cleansed before they go (base/secretstring.h).
  static std::shared_ptr<Certificate> createFromFileWithKey(std::string certPath,
                                                            std::string keyPath,
                                                            std::string password, bool loadFlag);
  // Accepts one PEM block labelled CERTIFICATE, or bare base64 of the DER, with
  // or without line breaks and surrounding white space. Anything else, trailing
  // garbage included, gives an empty pointer.
  static std::shared_ptr<Certificate> createFromBase64(std::string text);

  Certificate(const Certificate&) = delete;
  Certificate& operator=(const Certificate&) = delete;
  ~Certificate();

  // Writes the certificate as PEM to `path`, creating or truncating it with the
  // process's mode; false when it cannot (a missing directory included), and
  // then no empty or cut-off file stays behind.
  bool saveToFile(std::string path);

  // Borrowed. Null only for a certificate read with loadFlag false whose full
  // decoding fails.
  X509* getX509() const;
  // Borrowed; null when the object holds no key.
  EVP_PKEY* getPrivateKey() const;

  // Who the certificate identifies, read when the certificate was made.
  const CertificateIdentity& identity() const;
  // The certificate's DER encoding.
  const std::string& der() const;

 private:
  Certificate(std::string der, X509Ptr x509, CertificateIdentity identity);

  // Makes a certificate from DER bytes, decoding it whole or only its identity.
  static std::shared_ptr<Certificate> fromDer(std::string der, bool decodeWhole);

  std::string der_;
  CertificateIdentity identity_;
  mutable std::once_flag decodeOnce_;
  mutable X509Ptr x509_;
  PkeyHandle privateKey_;
};

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATE_H_
