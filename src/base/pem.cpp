#include "base/pem.h"

#include <cstdint>
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
  constexpr unsigned char operator[](unsigned char c) const { return values[c]; }
};

constexpr Base64Table kBase64Values;

// The value of a character already moved to its place in a group of four
// (position 0 to 3), so that a group is four look-ups and three ORs; anything
// outside the alphabet sets kNotInGroup.
constexpr std::uint32_t kNotInGroup = 0x80000000u;
struct Base64GroupTable {
  std::uint32_t shifted[4][256];
  constexpr Base64GroupTable() : shifted() {
    for (int position = 0; position < 4; ++position) {
      for (int c = 0; c < 256; ++c) {
        const unsigned char value = kBase64Values[static_cast<unsigned char>(c)];
        shifted[position][c] =
            value < 64 ? static_cast<std::uint32_t>(value) << (18 - 6 * position) : kNotInGroup;
      }
    }
  }
};

constexpr Base64GroupTable kBase64Groups;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view::size_type skipSpace(std::string_view text, std::string_view::size_type from) {
  while (from < text.size() && isSpace(text[from])) ++from;
  return from;
}

// The DER between the marker lines of the PEM block whose BEGIN line starts at `begin`.
bool decodePemBlockAt(std::string_view text, std::string_view::size_type begin, std::string& der,
                      std::string_view::size_type& blockEnd) {
  const std::string_view::size_type body = begin + std::strlen(kPemBegin);
  const std::string_view::size_type endMarker = text.find(kPemEnd, body);
  if (endMarker == std::string_view::npos) return false;
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
      const std::uint32_t whole = kBase64Groups.shifted[0][static_cast<unsigned char>(p[0])] |
                                  kBase64Groups.shifted[1][static_cast<unsigned char>(p[1])] |
                                  kBase64Groups.shifted[2][static_cast<unsigned char>(p[2])] |
                                  kBase64Groups.shifted[3][static_cast<unsigned char>(p[3])];
      if ((whole & kNotInGroup) != 0) break;
      out[0] = static_cast<char>(whole >> 16);
      out[1] = static_cast<char>(whole >> 8);
      out[2] = static_cast<char>(whole);
      out += 3;
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

bool decodeFirstPemCertificate(std::string_view text, std::string& der) {
  std::string_view::size_type begin = text.find(kPemBegin);
  // The marker must open a line.
  while (begin != std::string_view::npos && begin != 0 && text[begin - 1] != '\n') {
    begin = text.find(kPemBegin, begin + 1);
  }
  if (begin == std::string_view::npos) return false;
  std::string_view::size_type blockEnd = 0;
  return decodePemBlockAt(text, begin, der, blockEnd);
}

bool decodeCertificateText(std::string_view text, std::string& der) {
  const std::string_view::size_type first = skipSpace(text, 0);
  if (text.compare(first, std::strlen(kPemBegin), kPemBegin) == 0) {
    std::string_view::size_type blockEnd = 0;
    return decodePemBlockAt(text, first, der, blockEnd) && skipSpace(text, blockEnd) == text.size();
  }
  return decodeBase64(text.data() + first, text.data() + text.size(), der) && !der.empty();
}

}  // namespace tavik
