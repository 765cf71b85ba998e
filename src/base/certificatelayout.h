// Finds in a certificate's DER bytes the parts that identifying it needs,
// without decoding the rest (the public key above all, which is the costly part).
#ifndef TAVIK_BASE_CERTIFICATELAYOUT_H_
#define TAVIK_BASE_CERTIFICATELAYOUT_H_

#include <cstddef>

namespace tavik {

// Where the subject and the extensions lie inside a certificate's DER bytes.
struct CertificateLayout {
  const unsigned char* subject = nullptr;  // the subject Name, tag and length included
  std::size_t subjectLength = 0;
  const unsigned char* extensions = nullptr;  // the SEQUENCE OF Extension, or null when absent
  std::size_t extensionsLength = 0;
};

// Checks that `der` is exactly one DER-encoded X.509 certificate, nothing
// before or after it: definite minimal lengths, every constructed value filled
// exactly by its parts, and the fields of the certificate in their order with
// their tags. Fills `layout` on success. Decodes no field.
bool parseCertificateLayout(const unsigned char* der, std::size_t length,
                            CertificateLayout& layout);

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATELAYOUT_H_
