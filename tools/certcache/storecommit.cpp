#include "storecommit.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "base/filename.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

const char kStagingPlace[] = ".certcache-staging";

namespace {

namespace fs = boost::filesystem;

constexpr char kOutputList[] = "outputs";  // in the staging place: files begun outside

[[noreturn]] void fail(const std::string& what, const std::string& path, int error) {
  throw ToolError(kExitIoError, what + " " + path + ": " + std::strerror(error));
}

// Flushes a file or a directory to disk.
void flush(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) fail("cannot open", path, errno);
  const int synced = ::fsync(fd);
  const int error = errno;
  ::close(fd);
  if (synced != 0) fail("cannot flush", path, error);
}

std::string parentOf(const std::string& path) {
  const std::string parent = fs::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

// Writes `text` to a new `path`, flushed, for the owner alone.
void writeFlushed(const std::string& path, const std::string& text, int flags) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | flags, 0600);
  if (fd < 0) fail("cannot write", path, errno);
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  const bool synced = written && ::fsync(fd) == 0;
  ::close(fd);
  if (!synced) fail("cannot write", path, written ? errno : error);
}

bool present(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

// The steps of `root`'s record, in order; none when there is no record.
std::vector<IntentStep> readRecord(const std::string& root) {
  std::vector<IntentStep> steps;
  if (readIntentRecord(root, steps) == IntentRead::kDamaged) {
    throw ToolError(kExitIoError, "the intent record " + root + "/" + kIntentRecordName +
                                      " is damaged; the change it names is for a person to finish");
  }
  return steps;
}

// Makes the steps, each of which may have been made already, and flushes the
// directories they changed.
void makeSteps(const std::vector<IntentStep>& steps) {
  std::set<std::string> changed;
  for (const IntentStep& step : steps) {
    const std::string& from = step.from;
    if (!present(from)) continue;  // renamed or removed already
    if (step.rename ? ::rename(from.c_str(), step.to.c_str()) != 0
                    : ::unlink(from.c_str()) != 0 && errno != ENOENT) {
      fail(step.rename ? "cannot rename" : "cannot remove", from, errno);
    }
    changed.insert(parentOf(from));
    if (step.rename) changed.insert(parentOf(step.to));
  }
  for (const std::string& directory : changed) flush(directory);
}

// Completes the record of `root`, if there is one, and removes it.
void complete(const std::string& root) {
  const std::string record = root + "/" + kIntentRecordName;
  if (!present(record)) return;
  makeSteps(readRecord(root));
  if (::unlink(record.c_str()) != 0 && errno != ENOENT) fail("cannot remove", record, errno);
  flush(root);
}

// Locks the staging place `staging` for its run: -1 when it cannot be opened.
// `wait`: until its run's lock is free; else only when it is free now.
int lockStaging(const std::string& staging, bool wait) {
  const int fd = ::open(staging.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return -1;
  while (::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB)) != 0) {
    if (errno == EINTR) continue;
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

// The staging places in `root` whose runs are gone (their lock is free), and
// the one place of runs before staging places were a run's own.
std::vector<std::string> deadStagingPlaces(const std::string& root) {
  std::vector<std::string> dead;
  boost::system::error_code error;
  for (fs::directory_iterator it(root, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.compare(0, std::strlen(kStagingPlace), kStagingPlace) != 0) continue;
    const FileDescriptor lock(lockStaging(it->path().string(), false));
    if (lock.isOpen() || !fs::is_directory(fs::symlink_status(it->path()))) {
      dead.push_back(it->path().string());
    }
  }
  std::sort(dead.begin(), dead.end());
  return dead;
}

// Removes the staging place `staging` and whatever was begun beside outputs.
void clearStaging(const std::string& staging) {
  std::ifstream outputs(staging + "/" + kOutputList);
  for (std::string word; outputs >> word;) ::unlink(decodeFilename(word).c_str());
  boost::system::error_code error;
  fs::remove_all(staging, error);
  if (error) fail("cannot clear", staging, error.value());
}

}  // namespace

void StoreCommit::recover(const std::string& root) {
  complete(root);
  // Only now: a dead run's place may hold what its record renames.
  for (const std::string& staging : deadStagingPlaces(root)) {
    // Locked again while it goes, so that no run can take it up meanwhile.
    const FileDescriptor lock(lockStaging(staging, false));
    if (lock.isOpen() || !fs::is_directory(fs::symlink_status(staging))) clearStaging(staging);
  }
}

std::vector<std::string> StoreCommit::leftovers(const std::string& root) {
  std::vector<std::string> found;
  if (present(root + "/" + kIntentRecordName)) found.push_back(root + "/" + kIntentRecordName);
  const std::vector<std::string> dead = deadStagingPlaces(root);
  found.insert(found.end(), dead.begin(), dead.end());
  return found;
}

StoreCommit::StoreCommit(const std::string& root, const std::string& subdirectory)
    : root_(fs::absolute(root).lexically_normal().string()), subdirectory_(subdirectory) {
  if (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  // A place that a recovering run removed between its making and its locking
  // is made again.
  for (;;) {
    std::string pattern = root_ + "/" + kStagingPlace + "-XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr) fail("cannot make", pattern, errno);
    staging_ = pattern;
    stagingLock_.reset(lockStaging(staging_, true));
    if (!stagingLock_.isOpen() && errno != ENOENT) fail("cannot lock", staging_, errno);
    struct stat locked {};
    struct stat named {};
    if (stagingLock_.isOpen() && ::fstat(stagingLock_.get(), &locked) == 0 &&
        ::lstat(staging_.c_str(), &named) == 0 && locked.st_ino == named.st_ino) {
      break;
    }
  }
  boost::system::error_code error;
  fs::create_directories(cacheDirectory(staging_, subdirectory_.c_str()), error);
  if (error) fail("cannot make", staging_, error.value());
}

StoreCommit::~StoreCommit() {
  if (committed_) return;
  for (const std::string& output : outputs_) ::unlink(output.c_str());
  boost::system::error_code ignored;
  fs::remove_all(staging_, ignored);
}

CertFileCache& StoreCommit::cache(boost::shared_ptr<CertificateFilter> filter, bool withKeys) {
  if (!cache_) {
    store_ = std::make_unique<CertificateStore>(staging_, std::vector<std::string>{staging_});
    cache_ = std::make_unique<CertFileCache>(*store_, std::move(filter), withKeys);
  }
  return *cache_;
}

std::string StoreCommit::staged(const std::string& baseName, const char* extension) const {
  return credentialFile(cacheDirectory(staging_, subdirectory_.c_str()), baseName, extension)
      .string();
}

std::string StoreCommit::stored(const std::string& baseName, const char* extension) const {
  return credentialFile(cacheDirectory(root_, subdirectory_.c_str()), baseName, extension).string();
}

std::string StoreCommit::aside(const char* subdirectory, const std::string& baseName,
                               const char* extension) {
  for (const std::string& place : {staging_, root_}) {
    boost::system::error_code error;
    fs::create_directories(cacheDirectory(place, subdirectory), error);
    if (error) fail("cannot make", cacheDirectory(place, subdirectory).string(), error.value());
  }
  return credentialFile(cacheDirectory(staging_, subdirectory), baseName, extension).string();
}

std::string StoreCommit::stored(const char* subdirectory, const std::string& baseName,
                                const char* extension) const {
  return credentialFile(cacheDirectory(root_, subdirectory), baseName, extension).string();
}

std::string StoreCommit::besideOutput(const std::string& path) {
  std::random_device random;
  std::string beside = fs::absolute(path).string() + ".certcache-" + std::to_string(::getpid()) +
                       "-" + std::to_string(random() % 100000);
  // Listed before it exists, so that a run that dies right after leaves
  // nothing the next one does not clear.
  outputs_.push_back(beside);
  std::string list;
  for (const std::string& output : outputs_) list += encodeFilename(output) + "\n";
  writeFlushed(staging_ + "/" + kOutputList, list, O_TRUNC);
  const int fd = ::open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) fail("cannot write beside", path, errno);
  ::close(fd);
  return beside;
}

void StoreCommit::rename(const std::string& from, const std::string& to) {
  steps_.push_back({true, fs::absolute(from).lexically_normal().string(),
                    fs::absolute(to).lexically_normal().string()});
}

void StoreCommit::remove(const std::string& path) {
  steps_.push_back({false, fs::absolute(path).lexically_normal().string(), std::string()});
}

void StoreCommit::commit() {
  // What cannot be made is refused before anything changes.
  std::vector<IntentStep> recorded;
  std::set<std::string> stagedDirectories = {
      staging_, cacheDirectory(staging_, subdirectory_.c_str()).string()};
  for (const IntentStep& step : steps_) {
    if (!present(step.from)) continue;
    const std::string& target = step.rename ? step.to : step.from;
    if (fs::is_directory(fs::symlink_status(target))) {
      throw ToolError(kExitIoError, "cannot replace " + target + ": it is a directory");
    }
    if (step.rename && !fs::is_directory(fs::symlink_status(step.from))) {
      flush(step.from);
      stagedDirectories.insert(parentOf(step.from));
    }
    recorded.push_back(step);
  }
  for (const std::string& directory : stagedDirectories) flush(directory);
  const std::string beside = staging_ + "/intent";
  writeFlushed(beside, intentRecordText(root_, recorded), O_EXCL);
  const std::string intent = root_ + "/" + kIntentRecordName;
  if (::rename(beside.c_str(), intent.c_str()) != 0) fail("cannot write", intent, errno);
  flush(root_);
  committed_ = true;  // from here on the change has happened
  complete(root_);
  clearStaging(staging_);
}

}  // namespace cli
}  // namespace tavik
