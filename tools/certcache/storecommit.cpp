#include "storecommit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

const char kIntentRecord[] = ".certcache-intent";
const char kStagingPlace[] = ".certcache-staging";

namespace {

namespace fs = boost::filesystem;

constexpr char kRecordHeader[] = "certcache-intent 1";
constexpr char kRecordEnd[] = "end";
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

// Paths in the record: inside the root relative to it, so that a store moved
// after a crash is still completed; outside it absolute.
std::string recorded(const std::string& root, const std::string& path) {
  const std::string prefix = root + "/";
  return encodeFilename(path.compare(0, prefix.size(), prefix) == 0 ? path.substr(prefix.size())
                                                                    : path);
}
std::string resolved(const std::string& root, const std::string& word) {
  const std::string path = decodeFilename(word);
  return !path.empty() && path[0] == '/' ? path : root + "/" + path;
}

// The steps of `root`'s record, in order; each "rename FROM TO" or "remove PATH".
std::vector<std::vector<std::string>> readRecord(const std::string& root) {
  std::ifstream in(root + "/" + kIntentRecord);
  std::vector<std::vector<std::string>> steps;
  std::string line;
  bool ended = false;
  const bool headed = std::getline(in, line) && line == kRecordHeader;
  while (headed && !ended && std::getline(in, line)) {
    std::istringstream words(line);
    std::vector<std::string> step{std::istream_iterator<std::string>(words), {}};
    ended = step.size() == 1 && step[0] == kRecordEnd;
    const bool known =
        (step.size() == 3 && step[0] == "rename") || (step.size() == 2 && step[0] == "remove");
    if (!ended && !known) break;
    for (std::size_t i = 1; i < step.size(); ++i) step[i] = resolved(root, step[i]);
    if (!ended) steps.push_back(step);
  }
  if (!ended) {
    throw ToolError(kExitIoError, "the intent record " + root + "/" + kIntentRecord +
                                      " is damaged; the change it names is for a person to finish");
  }
  return steps;
}

// Makes the steps, each of which may have been made already, and flushes the
// directories they changed.
void makeSteps(const std::vector<std::vector<std::string>>& steps) {
  std::set<std::string> changed;
  for (const std::vector<std::string>& step : steps) {
    const std::string& from = step[1];
    if (!present(from)) continue;  // renamed or removed already
    if (step[0] == "rename" ? ::rename(from.c_str(), step[2].c_str()) != 0
                            : ::unlink(from.c_str()) != 0 && errno != ENOENT) {
      fail(step[0] == "rename" ? "cannot rename" : "cannot remove", from, errno);
    }
    changed.insert(parentOf(from));
    if (step[0] == "rename") changed.insert(parentOf(step[2]));
  }
  for (const std::string& directory : changed) flush(directory);
}

// Removes the staging place and whatever was begun beside outputs.
void clearStaging(const std::string& root) {
  const std::string staging = root + "/" + kStagingPlace;
  std::ifstream outputs(staging + "/" + kOutputList);
  for (std::string word; outputs >> word;) ::unlink(decodeFilename(word).c_str());
  boost::system::error_code error;
  fs::remove_all(staging, error);
  if (error) fail("cannot clear", staging, error.value());
}

}  // namespace

void StoreCommit::recover(const std::string& root) {
  const bool recorded = present(root + "/" + kIntentRecord);
  if (!recorded && !present(root + "/" + kStagingPlace)) return;
  if (recorded) {
    makeSteps(readRecord(root));
    if (::unlink((root + "/" + kIntentRecord).c_str()) != 0 && errno != ENOENT)
      fail("cannot remove", root + "/" + kIntentRecord, errno);
    flush(root);
  }
  clearStaging(root);
}

std::vector<std::string> StoreCommit::leftovers(const std::string& root) {
  std::vector<std::string> found;
  for (const char* name : {kIntentRecord, kStagingPlace}) {
    if (present(root + "/" + name)) found.push_back(root + "/" + name);
  }
  return found;
}

StoreCommit::StoreCommit(const std::string& root, const std::string& subdirectory)
    : root_(fs::absolute(root).lexically_normal().string()), subdirectory_(subdirectory) {
  if (root_.size() > 1 && root_.back() == '/') root_.pop_back();
  staging_ = root_ + "/" + kStagingPlace;
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
  steps_.push_back({false, fs::absolute(path).lexically_normal().string(), ""});
}

void StoreCommit::commit() {
  // What cannot be made is refused before anything changes.
  std::string record = std::string(kRecordHeader) + "\n";
  std::set<std::string> stagedDirectories = {
      staging_, cacheDirectory(staging_, subdirectory_.c_str()).string()};
  for (const Step& step : steps_) {
    if (!present(step.from)) continue;
    const std::string& target = step.rename ? step.to : step.from;
    if (fs::is_directory(fs::symlink_status(target))) {
      throw ToolError(kExitIoError, "cannot replace " + target + ": it is a directory");
    }
    if (step.rename && !fs::is_directory(fs::symlink_status(step.from))) {
      flush(step.from);
      stagedDirectories.insert(parentOf(step.from));
    }
    record += step.rename ? "rename " + recorded(root_, step.from) + " " + recorded(root_, step.to)
                          : "remove " + recorded(root_, step.from);
    record += "\n";
  }
  for (const std::string& directory : stagedDirectories) flush(directory);
  const std::string beside = staging_ + "/intent";
  writeFlushed(beside, record + kRecordEnd + "\n", O_EXCL);
  const std::string intent = root_ + "/" + kIntentRecord;
  if (::rename(beside.c_str(), intent.c_str()) != 0) fail("cannot write", intent, errno);
  flush(root_);
  committed_ = true;  // from here on the change has happened
  recover(root_);
}

}  // namespace cli
}  // namespace tavik
