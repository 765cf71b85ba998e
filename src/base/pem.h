// The text forms of a certificate: base64 and PEM, read without OpenSSL so that
// loading a store pays one table look-up per character.
#ifndef TAVIK_BASE_PEM_H_
#define TAVIK_BASE_PEM_H_

#include <string>
#include <string_view>

namespace tavik {

// Decodes base64 text. White space (blank, tab, CR, LF) may stand anywhere;
// anything else outside the alphabet, wrong padding or a length that is not a
// whole number of groups makes it fail.
bool decodeBase64(const char* begin, const char* end, std::string& bytes);

// The DER of the first PEM block labelled CERTIFICATE in `text`; text before and
// after the block is ignored, as OpenSSL's PEM reader ignores it.
bool decodeFirstPemCertificate(std::string_view text, std::string& der);

// The DER of a certificate given as text: one PEM block labelled CERTIFICATE, or
// bare base64 of the DER, either with surrounding white space and nothing else.
bool decodeCertificateText(std::string_view text, std::string& der);

}  // namespace tavik

#endif  // TAVIK_BASE_PEM_H_
