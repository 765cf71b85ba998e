#include "storefiles.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/operations.hpp>

#include "base/stringutil.h"

namespace tavik {
namespace cli {

namespace fs = boost::filesystem;

const char kCertExtension[] = ".crt";
const char kKeyExtension[] = ".key";
const char kPendingKeyExtension[] = ".tpk";

std::string storeFile(const std::string& directory, const std::string& baseName,
                      const char* extension) {
  return (fs::path(directory) / (baseName + extension)).string();
}

bool entryExists(const std::string& path) {
  boost::system::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

std::string fileBaseName(const std::string& subject, const std::string& email) {
  if (!subject.empty()) return encodeFilename(subject);
  return encodeFilename(boost::algorithm::replace_all_copy(email, "@", "_at_"));
}

}  // namespace cli
}  // namespace tavik
