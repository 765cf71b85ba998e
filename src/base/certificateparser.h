// Turns the text and file forms of a certificate into its DER bytes, and finds
// in those bytes the parts that identifying a certificate needs, without
// decoding the rest (the public key above all, which is the costly part).
#ifndef TAVIK_BASE_CERTIFICATEPARSER_H_
#define TAVIK_BASE_CERTIFICATEPARSER_H_

#include <cstddef>
#include <string>

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

// Decodes base64 text. White space (blank, tab, CR, LF) may stand anywhere;
// anything else outside the alphabet, wrong padding or a length that is not a
// whole number of groups makes it fail.
bool decodeBase64(const char* begin, const char* end, std::string& bytes);

// The DER of the first PEM block labelled CERTIFICATE in `text`; text before and
// after the block is ignored, as OpenSSL's PEM reader ignores it.
bool decodeFirstPemCertificate(const std::string& text, std::string& der);

// The DER of a certificate given as text: one PEM block labelled CERTIFICATE, or
// bare base64 of the DER, either with surrounding white space and nothing else.
bool decodeCertificateText(const std::string& text, std::string& der);

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATEPARSER_H_
