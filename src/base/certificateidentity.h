// What a certificate says about whom it identifies, read from its subject name
// and its extensions. The filters decide on these facts.
#ifndef TAVIK_BASE_CERTIFICATEIDENTITY_H_
#define TAVIK_BASE_CERTIFICATEIDENTITY_H_

#include <openssl/x509.h>

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
// cannot be read (an extension that does not decode or occurs twice, a string
// that does not convert, no memory): a certificate whose identity is read only
// in part could pass the wrong filter or stand under the wrong identifier.
bool readCertificateIdentity(const X509_NAME* subject, const STACK_OF(X509_EXTENSION) * extensions,
                             CertificateIdentity& identity);

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATEIDENTITY_H_
