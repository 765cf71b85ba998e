#include "fuzzsupport.h"

#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "log/log.h"

namespace tavik {
namespace fuzz {

namespace {

// Removes the scratch directory when the process ends normally.
struct ScratchDirectory {
  ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tavik-fuzz-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) fail("cannot make the scratch directory");
    path = buffer.data();
  }
  ~ScratchDirectory() {
    boost::system::error_code error;
    boost::filesystem::remove_all(path, error);
  }
  std::string path;
};

}  // namespace

const std::string& scratchDirectory() {
  static ScratchDirectory directory;
  return directory.path;
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) fail("cannot write a scratch file");
}

void enableAllLogging() {
  LogFacility::setUp(true);
  LogFacility::setLevels(LogMask::error | LogMask::warning | LogMask::info | LogMask::debug |
                         LogMask::trace);
  LogFacility::setSink([](const LogRecord&) {});
}

void fail(const char* what) {
  std::fprintf(stderr, "property violated: %s\n", what);
  std::abort();
}

std::uint8_t InputReader::byte() { return position_ < size_ ? data_[position_++] : 0; }

std::uint16_t InputReader::littleEndian16() {
  const std::uint16_t low = byte();
  const std::uint16_t high = byte();
  return static_cast<std::uint16_t>(low | (high << 8));
}

std::string InputReader::bytes(std::size_t length) {
  const std::size_t available = size_ - std::min(position_, size_);
  const std::size_t taken = std::min(length, available);
  std::string result(reinterpret_cast<const char*>(data_ + position_), taken);
  position_ += taken;
  return result;
}

}  // namespace fuzz
}  // namespace tavik
