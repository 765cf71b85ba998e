// What the fuzz targets share: a scratch directory of the process, writing
// bytes to files, logging with every level on, and failing loudly when a
// property of the library does not hold.
#ifndef TAVIK_FUZZ_FUZZSUPPORT_H_
#define TAVIK_FUZZ_FUZZSUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavik {
namespace fuzz {

// A directory private to this process, made on first use and removed at exit.
const std::string& scratchDirectory();

// Writes `bytes` to `path`, replacing what was there; aborts when it cannot.
void writeBytes(const std::string& path, const std::string& bytes);

// Switches every log level on with a sink that drops the statements, so that
// building each message is part of what is fuzzed without filling the output.
void enableAllLogging();

// Reports `what` and aborts, which libFuzzer records as a finding.
[[noreturn]] void fail(const char* what);

inline void check(bool condition, const char* what) {
  if (!condition) fail(what);
}

// Reads the input from the front: fixed-size fields and length-prefixed strings.
// A field that the input is too short for comes out empty or zero.
class InputReader {
 public:
  InputReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return position_ >= size_; }
  std::uint8_t byte();
  std::uint16_t littleEndian16();
  // `length` bytes, or fewer when the input ends first.
  std::string bytes(std::size_t length);
  // One length byte, then that many bytes.
  std::string shortString() { return bytes(byte()); }
  // Two length bytes (little-endian), then that many bytes.
  std::string longString() { return bytes(littleEndian16()); }
  std::string rest() { return bytes(size_ - position_); }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t position_ = 0;
};

}  // namespace fuzz
}  // namespace tavik

#endif  // TAVIK_FUZZ_FUZZSUPPORT_H_
