// The store and the cache that one run of the tool works on, built from the
// global options.
#ifndef TAVIK_TOOLS_CERTCACHE_STORESESSION_H_
#define TAVIK_TOOLS_CERTCACHE_STORESESSION_H_

#include <memory>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "crypto/certificatefilecache.h"

namespace tavik {
namespace cli {

struct StoreOptions {
  std::string root;                    // empty: the default store
  std::vector<std::string> locations;  // empty: the root alone
  bool authorities = false;            // --kind ca
  bool withKeys = true;                // not --no-keys
};

// The default store root: $CERTCACHE_STORE, else
// ${XDG_DATA_HOME:-$HOME/.local/share}/certcache. Throws ToolError (64) when
// none of these variables is set.
std::string defaultStoreRoot();

class StoreSession {
 public:
  // Checks the root (a root that exists but is no directory is a ToolError 74)
  // and, with `createDirectories`, makes the root and the filter's
  // subdirectory in it when they are missing (the cache itself makes no
  // directories). Then builds the cache, which scans the store.
  StoreSession(const StoreOptions& options, bool createDirectories);
  StoreSession(const StoreSession&) = delete;
  StoreSession& operator=(const StoreSession&) = delete;

  CertFileCache& cache() { return *cache_; }
  const std::string& root() const { return store_->getRoot(); }
  bool withKeys() const { return withKeys_; }

 private:
  std::unique_ptr<CertificateStore> store_;
  boost::shared_ptr<CertificateFilter> filter_;
  std::unique_ptr<CertFileCache> cache_;
  bool withKeys_;
};

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STORESESSION_H_
