#include "keyfile.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "crypto/certificatefilecache.h"
#include "resultwords.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

PkeyHandle readKeyFile(const std::string& path, const std::string& password) {
  BioPtr file(BIO_new_file(path.c_str(), "r"));
  if (!file) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot read the key file " + path);
  }
  // The password reaches OpenSSL as the default callback's pass phrase, as the
  // cache's writer gave it.
  PkeyHandle key(
      PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, const_cast<char*>(password.c_str())));
  ERR_clear_error();
  if (!key) {
    throw ToolError(lookupExitStatus(CertFileCache::kKeyUnreadable),
                    "the key in " + path + " cannot be read with this password");
  }
  return key;
}

bool isKeyOf(X509* certificate, const EVP_PKEY* key) {
  const EVP_PKEY* certificateKey = certificate == nullptr ? nullptr : X509_get0_pubkey(certificate);
  const bool same = certificateKey != nullptr && EVP_PKEY_eq(certificateKey, key) == 1;
  ERR_clear_error();
  return same;
}

}  // namespace cli
}  // namespace tavik
