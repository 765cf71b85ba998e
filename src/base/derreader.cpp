#include "base/derreader.h"

namespace tavik {

bool DerCursor::nextAny(unsigned char& tag, DerCursor& content) {
  if (size_ < 2) return false;
  const unsigned char* p = data_;
  const unsigned char* end = data_ + size_;
  const unsigned char readTag = *p++;
  if ((readTag & 0x1F) == 0x1F) return false;  // multi-byte tags do not occur here
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
  tag = readTag;
  content = DerCursor(p, length);
  size_ = static_cast<std::size_t>(end - (p + length));
  data_ = p + length;
  return true;
}

bool DerCursor::next(unsigned char tag, DerCursor& content) {
  DerCursor element;
  return next(tag, content, element);
}

bool DerCursor::next(unsigned char tag, DerCursor& content, DerCursor& element) {
  DerCursor rest = *this;
  unsigned char readTag = 0;
  if (!rest.nextAny(readTag, content) || readTag != tag) return false;
  element = DerCursor(data_, static_cast<std::size_t>(rest.data_ - data_));
  *this = rest;
  return true;
}

}  // namespace tavik
