// Certificate::createFromFile on any file content, read whole and lazily (as a
// store is loaded). Both must keep their contracts and agree with each other.
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/certificate.h"
#include "base/certificateidentity.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

bool sameIdentity(const CertificateIdentity& a, const CertificateIdentity& b) {
  return a.authority == b.authority && a.email == b.email && a.name == b.name;
}

void fuzzOne(const std::string& contents) {
  const std::string path = scratchDirectory() + "/input.crt";
  writeBytes(path, contents);

  std::shared_ptr<Certificate> whole = Certificate::createFromFile(path, true);
  if (whole) check(whole->getX509() != nullptr, "a whole read has no X509");

  std::shared_ptr<Certificate> lazy = Certificate::createFromFile(path, false);
  if (whole && lazy) {
    check(whole->der() == lazy->der(), "whole and lazy reads give different DER");
    check(sameIdentity(whole->identity(), lazy->identity()),
          "whole and lazy reads give different identities");
  }
  if (lazy) {
    // The deferred decoding may fail; when it does not, OpenSSL's view of the
    // certificate must name whom the lazy parser found.
    X509* x509 = lazy->getX509();
    CertificateIdentity decoded;
    if (x509 != nullptr &&
        readCertificateIdentity(X509_get_subject_name(x509), X509_get0_extensions(x509), decoded)) {
      check(sameIdentity(decoded, lazy->identity()), "deferred decoding names someone else");
    }
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
