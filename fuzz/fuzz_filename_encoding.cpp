// encodeFilename and decodeFilename on any bytes. A name made from an
// identifier must stay one harmless component of the cache directory.
#include <boost/filesystem/path.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/stringutil.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

bool allowedByte(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-' || c == '@' || c == '+' || c == '%';
}

bool upperHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

void checkEncoded(const std::string& name) {
  const std::string encoded = encodeFilename(name);
  check(decodeFilename(encoded) == name, "decodeFilename does not invert encodeFilename");
  check(encoded.empty() == name.empty(), "only the empty name may encode to empty");
  if (encoded.empty()) return;
  check(encoded != "." && encoded != "..", "a name encodes to . or ..");
  check(encoded[0] != '.', "a name encodes to a hidden file name");
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    check(allowedByte(encoded[i]), "a byte outside the file-name character set");
    if (encoded[i] == '%') {
      check(i + 2 < encoded.size() && upperHex(encoded[i + 1]) && upperHex(encoded[i + 2]),
            "a % that is not an upper-case escape");
    }
  }
  // As the cache uses it: one component below the cache directory, whatever
  // extension follows.
  const boost::filesystem::path directory("/store/user");
  const boost::filesystem::path file = directory / (encoded + ".crt");
  check(file.parent_path() == directory, "an encoded name leaves the cache directory");
  check(file.filename().string() == encoded + ".crt", "an encoded name is not one component");
}

void fuzzOne(const std::string& bytes) {
  checkEncoded(bytes);
  // Any file name found on disk decodes without harm, and what it decodes to
  // encodes to a name that decodes back to it.
  checkEncoded(decodeFilename(bytes));
}

}  // namespace
}  // namespace fuzz
}  // namespace tavik

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavik::fuzz::fuzzOne(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
