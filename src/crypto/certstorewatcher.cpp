// The watcher's statements are its own (it fails, falls back, rescans): they
// name this file and go through a handle of its own, so that a program that
// keeps the cache's records by their file sees the same records from a
// watcher as from a cache. What the scan says of single files is still said
// by the cache's code, under the cache's name.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certstorewatcher.cpp"

#include "crypto/certstorewatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <ctime>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

#include "base/directorylisting.h"
#include "base/filedescriptor.h"
#include "base/filename.h"
#include "log/log.h"

namespace tavik {

namespace {

LogHandle logHandle(nullptr, 0, 2);
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

constexpr std::uint32_t kDirectoryEvents = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO |
                                           IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_DELETE_SELF |
                                           IN_MOVE_SELF | IN_ONLYDIR;
// A location is watched only for its cache directory coming and going.
constexpr std::uint32_t kLocationEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_ONLYDIR;
// Events of one change (a commit renames a certificate, then its key) are
// taken together: the watcher waits this long for the next, up to kBatchLimit.
constexpr int kQuietMilliseconds = 5;
constexpr auto kBatchLimit = std::chrono::milliseconds(100);
constexpr int kPollMilliseconds = 1000;
constexpr std::time_t kSettleSeconds = 1;
// An entered certificate file that reads as nothing this soon after it was
// written is read again this much later before it leaves the index.
constexpr int kSettleMilliseconds = 100;

[[noreturn]] void throwError(const char* what, const std::string& path, int error) {
  throw boost::filesystem::filesystem_error(
      what, path, boost::system::error_code(error, boost::system::system_category()));
}

}  // namespace

// Everything the watcher's thread keeps: for every location, the certificate
// files that entered (file name -> identifier), and the notification.
class CertStoreWatcher::Follower {
 public:
  Follower(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
           bool withPrivateKeys, const std::vector<std::string>& locations,
           const std::string& subdirectory);

  // Watches what can be watched, then scans everything: the first index.
  std::shared_ptr<const CertFileCache> start();
  // Until `stop_` is signalled: waits for changes and hands each new index to `publish`.
  void run(CertStoreWatcher& watcher);
  void stop() const;

 private:
  struct Location {
    std::string location, directory;
    int directoryWatch = -1, locationWatch = -1;
    std::unordered_map<std::string, std::string> files;  // entered file name -> identifier
  };
  struct Touched {
    std::size_t location;
    std::string fileName;
    bool rewritten;
  };
  // One batch of notification: files touched, locations to list again.
  struct Batch {
    std::vector<Touched> touched;
    std::set<std::size_t> relist;
    bool everything = false;
  };
  using Index = std::unordered_map<std::string, std::string>;

  static std::string stem(const std::string& fileName) {
    return fileName.substr(0, CertFileCache::certExtensionAt(fileName));
  }

  void watch(std::size_t location);
  bool readEvents(Batch& batch);
  void onEvent(const inotify_event& event, Batch& batch);
  void retryWatches(Batch& batch);
  // The index after `batch`, with what changed; throws what a scan throws.
  Index apply(const Batch& batch, StoreChanges& changes);
  Index scanEverything();
  void scan(std::size_t location, Index* index);
  void examine(const Touched& touched, int directoryFd);
  // For each identifier, the file that gives it in a fresh scan: the last
  // location's, and within it the listing's last.
  std::map<std::string, std::pair<std::size_t, std::string>> winners(
      const std::set<std::string>& ids, bool onlyTouched, const Batch& batch) const;
  std::shared_ptr<const CertFileCache> snapshot(Index index) const;

  CertificateStore& store_;
  boost::shared_ptr<CertificateFilter> filter_;
  const bool withPrivateKeys_;
  std::vector<Location> locations_;
  std::multimap<int, std::size_t> watches_;  // watch -> locations it serves
  FileDescriptor notify_;
  FileDescriptor stop_;
  // The scan's rules are the cache's: an empty cache of the same kind reads the files.
  std::unique_ptr<CertFileCache> reader_;
  std::shared_ptr<const CertFileCache> published_;
  bool failed_ = false;  // the last scan threw: scan everything on the next change
  // Entered files found unreadable just after a write: kept as they were, and
  // read again shortly, for a writer may still be at work on them.
  std::vector<Touched> unsettled_;
  std::string buffer_;
};

CertStoreWatcher::Follower::Follower(CertificateStore& store,
                                     boost::shared_ptr<CertificateFilter> filter,
                                     bool withPrivateKeys,
                                     const std::vector<std::string>& locations,
                                     const std::string& subdirectory)
    : store_(store),
      filter_(std::move(filter)),
      withPrivateKeys_(withPrivateKeys),
      notify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      reader_(new CertFileCache(store, filter_, withPrivateKeys, Index())) {
  for (const std::string& location : locations) {
    locations_.emplace_back();
    locations_.back().location = location;
    locations_.back().directory = cacheDirectory(location, subdirectory.c_str()).string();
  }
  if (!stop_.isOpen()) throwError("eventfd", std::string(), errno);
  if (!notify_.isOpen()) {
    TAVIK_LOG_WARNING(logHandle) << "No change notification (" << std::to_string(errno)
                                 << "): scanning the store once a second";
  }
}

std::shared_ptr<CertFileCache const> CertStoreWatcher::Follower::start() {
  // Watches first, so that no change made during the scan goes unseen.
  for (std::size_t i = 0; i < locations_.size(); ++i) watch(i);
  try {
    published_ = snapshot(scanEverything());
  } catch (const boost::filesystem::filesystem_error& error) {
    TAVIK_LOG_ERROR(logHandle) << "Scanning the store failed, starting empty: " << error.what();
    failed_ = true;
    published_ = snapshot(Index());
  }
  return published_;
}

void CertStoreWatcher::Follower::watch(std::size_t i) {
  Location& location = locations_[i];
  if (!notify_.isOpen()) return;
  if (location.locationWatch < 0) {
    location.locationWatch =
        ::inotify_add_watch(notify_.get(), location.location.c_str(), kLocationEvents);
    if (location.locationWatch >= 0) watches_.emplace(location.locationWatch, i);
  }
  if (location.directoryWatch < 0) {
    location.directoryWatch =
        ::inotify_add_watch(notify_.get(), location.directory.c_str(), kDirectoryEvents);
    if (location.directoryWatch >= 0) watches_.emplace(location.directoryWatch, i);
  }
}

void CertStoreWatcher::Follower::stop() const {
  const std::uint64_t one = 1;
  // Nothing to do when it fails: the counter is already past zero.
  if (::write(stop_.get(), &one, sizeof one) < 0) return;
}

void CertStoreWatcher::Follower::run(CertStoreWatcher& watcher) {
  for (;;) {
    Batch batch;
    if (!readEvents(batch)) return;
    batch.touched.insert(batch.touched.end(), unsettled_.begin(), unsettled_.end());
    unsettled_.clear();
    if (!notify_.isOpen()) batch.everything = true;  // polling: every second, everything
    retryWatches(batch);
    // A failed scan is tried again on the next change, not on every tick.
    if (batch.touched.empty() && batch.relist.empty() && !batch.everything) continue;
    StoreChanges changes;
    try {
      Index index = apply(batch, changes);
      failed_ = false;
      if (changes.added.empty() && changes.removed.empty() && changes.changed.empty()) continue;
      published_ = snapshot(std::move(index));
      watcher.publish(published_, changes);
    } catch (const boost::filesystem::filesystem_error& error) {
      TAVIK_LOG_ERROR(logHandle) << "Rescanning the store failed, keeping the last index: "
                                 << error.what();
      failed_ = true;
    }
  }
}

bool CertStoreWatcher::Follower::readEvents(Batch& batch) {
  pollfd fds[2] = {{stop_.get(), POLLIN, 0}, {notify_.get(), POLLIN, 0}};
  const nfds_t count = notify_.isOpen() ? 2 : 1;
  const auto first = std::chrono::steady_clock::now();
  int timeout = unsettled_.empty() ? kPollMilliseconds : kSettleMilliseconds;
  for (;;) {
    const int ready = ::poll(fds, count, timeout);
    if (ready < 0 && errno != EINTR) throwError("poll", std::string(), errno);
    if (fds[0].revents != 0) return false;
    if (ready <= 0 || (fds[1].revents & POLLIN) == 0) return true;
    alignas(inotify_event) char events[64 * 1024];
    const ssize_t got = ::read(notify_.get(), events, sizeof events);
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(events + at);
      onEvent(*event, batch);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    // The rest of one change follows within moments; a stream of changes
    // still publishes every kBatchLimit.
    timeout = std::chrono::steady_clock::now() - first < kBatchLimit ? kQuietMilliseconds : 0;
    if (timeout == 0) return true;
  }
}

void CertStoreWatcher::Follower::onEvent(const inotify_event& event, Batch& batch) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    TAVIK_LOG_INFO(logHandle) << "Change notification overflowed: scanning the store again";
    batch.everything = true;
    return;
  }
  const std::string name = event.len != 0 ? std::string(event.name) : std::string();
  const auto served = watches_.equal_range(event.wd);
  std::vector<std::size_t> locations;
  for (auto it = served.first; it != served.second; ++it) locations.push_back(it->second);
  if ((event.mask & IN_IGNORED) != 0) watches_.erase(event.wd);
  for (const std::size_t i : locations) {
    Location& location = locations_[i];
    if (event.wd == location.locationWatch) {
      if ((event.mask & IN_IGNORED) != 0) location.locationWatch = -1;
      // The cache directory itself came, went or was replaced.
      if (name != filter_->subdirectory()) continue;
      if (location.directoryWatch >= 0) {
        watches_.erase(location.directoryWatch);
        ::inotify_rm_watch(notify_.get(), location.directoryWatch);
        location.directoryWatch = -1;
      }
      batch.relist.insert(i);
      continue;
    }
    if (event.wd != location.directoryWatch) continue;
    if ((event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
      if ((event.mask & IN_IGNORED) == 0) ::inotify_rm_watch(notify_.get(), event.wd);
      watches_.erase(event.wd);
      location.directoryWatch = -1;
      batch.relist.insert(i);
      continue;
    }
    const bool rewritten = (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE)) != 0;
    if (CertFileCache::certExtensionAt(name) != std::string::npos) {
      batch.touched.push_back({i, name, rewritten});
      continue;
    }
    // A key decides whether the certificates of its base name enter: every
    // letter case of ".crt" pairs with the one ".key".
    const std::size_t length = name.size() - 4;
    if (name.size() <= 4 || name.compare(length, 4, kKeyExtension) != 0) continue;
    for (int variant = 0; variant < 8; ++variant) {
      std::string certName = name.substr(0, length) + ".crt";
      for (int letter = 0; letter < 3; ++letter) {
        if ((variant & (1 << letter)) != 0) certName[length + 1 + letter] -= 'a' - 'A';
      }
      batch.touched.push_back({i, certName, false});
    }
  }
}

void CertStoreWatcher::Follower::retryWatches(Batch& batch) {
  for (std::size_t i = 0; i < locations_.size(); ++i) {
    const bool hadDirectory = locations_[i].directoryWatch >= 0;
    watch(i);
    if (!hadDirectory && locations_[i].directoryWatch >= 0) batch.relist.insert(i);
  }
}

CertStoreWatcher::Follower::Index CertStoreWatcher::Follower::apply(const Batch& batch,
                                                                    StoreChanges& changes) {
  const Index& before = published_->index_;
  if (batch.everything || failed_) {
    Index after = scanEverything();
    for (const auto& [id, base] : before) {
      const auto found = after.find(id);
      if (found == after.end()) changes.removed.push_back(id);
      if (found != after.end() && found->second != base) changes.changed.push_back(id);
    }
    for (const auto& entry : after) {
      if (before.count(entry.first) == 0) changes.added.push_back(entry.first);
    }
    return after;
  }

  // Every identifier that a changed file gave before or gives now.
  std::set<std::string> ids;
  for (const std::size_t i : batch.relist) {
    for (const auto& entry : locations_[i].files) ids.insert(entry.second);
    scan(i, nullptr);
    for (const auto& entry : locations_[i].files) ids.insert(entry.second);
  }
  std::map<std::size_t, FileDescriptor> directories;
  for (const Touched& touched : batch.touched) {
    Location& location = locations_[touched.location];
    const auto known = location.files.find(touched.fileName);
    if (known != location.files.end()) ids.insert(known->second);
    auto open = directories.find(touched.location);
    if (open == directories.end()) {
      open = directories
                 .emplace(touched.location,
                          ::open(location.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
                 .first;
    }
    examine(touched, open->second.get());
    const auto now = location.files.find(touched.fileName);
    if (now != location.files.end()) ids.insert(now->second);
  }

  // An identifier new to the index can only come from the files just read.
  bool onlyTouched = batch.relist.empty();
  for (const std::string& id : ids) onlyTouched = onlyTouched && before.count(id) == 0;
  const auto winner = winners(ids, onlyTouched, batch);

  Index after = before;
  for (const std::string& id : ids) {
    const auto was = before.find(id);
    const auto is = winner.find(id);
    if (is == winner.end()) {
      if (was != before.end()) changes.removed.push_back(id);
      after.erase(id);
      continue;
    }
    const std::string base = stem(is->second.second);
    after[id] = base;
    if (was == before.end()) {
      changes.added.push_back(id);
      continue;
    }
    bool rewritten = was->second != base;
    for (const Touched& touched : batch.touched) {
      rewritten = rewritten || (touched.rewritten && touched.location == is->second.first &&
                                touched.fileName == is->second.second);
    }
    if (rewritten) changes.changed.push_back(id);
  }
  return after;
}

std::map<std::string, std::pair<std::size_t, std::string>> CertStoreWatcher::Follower::winners(
    const std::set<std::string>& ids, bool onlyTouched, const Batch& batch) const {
  // Candidates by identifier, by location.
  std::map<std::string, std::map<std::size_t, std::set<std::string>>> found;
  const auto consider = [&](std::size_t i, const std::string& fileName, const std::string& id) {
    if (ids.count(id) != 0) found[id][i].insert(fileName);
  };
  if (onlyTouched) {
    for (const Touched& touched : batch.touched) {
      const auto& files = locations_[touched.location].files;
      const auto entry = files.find(touched.fileName);
      if (entry != files.end()) consider(touched.location, entry->first, entry->second);
    }
  } else {
    for (std::size_t i = 0; i < locations_.size(); ++i) {
      for (const auto& entry : locations_[i].files) consider(i, entry.first, entry.second);
    }
  }
  std::map<std::string, std::pair<std::size_t, std::string>> chosen;
  for (const auto& [id, byLocation] : found) {
    const auto& [i, names] = *byLocation.rbegin();
    std::string last = *names.rbegin();
    if (names.size() > 1) {
      // Two files of one directory give the same identifier: the scan keeps
      // the one its listing yields last.
      const DirectoryListing listing(locations_[i].directory);
      for (std::size_t at = 0; at < listing.size(); ++at) {
        const std::string name(listing.name(at));
        if (names.count(name) != 0) last = name;
      }
    }
    chosen.emplace(id, std::make_pair(i, last));
  }
  return chosen;
}

CertStoreWatcher::Follower::Index CertStoreWatcher::Follower::scanEverything() {
  Index index;
  for (std::size_t i = 0; i < locations_.size(); ++i) scan(i, &index);
  return index;
}

void CertStoreWatcher::Follower::scan(std::size_t i, Index* index) {
  Location& location = locations_[i];
  location.files.clear();
  const DirectoryListing listing(location.directory);
  if (!listing.isOpen()) return;
  std::string id;
  for (std::size_t at = 0; at < listing.size(); ++at) {
    if (!listing.isRegularFile(at)) continue;
    const std::string_view name = listing.name(at);
    if (CertFileCache::certExtensionAt(name) == std::string_view::npos) continue;
    if (reader_->examineFile(location.directory, listing.fd(), name, &listing, buffer_, id) !=
        CertFileCache::Entry::kEntered) {
      continue;
    }
    location.files[std::string(name)] = id;
    if (index != nullptr) (*index)[id] = stem(std::string(name));
  }
  listing.throwIfIncomplete();
}

void CertStoreWatcher::Follower::examine(const Touched& touched, int directoryFd) {
  const std::string& fileName = touched.fileName;
  Location& location = locations_[touched.location];
  const auto known = location.files.find(fileName);
  const std::string was = known != location.files.end() ? known->second : std::string();
  if (known != location.files.end()) location.files.erase(known);
  struct stat info {};
  if (directoryFd < 0 || ::fstatat(directoryFd, fileName.c_str(), &info, 0) != 0) {
    // As the listing's type test: an absent file or target is no file, any other failure an error.
    if (directoryFd >= 0 && errno != ENOENT && errno != ENOTDIR) {
      throwError("boost::filesystem::status", location.directory + "/" + fileName, errno);
    }
    return;
  }
  if (!S_ISREG(info.st_mode)) return;
  std::string id;
  const CertFileCache::Entry entry =
      reader_->examineFile(location.directory, directoryFd, fileName, nullptr, buffer_, id);
  if (entry == CertFileCache::Entry::kEntered) location.files[fileName] = id;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  if (entry == CertFileCache::Entry::kUnreadable && !was.empty() &&
      info.st_mtim.tv_sec + kSettleSeconds >= now.tv_sec) {
    location.files[fileName] = was;
    unsettled_.push_back(touched);
  }
}

std::shared_ptr<const CertFileCache> CertStoreWatcher::Follower::snapshot(Index index) const {
  return std::shared_ptr<const CertFileCache>(
      new CertFileCache(store_, filter_, withPrivateKeys_, std::move(index)));
}

CertStoreWatcher::CertStoreWatcher(CertificateStore& store,
                                   boost::shared_ptr<CertificateFilter> filter,
                                   bool withPrivateKeys) {
  store.getBaseLocations(locations_);
  subdirectory_ = filter->subdirectory();
  follower_ = std::make_unique<Follower>(store, filter, withPrivateKeys, locations_, subdirectory_);
  current_ = follower_->start();
  generation_ = 1;
  thread_ = std::thread([this] { follower_->run(*this); });
}

CertStoreWatcher::~CertStoreWatcher() {
  follower_->stop();
  thread_.join();
}

std::shared_ptr<const CertFileCache> CertStoreWatcher::current() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return current_;
}

std::uint64_t CertStoreWatcher::generation() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return generation_;
}

bool CertStoreWatcher::waitForNewer(std::uint64_t generation,
                                    std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return published_.wait_for(lock, timeout, [&] { return generation_ > generation; });
}

void CertStoreWatcher::setListener(std::function<void(const StoreChanges&)> listener) {
  const std::lock_guard<std::mutex> lock(mutex_);
  listener_ = std::move(listener);
}

void CertStoreWatcher::publish(std::shared_ptr<const CertFileCache> index,
                               const StoreChanges& changes) {
  std::function<void(const StoreChanges&)> listener;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = std::move(index);
    ++generation_;
    listener = listener_;
  }
  published_.notify_all();
  TAVIK_LOG_DEBUG(logHandle) << "Published index " << std::to_string(generation()) << ": "
                             << std::to_string(changes.added.size()) << " added, "
                             << std::to_string(changes.removed.size()) << " removed, "
                             << std::to_string(changes.changed.size()) << " changed";
  if (listener) listener(changes);
}

std::shared_ptr<Certificate> CertStoreWatcher::getCertificate(const std::string& id,
                                                              const std::string& password,
                                                              int& errorCode) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kSettleSeconds);
  const std::chrono::milliseconds longestPause(50);
  for (std::chrono::milliseconds pause(1);; pause = std::min(2 * pause, longestPause)) {
    const std::shared_ptr<const CertFileCache> index = current();
    std::shared_ptr<Certificate> found = index->getCertificate(id, password, errorCode, true);
    if (found || !caughtBetweenWrites(*index, id, errorCode) ||
        std::chrono::steady_clock::now() + pause > deadline) {
      return found;
    }
    std::this_thread::sleep_for(pause);
  }
}

bool CertStoreWatcher::caughtBetweenWrites(const CertFileCache& index, const std::string& id,
                                           int errorCode) const {
  if (errorCode != CertFileCache::kNoLocationHasIt && errorCode != CertFileCache::kKeyUnreadable &&
      errorCode != CertFileCache::kKeyMissing) {
    return false;
  }
  // A writer that is still at work has touched the pair's files, or renamed
  // them in their directory, a moment ago; files left alone for a second are
  // what they will stay, and a failure over them is reported at once.
  const std::string base = index.getFileBaseName(id);
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  for (const std::string& location : locations_) {
    const boost::filesystem::path directory = cacheDirectory(location, subdirectory_.c_str());
    for (const auto& path : {directory, credentialFile(directory, base, kCertExtension),
                             credentialFile(directory, base, kKeyExtension)}) {
      struct stat info {};
      if (::stat(path.c_str(), &info) != 0) continue;
      const std::time_t latest = std::max(info.st_mtim.tv_sec, info.st_ctim.tv_sec);
      if (latest + kSettleSeconds >= now.tv_sec) return true;
    }
  }
  return false;
}

}  // namespace tavik
