// Reading what `install` is given, in the forms authorities hand certificates
// out in: PEM with any text around it (as `openssl ca` writes it), several PEM
// blocks (a certificate with its chain), DER, or bare base64 of DER.
#ifndef TAVIK_TOOLS_CERTCACHE_CERTIFICATEINPUT_H_
#define TAVIK_TOOLS_CERTCACHE_CERTIFICATEINPUT_H_

#include <memory>
#include <string>
#include <vector>

#include "base/certificate.h"

namespace tavik {
namespace cli {

struct CertificateInput {
  std::vector<std::shared_ptr<Certificate>> certificates;  // in the input's order
  // What else the input held, in words ("a private key"): never installed.
  std::vector<std::string> others;
};

// Reads every certificate in `bytes`. Throws ToolError 65 when it holds none,
// saying what it holds instead (a certificate request, a key, ...), and when a
// PEM block in it is broken.
CertificateInput readCertificateInput(const std::string& bytes);

// The base64 of a certificate's DER, the form that CertFileCache::saveCert takes.
std::string base64Of(const Certificate& certificate);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_CERTIFICATEINPUT_H_
