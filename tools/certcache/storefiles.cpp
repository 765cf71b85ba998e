#include "storefiles.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>

#include "toolerror.h"

namespace tavik {
namespace cli {

namespace fs = boost::filesystem;

std::string storeFile(const std::string& directory, const std::string& baseName,
                      const char* extension) {
  return credentialFile(directory, baseName, extension).string();
}

bool entryExists(const std::string& path) {
  boost::system::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

std::vector<PendingRequest> pendingRequests(const std::string& directory) {
  std::vector<PendingRequest> requests;
  boost::system::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    const fs::path& file = it->path();
    if (file.extension() != kTempKeyExtension || !fs::is_regular_file(it->symlink_status())) {
      continue;
    }
    boost::system::error_code timeError;
    const std::time_t since = fs::last_write_time(file, timeError);
    requests.push_back({file.stem().string(), timeError ? 0 : since});
  }
  // A store without this kind's directory has no requests of it.
  if (error && error != boost::system::errc::no_such_file_or_directory) {
    throw ToolError(kExitIoError, "cannot list " + directory + ": " + error.message());
  }
  std::sort(requests.begin(), requests.end(), [](const PendingRequest& a, const PendingRequest& b) {
    return a.baseName < b.baseName;
  });
  return requests;
}

}  // namespace cli
}  // namespace tavik
