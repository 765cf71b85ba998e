// Certificate::createFromFileWithKey on any certificate file, key file and
// password. Input: password (1 length byte), certificate file (2 length bytes,
// little-endian), load flag (1 byte), key file (the rest).
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/certificate.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

void fuzzOne(InputReader& input) {
  const std::string password = input.shortString();
  const std::string certContents = input.longString();
  const bool loadFlag = (input.byte() & 1) != 0;
  const std::string keyContents = input.rest();

  const std::string certPath = scratchDirectory() + "/pair.crt";
  const std::string keyPath = scratchDirectory() + "/pair.key";
  writeBytes(certPath, certContents);
  writeBytes(keyPath, keyContents);

  std::shared_ptr<Certificate> certificate =
      Certificate::createFromFileWithKey(certPath, keyPath, password, loadFlag);
  if (!certificate) return;
  check(certificate->getX509() != nullptr, "a certificate with key has no X509");
  check(certificate->getPrivateKey() != nullptr, "a certificate with key has no key");
  check(X509_check_private_key(certificate->getX509(), certificate->getPrivateKey()) == 1,
        "the key does not match the certificate");
}

}  // namespace
}  // namespace fuzz
}  // namespace tavik

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool initialised = (tavik::fuzz::enableAllLogging(), true);
  (void)initialised;
  tavik::fuzz::InputReader input(data, size);
  tavik::fuzz::fuzzOne(input);
  return 0;
}
