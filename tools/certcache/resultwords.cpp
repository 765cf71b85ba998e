#include "resultwords.h"

#include "crypto/certificatefilecache.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

std::string describeResult(int result) {
  switch (result) {
    case CertFileCache::kFailed:
      return "the operation failed (the error logged before this line says why)";
    case CertFileCache::kExists:
      return "the file already exists (add --overwrite to replace it)";
    case CertFileCache::kEmptyBaseName:
      return "the file base name came out empty";
    case CertFileCache::kUnknownId:
      return "no certificate has that identifier";
    case CertFileCache::kNoCertFile:
      return "the certificate file does not exist in the store's root";
    case CertFileCache::kNoKeyFile:
      return "the key file does not exist in the store's root";
    case CertFileCache::kKeyNotRenamed:
      return "the key file could not be renamed; the certificate file was renamed back";
    case CertFileCache::kKeyNotRemoved:
      return "the key file could not be removed";
    case CertFileCache::kNoPrivateKeys:
      return "a cache without keys (--no-keys) cannot do this";
    case CertFileCache::kKeyNotPromoted:
      return "no pending request key for this certificate, so it was not installed";
    case CertFileCache::kTempKeyNotRemoved:
      return "no pending request key was removed (none exists, or it cannot be removed)";
    case CertFileCache::kEmptyPassword:
      return "the password is empty";
    case CertFileCache::kEmptyEmail:
      return "the e-mail address is empty";
    default:
      return "the operation failed with result " + std::to_string(result);
  }
}

std::string describeLookupError(int errorCode, const std::string& id) {
  switch (errorCode) {
    case CertFileCache::kNotInIndex:
      return "no certificate with identifier '" + id + "' in the store";
    case CertFileCache::kNoLocationHasIt:
      return "no store location holds the certificate file of '" + id + "'";
    case CertFileCache::kCertUnreadable:
      return "the certificate file of '" + id + "' cannot be read";
    case CertFileCache::kKeyUnreadable:
      return "the key of '" + id + "' cannot be read with this password";
    case CertFileCache::kKeyMissing:
      return "the key file of '" + id + "' is missing";
    default:
      return "the lookup of '" + id + "' failed with code " + std::to_string(errorCode);
  }
}

int lookupExitStatus(int errorCode) {
  if (errorCode >= CertFileCache::kNotInIndex && errorCode <= CertFileCache::kKeyMissing) {
    return errorCode - CertFileCache::kNotInIndex + kExitLookupBase;
  }
  return kExitIoError;
}

}  // namespace cli
}  // namespace tavik
