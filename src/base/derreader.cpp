#include "base/derreader.h"

namespace tavik {

bool readTlv(const unsigned char* p, const unsigned char* end, Tlv& tlv) {
  if (end - p < 2) return false;
  tlv.start = p;
  tlv.tag = *p++;
  if ((tlv.tag & 0x1F) == 0x1F) return false;  // multi-byte tags do not occur here
  const unsigned char first = *p++;
  std::size_t length = 0;
  if (first < 0x80) {
    length = first;
  } else {
    const int count = first & 0x7F;
    if (count == 0 || count > 4 || end - p < count) return false;  // indefinite or huge
    if (*p == 0) return false;                                     // not minimal
    for (int i = 0; i < count; ++i) length = (length << 8) | *p++;
    if (length < 0x80) return false;  // should have used the short form
  }
  if (static_cast<std::size_t>(end - p) < length) return false;
  tlv.content = p;
  tlv.contentLength = length;
  return true;
}

}  // namespace tavik
