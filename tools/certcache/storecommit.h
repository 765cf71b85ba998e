// Whatever the tool changes in a store, it changes as one commit, so that a
// run that dies at any moment (killed, out of memory, the machine losing
// power) leaves the old credential or the new one, whole, and nothing else:
//   1. the new files are made whole in a staging place inside the store's
//      root (ROOT/.certcache-staging, on the same file system), where the
//      library's own operations write them, and flushed to disk;
//   2. an intent record (ROOT/.certcache-intent) lists the renames and
//      removals that complete the change; it is written beside, flushed and
//      renamed into place, its directory flushed: from then on the change
//      has happened, whatever happens to this run;
//   3. the renames and removals are made and their directories flushed;
//   4. the record goes, then the staging place.
// Whoever finds a record completes it first, under the exclusive lock. Every
// step is idempotent (a rename whose source is gone and a removal of what is
// not there are done already), so a crash while completing is completed the
// same way. Staged files without a record are a change that never happened:
// they go, with any file the change had begun beside an output outside the store.
#ifndef TAVIK_TOOLS_CERTCACHE_STORECOMMIT_H_
#define TAVIK_TOOLS_CERTCACHE_STORECOMMIT_H_

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/filedescriptor.h"
#include "base/intentrecord.h"
#include "crypto/certificatefilecache.h"

namespace tavik {
namespace cli {

extern const char kStagingPlace[];  // in the root: the prefix of every run's own

class StoreCommit {
 public:
  // Completes what a dead run left in `root`, if anything, and clears the
  // staging places of dead runs; the caller holds the exclusive lock. Throws
  // ToolError 74 when a step cannot be made (the record then stays for the
  // next run).
  static void recover(const std::string& root);
  // What an earlier run left unfinished in `root`: the record's path when it
  // exists, and the staging places of dead runs.
  static std::vector<std::string> leftovers(const std::string& root);

  // Opens an empty staging place of this run's own in `root`, with the cache
  // subdirectory `subdirectory`, and holds its lock. Needs no store lock.
  StoreCommit(const std::string& root, const std::string& subdirectory);
  // Without commit(), everything staged goes again.
  ~StoreCommit();
  StoreCommit(const StoreCommit&) = delete;
  StoreCommit& operator=(const StoreCommit&) = delete;

  // A cache over the staging place, in which the library makes the new files
  // with its own operations, as it would in the store. Made on first use.
  CertFileCache& cache(boost::shared_ptr<CertificateFilter> filter, bool withKeys);
  // `baseName` + `extension` in the staging place's cache directory.
  std::string staged(const std::string& baseName, const char* extension) const;
  // `baseName` + `extension` in the store's cache directory.
  std::string stored(const std::string& baseName, const char* extension) const;
  // The same in another subdirectory of the staging place and of the root
  // (the authorities' `ca`, say); aside() makes both directories when missing.
  std::string aside(const char* subdirectory, const std::string& baseName, const char* extension);
  std::string stored(const char* subdirectory, const std::string& baseName,
                     const char* extension) const;
  // A new, empty file beside `path` (outside the store, say a request for an
  // authority) to be written now and renamed over `path` by the commit.
  std::string besideOutput(const std::string& path);

  // Steps of the commit, in the order given. Paths are absolute or relative to
  // the working directory; a rename whose source is missing is no step.
  void rename(const std::string& from, const std::string& to);
  void remove(const std::string& path);

  // Flushes what is staged, writes the record, makes its steps, and clears up;
  // the caller holds the exclusive lock and has recovered. Throws ToolError 74 when the record
  // cannot be written (nothing changed then) or a step cannot be made (the record stays for the
  // next run).
  void commit();

 private:
  std::string root_, subdirectory_, staging_;
  FileDescriptor stagingLock_;  // held while the run lives
  std::vector<IntentStep> steps_;
  std::vector<std::string> outputs_;  // files begun beside outputs, until committed
  std::unique_ptr<CertificateStore> store_;
  std::unique_ptr<CertFileCache> cache_;
  bool committed_ = false;
};

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STORECOMMIT_H_
