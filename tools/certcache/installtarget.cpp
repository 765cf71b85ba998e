#include "installtarget.h"

#include "crypto/certificatefilecache.h"
#include "keyfile.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

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
      if (isKeyOf(certificate->getX509(), readKeyFile(pendingKey, password).get())) {
        return {certificate, baseName, InstallRoute::kPendingKey};
      }
      if (mismatch.empty()) mismatch = "the key of the request pending for " + baseName;
    }
    if (entryExists(installedKey)) {
      if (isKeyOf(certificate->getX509(), readKeyFile(installedKey, password).get())) {
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
