// What a certificate says about whom it identifies, read from its subject name
// and its extensions. The filters decide on these facts. The readers below
// depend on their arguments alone and throw nothing but std::bad_alloc.
#ifndef TAVIK_BASE_CERTIFICATEIDENTITY_H_
#define TAVIK_BASE_CERTIFICATEIDENTITY_H_

#include <openssl/x509.h>

#include <cstddef>
#include <string>

namespace tavik {

struct CertificateIdentity {
  // A basicConstraints extension is present with cA TRUE.
  bool authority = false;
  // The subject's emailAddress, else the first rfc822Name of the subject
  // alternative names, else the common name when it holds "@"; "" when none.
  std::string email;
  // The subject's common name, else the subject in OpenSSL's one-line form.
  std::string name;
};

// Reads the identity from a subject name and an extension list (null when the
// certificate has none). Both are borrowed. False when a part that is there
// cannot be read (an extension that does not decode, a string that does not
// convert, no memory): a certificate whose identity is read only in part could
// pass the wrong filter or stand under the wrong identifier. An extension that
// occurs twice counts as none, as OpenSSL looks it up.
bool readCertificateIdentity(const X509_NAME* subject, const STACK_OF(X509_EXTENSION) * extensions,
                             CertificateIdentity& identity);

// Reads the same identity straight from the DER of a subject Name and of an
// extension list (`extensions` null when the certificate has none), decoding
// neither whole: this is what loading a store spends its time on. It takes only
// encodings that it reads exactly as OpenSSL's decoders do (every name value a
// UTF8String, PrintableString or IA5String of ASCII characters, well-formed
// object identifiers, a common name to serve as the name) and returns false for
// anything else; the caller then decodes with OpenSSL and calls
// readCertificateIdentity, so that both give one answer for every certificate.
bool readCertificateIdentityFromDer(const unsigned char* subject, std::size_t subjectLength,
                                    const unsigned char* extensions, std::size_t extensionsLength,
                                    CertificateIdentity& identity);

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATEIDENTITY_H_
