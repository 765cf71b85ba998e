#include "safeguards.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>

#include "certificatedescription.h"
#include "crypto/certificatefilecache.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

void checkEmailAddress(const std::string& email) {
  const std::size_t at = email.find('@');
  const bool oneAt = at != std::string::npos && email.find('@', at + 1) == std::string::npos;
  const bool plain = std::none_of(email.begin(), email.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7f;
  });
  if (!oneAt || at == 0 || at + 1 == email.size() || !plain) {
    throw ToolError(kExitUsage, "'" + email +
                                    "' is not an e-mail address: it needs one @ with text on "
                                    "both sides, and no space or control character");
  }
}

void refusePendingRequest(const std::string& directory, const std::string& baseName) {
  const std::string pendingKey = storeFile(directory, baseName, kTempKeyExtension);
  if (!entryExists(pendingKey)) return;
  boost::system::error_code error;
  const std::time_t since = boost::filesystem::last_write_time(pendingKey, error);
  throw ToolError(CertFileCache::kExists,
                  "a request for " + baseName + " is pending since " +
                      (error ? std::string("an unknown time") : formatTime(since)) +
                      "; a new one would replace the key its certificate is coming for "
                      "(add --overwrite to do so, or cancel-request it first)");
}

void refuseExistingFiles(const std::string& directory, const std::string& newBaseName) {
  for (const char* extension : {kCertExtension, kKeyExtension, kTempKeyExtension}) {
    if (entryExists(storeFile(directory, newBaseName, extension))) {
      throw ToolError(CertFileCache::kExists, newBaseName + extension +
                                                  " exists and would be replaced "
                                                  "(add --overwrite to replace it)");
    }
  }
}

}  // namespace cli
}  // namespace tavik
