// The store lock: one file in the store's root that every run of the tool locks
// while it works, exclusively when it changes the store and shared when it only
// reads it. The cache takes no locks of its own, so two runs (two cron jobs, an
// operator and a script) would otherwise interleave their file operations: a
// request could replace the key that an install is about to promote.
#ifndef TAVIK_TOOLS_CERTCACHE_STORELOCK_H_
#define TAVIK_TOOLS_CERTCACHE_STORELOCK_H_

#include <string>

namespace tavik {
namespace cli {

// The lock file's name in the store's root.
extern const char kStoreLockFile[];

class StoreLock {
 public:
  enum class Mode { kShared, kExclusive };

  // Locks ROOT/.certcache.lock in `mode`, making the file when it is missing,
  // and waits up to lockWaitSeconds() while other runs hold it. Throws ToolError:
  // 75 when the store stays busy, 74 when the file cannot be opened or locked.
  // A reader that may not create the file in a root it cannot write to goes on
  // without the lock: whoever cannot make the file cannot change that store.
  StoreLock(const std::string& root, Mode mode);
  ~StoreLock();  // closing the file releases the lock
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  int fd_ = -1;
};

// How long a run waits for a busy store: $CERTCACHE_LOCK_WAIT seconds when set
// (0 gives up at once, which tests and impatient scripts want), else 10.
// Throws ToolError 64 when the variable is not a whole number of seconds.
int lockWaitSeconds();

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STORELOCK_H_
