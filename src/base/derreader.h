// Reading DER in place: a cursor over bytes that the caller keeps, taking one
// tag-length-value at a time from its front without decoding or copying
// anything. Certificates are walked this way when a store is loaded.
#ifndef TAVIK_BASE_DERREADER_H_
#define TAVIK_BASE_DERREADER_H_

#include <cstddef>

namespace tavik {

// The tags that occur where certificates are read in place.
namespace der {
constexpr unsigned char kBoolean = 0x01;
constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kBitString = 0x03;
constexpr unsigned char kOctetString = 0x04;
constexpr unsigned char kObject = 0x06;
constexpr unsigned char kUtf8String = 0x0C;
constexpr unsigned char kPrintableString = 0x13;
constexpr unsigned char kIa5String = 0x16;
constexpr unsigned char kUtcTime = 0x17;
constexpr unsigned char kGeneralizedTime = 0x18;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kSet = 0x31;
constexpr unsigned char kConstructed = 0x20;  // the bit of every constructed tag
// In a certificate's TBSCertificate:
constexpr unsigned char kVersion = 0xA0;          // [0] EXPLICIT
constexpr unsigned char kIssuerUniqueId = 0x81;   // [1] IMPLICIT BIT STRING
constexpr unsigned char kSubjectUniqueId = 0x82;  // [2] IMPLICIT BIT STRING
constexpr unsigned char kExtensions = 0xA3;       // [3] EXPLICIT
}  // namespace der

// A view of DER bytes. Each read takes the first value off the front and
// hands its content out as a cursor of its own, so that "the parts fill their
// value exactly" is that cursor being empty once the parts are read.
//
// DER only: a single-byte tag, a definite length in its shortest form, content
// within the bytes left. A read that fails leaves the cursor as it was.
class DerCursor {
 public:
  DerCursor() = default;
  DerCursor(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}

  const unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Reads the next value, whatever its tag.
  bool nextAny(unsigned char& tag, DerCursor& content);
  // Reads the next value when it has `tag`.
  bool next(unsigned char tag, DerCursor& content);
  // Reads the next value when it has `tag`; `element` is the whole of it, tag
  // and length included.
  bool next(unsigned char tag, DerCursor& content, DerCursor& element);

 private:
  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

// Defined here so that the walks over a certificate inline them: loading a
// store reads some sixty values per certificate.
inline bool DerCursor::nextAny(unsigned char& tag, DerCursor& content) {
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

inline bool DerCursor::next(unsigned char tag, DerCursor& content) {
  DerCursor element;
  return next(tag, content, element);
}

inline bool DerCursor::next(unsigned char tag, DerCursor& content, DerCursor& element) {
  DerCursor rest = *this;
  unsigned char readTag = 0;
  if (!rest.nextAny(readTag, content) || readTag != tag) return false;
  element = DerCursor(data_, static_cast<std::size_t>(rest.data_ - data_));
  *this = rest;
  return true;
}

}  // namespace tavik

#endif  // TAVIK_BASE_DERREADER_H_
