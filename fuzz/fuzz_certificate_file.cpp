// Certificate::createFromFile on any file content, read whole and lazily (as a
// store is loaded). Both must keep their contracts and agree with each other.
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/certificate.h"
#include "base/opensslutil.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

std::string derOf(X509* x509) {
  unsigned char* bytes = nullptr;
  const int length = i2d_X509(x509, &bytes);
  if (length <= 0) return std::string();
  OpenSslBytesPtr owner(bytes);
  return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

void fuzzOne(const std::string& contents) {
  const std::string path = scratchDirectory() + "/input.crt";
  writeBytes(path, contents);

  std::shared_ptr<Certificate> whole = Certificate::createFromFile(path, true);
  if (whole) check(whole->getX509() != nullptr, "a whole read has no X509");

  std::shared_ptr<Certificate> lazy = Certificate::createFromFile(path, false);
  if (whole && lazy) {
    check(whole->der() == lazy->der(), "whole and lazy reads give different DER");
    check(whole->identity().authority == lazy->identity().authority &&
              whole->identity().email == lazy->identity().email &&
              whole->identity().name == lazy->identity().name,
          "whole and lazy reads give different identities");
  }
  if (lazy) {
    // The deferred decoding may fail, but what it gives is the certificate read.
    X509* x509 = lazy->getX509();
    if (x509 != nullptr) check(derOf(x509) == lazy->der(), "deferred decoding differs");
  }
}

}  // namespace
}  // namespace fuzz
}  // namespace tavik

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool initialised = (tavik::fuzz::enableAllLogging(), true);
  (void)initialised;
  tavik::fuzz::fuzzOne(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
