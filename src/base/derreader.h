// Reading DER in place: one tag-length-value at a time, without decoding or
// copying anything. Certificates are walked this way when a store is loaded.
#ifndef TAVIK_BASE_DERREADER_H_
#define TAVIK_BASE_DERREADER_H_

#include <cstddef>

namespace tavik {

// One DER value inside a buffer that the caller keeps.
struct Tlv {
  unsigned char tag = 0;
  const unsigned char* start = nullptr;  // the tag byte
  const unsigned char* content = nullptr;
  std::size_t contentLength = 0;
  std::size_t totalLength() const {
    return static_cast<std::size_t>(content - start) + contentLength;
  }
  const unsigned char* end() const { return content + contentLength; }
};

// Reads one TLV at `p`, which must lie within [p, end). DER only: a single-byte
// tag, a definite length in its shortest form, content within `end`.
bool readTlv(const unsigned char* p, const unsigned char* end, Tlv& tlv);

}  // namespace tavik

#endif  // TAVIK_BASE_DERREADER_H_
