#include "base/certificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstdio>
#include <utility>

#include "base/certificatelayout.h"
#include "base/configurationinit.h"
#include "base/derreader.h"
#include "base/filecontents.h"
#include "base/pem.h"
#include "base/pemfile.h"
#include "base/secretstring.h"

namespace tavik {

namespace {

// Decodes exactly one certificate from `der`; null when the bytes are anything else.
X509Ptr decodeWhole(const std::string& der) {
  const auto* start = reinterpret_cast<const unsigned char*>(der.data());
  const unsigned char* cursor = start;
  X509Ptr x509(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
  if (!x509 || cursor != start + der.size()) return X509Ptr();
  return x509;
}

// The DER of the certificate in a file's bytes: DER as it stands, or the first
// PEM certificate block.
bool certificateDer(std::string_view contents, std::string& der) {
  if (!contents.empty() && static_cast<unsigned char>(contents[0]) == der::kSequence) {
    der.assign(contents);
    return true;
  }
  return decodeFirstPemCertificate(contents, der);
}

// The identity of a certificate whose subject or extensions are in a form that
// only OpenSSL's decoders read: decodes both and reads it from them.
bool decodeIdentity(const CertificateLayout& layout, CertificateIdentity& identity) {
  const unsigned char* cursor = layout.subject;
  X509NamePtr subject(d2i_X509_NAME(nullptr, &cursor, static_cast<long>(layout.subjectLength)));
  if (!subject) return false;
  X509ExtensionsPtr extensions;
  if (layout.extensions != nullptr) {
    cursor = layout.extensions;
    extensions.reset(
        d2i_X509_EXTENSIONS(nullptr, &cursor, static_cast<long>(layout.extensionsLength)));
    if (!extensions) return false;
  }
  return readCertificateIdentity(subject.get(), extensions.get(), identity);
}

bool isEmptyFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size == 0;
}

PkeyHandle readPrivateKey(const std::string& keyPath, const std::string& password) {
  // A key file put into the store by hand may hold its key unencrypted.
  std::string read;
  const bool whole = readSmallRegularFile(keyPath, kMaxCredentialFileSize, read);
  const SecretString contents(std::move(read));
  if (!whole) return PkeyHandle();
  // Read in place, not copied: the BIO is a view of `contents`.
  BioPtr bio(BIO_new_mem_buf(contents.c_str(), static_cast<int>(contents.size())));
  if (!bio) return PkeyHandle();
  // The password goes in as the default pass-phrase callback's user data, as it
  // went in when the key was written; it is never null, so OpenSSL never prompts.
  return PkeyHandle(
      PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, const_cast<char*>(password.c_str())));
}

}  // namespace

Certificate::Certificate(std::string der, X509Ptr x509, CertificateIdentity identity)
    : der_(std::move(der)), identity_(std::move(identity)), x509_(std::move(x509)) {}

Certificate::~Certificate() = default;

std::shared_ptr<Certificate> Certificate::fromDer(std::string der, bool decodeWholeNow) {
  // Both ways of reading hold a certificate to the same standard: OpenSSL's
  // decoder takes some encodings that are not DER (a primitive SEQUENCE, for
  // one), and a certificate installed from such text would be written to the
  // store and then refused by every scan that reads it lazily.
  CertificateLayout layout;
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  if (!parseCertificateLayout(bytes, der.size(), layout)) return nullptr;
  if (decodeWholeNow) {
    X509Ptr x509 = decodeWhole(der);
    if (!x509) return nullptr;
    CertificateIdentity identity;
    if (!readCertificateIdentity(X509_get_subject_name(x509.get()),
                                 X509_get0_extensions(x509.get()), identity)) {
      return nullptr;
    }
    return std::shared_ptr<Certificate>(
        new Certificate(std::move(der), std::move(x509), std::move(identity)));
  }

  CertificateIdentity identity;
  if (!readCertificateIdentityFromDer(layout.subject, layout.subjectLength, layout.extensions,
                                      layout.extensionsLength, identity) &&
      !decodeIdentity(layout, identity)) {
    return nullptr;
  }
  return std::shared_ptr<Certificate>(
      new Certificate(std::move(der), X509Ptr(), std::move(identity)));
}

std::shared_ptr<Certificate> Certificate::createFromFile(std::string path, bool loadFlag) {
  std::string contents;
  if (!readSmallRegularFile(path, kMaxCredentialFileSize, contents)) return nullptr;
  return createFromContents(contents, loadFlag);
}

std::shared_ptr<Certificate> Certificate::createFromContents(std::string_view contents,
                                                             bool loadFlag) {
  ConfigurationInit::ensure();
  std::string der;
  if (!certificateDer(contents, der)) return nullptr;
  std::shared_ptr<Certificate> certificate = fromDer(std::move(der), loadFlag);
  if (!certificate) ERR_clear_error();
  return certificate;
}

std::shared_ptr<Certificate> Certificate::createFromFileWithKey(std::string certPath,
                                                                std::string keyPath,
                                                                std::string password,
                                                                bool /*loadFlag*/) {
  // The caller's copy of the password is cleansed on every way out.
  const SecretString passPhrase(std::move(password));
  // The key can only be matched against a fully decoded certificate.
  std::shared_ptr<Certificate> certificate = createFromFile(std::move(certPath), true);
  if (!certificate) return nullptr;
  PkeyHandle key = readPrivateKey(keyPath, passPhrase.str());
  if (!key || X509_check_private_key(certificate->x509_.get(), key.get()) != 1) {
    ERR_clear_error();
    return nullptr;
  }
  certificate->privateKey_ = std::move(key);
  return certificate;
}

std::shared_ptr<Certificate> Certificate::createFromBase64(std::string text) {
  ConfigurationInit::ensure();
  std::string der;
  if (text.size() > kMaxCredentialFileSize || !decodeCertificateText(text, der)) return nullptr;
  std::shared_ptr<Certificate> certificate = fromDer(std::move(der), true);
  if (!certificate) ERR_clear_error();
  return certificate;
}

bool Certificate::saveToFile(std::string path) {
  PemFileWriter file(path);
  const bool opened = file.isOpen();
  const bool written = opened && file.writeCertificateDer(der_);
  file.close();
  if (!written) {
    ERR_clear_error();
    // No empty or cut-off certificate file stays behind. A file that could
    // not be opened is someone else's and stays, unless it is empty: when only
    // the BIO could not be made (for want of memory), BIO_new_file has already
    // created or emptied it.
    if (opened || isEmptyFile(path)) std::remove(path.c_str());
  }
  return written;
}

X509* Certificate::getX509() const {
  std::call_once(decodeOnce_, [this] {
    if (!x509_) {
      x509_ = decodeWhole(der_);
      if (!x509_) ERR_clear_error();
    }
  });
  return x509_.get();
}

EVP_PKEY* Certificate::getPrivateKey() const { return privateKey_.get(); }

const CertificateIdentity& Certificate::identity() const { return identity_; }

const std::string& Certificate::der() const { return der_; }

}  // namespace tavik
