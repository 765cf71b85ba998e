// The files of a base name in the root's cache directory and the base names
// that the cache gives new files, as the tool needs them to check the store
// before it calls the cache (the cache itself says only what it did).
#ifndef TAVIK_TOOLS_CERTCACHE_STOREFILES_H_
#define TAVIK_TOOLS_CERTCACHE_STOREFILES_H_

#include <ctime>
#include <string>
#include <vector>

#include "base/filename.h"

namespace tavik {
namespace cli {

// The path of `baseName` + `extension` in `directory`, as the cache builds it.
std::string storeFile(const std::string& directory, const std::string& baseName,
                      const char* extension);

// True when anything is at `path` (a dangling link included).
bool entryExists(const std::string& path);

struct PendingRequest {
  std::string baseName;
  std::time_t since = 0;  // when its temporary key file was last written
};

// The requests waiting in `directory` (its .tpk files), ordered by base name.
std::vector<PendingRequest> pendingRequests(const std::string& directory);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STOREFILES_H_
