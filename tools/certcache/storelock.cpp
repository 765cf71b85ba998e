#include "storelock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "toolerror.h"

namespace tavik {
namespace cli {

const char kStoreLockFile[] = ".certcache.lock";

namespace {

constexpr int kDefaultWaitSeconds = 10;
constexpr int kMaxWaitSeconds = 24 * 60 * 60;
constexpr std::chrono::milliseconds kRetryInterval(50);

// O_NOFOLLOW: a link planted as the lock file must not make the tool create or
// lock a file elsewhere.
int openLockFile(const std::string& path, StoreLock::Mode mode) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0600);
  if (fd >= 0) return fd;
  if (mode == StoreLock::Mode::kShared && (errno == EACCES || errno == EROFS)) return -1;
  throw ToolError(kExitIoError, "cannot open the store lock " + path + ": " + std::strerror(errno));
}

void waitForLock(int fd, StoreLock::Mode mode, const std::string& path) {
  const int operation = (mode == StoreLock::Mode::kShared ? LOCK_SH : LOCK_EX) | LOCK_NB;
  const int seconds = lockWaitSeconds();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  for (;;) {
    if (::flock(fd, operation) == 0) return;
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) {
      throw ToolError(kExitIoError,
                      "cannot lock the store lock " + path + ": " + std::strerror(errno));
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      throw ToolError(kExitBusy, "the store is busy: another certcache run holds " + path +
                                     "; gave up after " + std::to_string(seconds) + " s");
    }
    std::this_thread::sleep_for(kRetryInterval);
  }
}

}  // namespace

int lockWaitSeconds() {
  const char* value = std::getenv("CERTCACHE_LOCK_WAIT");
  if (value == nullptr) return kDefaultWaitSeconds;
  const std::string text = value;
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos ||
      std::atoi(value) > kMaxWaitSeconds) {
    throw ToolError(kExitUsage, "CERTCACHE_LOCK_WAIT must be a whole number of seconds up to " +
                                    std::to_string(kMaxWaitSeconds));
  }
  return std::atoi(value);
}

StoreLock::StoreLock(const std::string& root, Mode mode) {
  const std::string path = (boost::filesystem::path(root) / kStoreLockFile).string();
  fd_ = openLockFile(path, mode);
  if (fd_ < 0) return;
  try {
    waitForLock(fd_, mode, path);
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

StoreLock::~StoreLock() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace cli
}  // namespace tavik
