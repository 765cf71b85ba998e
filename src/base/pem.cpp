#include "base/pem.h"

#include <cstring>

namespace tavik {

namespace {

constexpr char kPemBegin[] = "-----BEGIN CERTIFICATE-----";
constexpr char kPemEnd[] = "-----END CERTIFICATE-----";

// The value of each byte in base64 text: 0 to 63 for the alphabet, or one of
// the markers below.
constexpr unsigned char kBase64Space = 64;  // blank, tab, CR or LF: skipped
constexpr unsigned char kBase64Pad = 65;    // '='
constexpr unsigned char kBase64Invalid = 255;

struct Base64Table {
  unsigned char values[256];
  constexpr Base64Table() : values() {
    for (unsigned char& value : values) value = kBase64Invalid;
    for (int i = 0; i < 26; ++i) {
      values['A' + i] = static_cast<unsigned char>(i);
      values['a' + i] = static_cast<unsigned char>(26 + i);
    }
    for (int i = 0; i < 10; ++i) values['0' + i] = static_cast<unsigned char>(52 + i);
    values[static_cast<unsigned char>('+')] = 62;
    values[static_cast<unsigned char>('/')] = 63;
    values[static_cast<unsigned char>('=')] = kBase64Pad;
    for (const char space : {' ', '\t', '\r', '\n'}) {
      values[static_cast<unsigned char>(space)] = kBase64Space;
    }
  }
  unsigned char operator[](unsigned char c) const { return values[c]; }
};

constexpr Base64Table kBase64Values;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string::size_type skipSpace(const std::string& text, std::string::size_type from) {
  while (from < text.size() && isSpace(text[from])) ++from;
  return from;
}

// The DER between the marker lines of the PEM block whose BEGIN line starts at `begin`.
bool decodePemBlockAt(const std::string& text, std::string::size_type begin, std::string& der,
                      std::string::size_type& blockEnd) {
  const std::string::size_type body = begin + std::strlen(kPemBegin);
  const std::string::size_type endMarker = text.find(kPemEnd, body);
  if (endMarker == std::string::npos) return false;
  blockEnd = endMarker + std::strlen(kPemEnd);
  return decodeBase64(text.data() + body, text.data() + endMarker, der);
}

}  // namespace

bool decodeBase64(const char* begin, const char* end, std::string& bytes) {
  // Every certificate of a store passes through here when it is loaded: one
  // table look-up per character, and the output written in place.
  bytes.resize(static_cast<std::size_t>(end - begin) / 4 * 3 + 3);
  char* out = &bytes[0];
  unsigned int group = 0;
  int inGroup = 0;
  int padding = 0;
  for (const char* p = begin; p != end; ++p) {
    // Whole groups of four alphabet characters, the bulk of any text, go at once.
    while (inGroup == 0 && padding == 0 && end - p >= 4) {
      const unsigned int a = kBase64Values[static_cast<unsigned char>(p[0])];
      const unsigned int b = kBase64Values[static_cast<unsigned char>(p[1])];
      const unsigned int c = kBase64Values[static_cast<unsigned char>(p[2])];
      const unsigned int d = kBase64Values[static_cast<unsigned char>(p[3])];
      if ((a | b | c | d) >= 64) break;
      const unsigned int whole = (a << 18) | (b << 12) | (c << 6) | d;
      *out++ = static_cast<char>((whole >> 16) & 0xFF);
      *out++ = static_cast<char>((whole >> 8) & 0xFF);
      *out++ = static_cast<char>(whole & 0xFF);
      p += 4;
    }
    if (p == end) break;
    const unsigned char value = kBase64Values[static_cast<unsigned char>(*p)];
    if (value < 64) {
      if (padding > 0) return false;  // nothing may follow padding
      group = (group << 6) | value;
      if (++inGroup == 4) {
        *out++ = static_cast<char>((group >> 16) & 0xFF);
        *out++ = static_cast<char>((group >> 8) & 0xFF);
        *out++ = static_cast<char>(group & 0xFF);
        inGroup = 0;
        group = 0;
      }
      continue;
    }
    if (value == kBase64Space) continue;
    if (value != kBase64Pad) return false;
    // Padding closes the last group: "xx==" or "xxx=".
    if (inGroup < 2 || ++padding > 2) return false;
    group <<= 6;
    if (++inGroup == 4) {
      *out++ = static_cast<char>((group >> 16) & 0xFF);
      if (padding == 1) *out++ = static_cast<char>((group >> 8) & 0xFF);
      inGroup = 0;
      group = 0;
    }
  }
  bytes.resize(static_cast<std::size_t>(out - bytes.data()));
  return inGroup == 0;
}

bool decodeFirstPemCertificate(const std::string& text, std::string& der) {
  std::string::size_type begin = text.find(kPemBegin);
  // The marker must open a line.
  while (begin != std::string::npos && begin != 0 && text[begin - 1] != '\n') {
    begin = text.find(kPemBegin, begin + 1);
  }
  if (begin == std::string::npos) return false;
  std::string::size_type blockEnd = 0;
  return decodePemBlockAt(text, begin, der, blockEnd);
}

bool decodeCertificateText(const std::string& text, std::string& der) {
  const std::string::size_type first = skipSpace(text, 0);
  if (text.compare(first, std::strlen(kPemBegin), kPemBegin) == 0) {
    std::string::size_type blockEnd = 0;
    return decodePemBlockAt(text, first, der, blockEnd) && skipSpace(text, blockEnd) == text.size();
  }
  return decodeBase64(text.data() + first, text.data() + text.size(), der) && !der.empty();
}

}  // namespace tavik
