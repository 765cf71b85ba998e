#include "installtarget.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include "base/opensslutil.h"
#include "crypto/certificatefilecache.h"
#include "resultwords.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

PkeyHandle readKey(const std::string& path, const std::string& password) {
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

bool isKeyOf(const Certificate& certificate, const EVP_PKEY* key) {
  X509* x509 = certificate.getX509();
  const EVP_PKEY* certificateKey = x509 == nullptr ? nullptr : X509_get0_pubkey(x509);
  const bool same = certificateKey != nullptr && EVP_PKEY_eq(certificateKey, key) == 1;
  ERR_clear_error();
  return same;
}

}  // namespace

InstallTarget findKeyHolder(const std::vector<std::shared_ptr<Certificate>>& certificates,
                            const std::string& id, CertificateFilter& filter,
                            const std::string& directory, const std::string& password) {
  std::string mismatch;
  std::string firstBaseName;
  for (const std::shared_ptr<Certificate>& certificate : certificates) {
    const std::string baseName = subjectToFilename(id, filter.certificateId(certificate));
    if (baseName.empty()) continue;  // an authority of the chain, named after nobody
    if (firstBaseName.empty()) firstBaseName = baseName;
    const std::string pendingKey = storeFile(directory, baseName, kTempKeyExtension);
    const std::string installedKey = storeFile(directory, baseName, kKeyExtension);
    if (entryExists(pendingKey)) {
      if (isKeyOf(*certificate, readKey(pendingKey, password).get())) {
        return {certificate, baseName, InstallRoute::kPendingKey};
      }
      if (mismatch.empty()) mismatch = "the key of the request pending for " + baseName;
    }
    if (entryExists(installedKey)) {
      if (isKeyOf(*certificate, readKey(installedKey, password).get())) {
        return {certificate, baseName, InstallRoute::kInstalledKey};
      }
      if (mismatch.empty()) mismatch = "the key installed for " + baseName;
    }
  }
  if (!mismatch.empty()) {
    throw ToolError(kExitDataError,
                    "the certificate's public key is not " + mismatch + "; nothing was changed");
  }
  throw ToolError(CertFileCache::kKeyNotPromoted,
                  "no pending request and no key for " +
                      (firstBaseName.empty() ? std::string("a certificate without identifier")
                                             : firstBaseName) +
                      " (a request made with --subject S is installed with --id S)");
}

}  // namespace cli
}  // namespace tavik
