// Certificate::createFromBase64 on any text: what a signing authority sends
// back is not trusted. An accepted certificate must decode whole, save to a
// file and read back as the same certificate, also the way loading reads it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/certificate.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

bool sameIdentity(const CertificateIdentity& a, const CertificateIdentity& b) {
  return a.authority == b.authority && a.email == b.email && a.name == b.name;
}

void fuzzOne(const std::string& text) {
  std::shared_ptr<Certificate> certificate = Certificate::createFromBase64(text);
  if (!certificate) return;
  check(certificate->getX509() != nullptr, "an accepted text has no X509");

  // saveCert writes an accepted certificate with saveToFile; the next cache
  // reads it back with createFromFile, lazily while loading.
  const std::string path = scratchDirectory() + "/saved.crt";
  check(certificate->saveToFile(path), "saveToFile failed for an accepted certificate");
  std::shared_ptr<Certificate> whole = Certificate::createFromFile(path, true);
  check(whole != nullptr, "a saved certificate does not read back");
  check(whole->der() == certificate->der(), "a saved certificate reads back different");
  std::shared_ptr<Certificate> lazy = Certificate::createFromFile(path, false);
  check(lazy != nullptr, "a saved certificate is not found by a lazy read");
  check(sameIdentity(lazy->identity(), certificate->identity()),
        "lazy and whole reads give different identities");
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
