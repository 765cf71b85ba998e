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
#include "storelock.h"

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

// What a command does with the store: reads it (a shared lock), changes what
// is there (an exclusive lock), or may create it (the same, and the root and
// the filter's subdirectory are made when missing). Each of these first
// completes a change that a dead run left (storecommit.h), so nobody reads or
// changes a half change. Inspecting reads with a shared lock and leaves such
// a change as it is, so that it can be reported.
// kWatch: checked as for reading, but neither locked nor scanned: the store
// watcher scans it and follows it for as long as it likes. kPrepare: checked
// and made as for creating, but neither locked nor scanned yet: a command that
// makes keys makes them first, in a staging place of its own, and then calls
// change().
enum class StoreAccess { kRead, kChange, kCreate, kInspect, kWatch, kPrepare };

class StoreSession {
 public:
  // Checks the root (a root that exists but is no directory is a ToolError 74).
  // Unless `access` creates, a missing root or --location is a ToolError 66: a
  // mistyped path must not read as an empty store. Then locks the store and
  // builds the cache, which scans it.
  StoreSession(const StoreOptions& options, StoreAccess access);
  StoreSession(const StoreSession&) = delete;
  StoreSession& operator=(const StoreSession&) = delete;

  // Takes the exclusive lock (giving up a shared one first), completes what a
  // dead run left and scans the store again, as kChange does: for a session
  // that prepared a change without the lock. Whatever the command read before
  // may have changed since; it checks again what it relies on.
  void change();
  // Gives up the lock and the cache: a command that has read what it needs
  // makes its keys without keeping other runs waiting, then calls change().
  void release();

  CertFileCache& cache() { return *cache_; }
  CertificateStore& store() { return *store_; }
  CertificateFilter& filter() { return *filter_; }
  const boost::shared_ptr<CertificateFilter>& sharedFilter() const { return filter_; }
  const std::string& root() const { return store_->getRoot(); }
  // The root's cache directory, where everything is created, renamed and removed.
  std::string directory() const;
  // The cache directories of every location, in search order, each once.
  std::vector<std::string> directories() const;
  bool withKeys() const { return withKeys_; }

 private:
  void completeForReading(const std::string& root);
  void lockAndScan(StoreAccess access);

  std::unique_ptr<StoreLock> lock_;  // held until the cache is gone
  std::unique_ptr<CertificateStore> store_;
  boost::shared_ptr<CertificateFilter> filter_;
  std::unique_ptr<CertFileCache> cache_;
  bool withKeys_;
};

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STORESESSION_H_
