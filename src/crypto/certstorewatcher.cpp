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

#include <algorithm>
#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "base/compactstringmap.h"
#include "base/directorylisting.h"
#include "base/filedescriptor.h"
#include "base/filename.h"
#include "base/intentrecord.h"
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

// The authorities' subdirectory of every location, beside the cache directory.
const char* const kAuthorities = AuthorityCertificateFilter().subdirectory();

// The location index of the watch on the store's root, where the intent record lies.
constexpr std::size_t kRoot = static_cast<std::size_t>(-1);

[[noreturn]] void throwError(const char* what, const std::string& path, int error) {
  throw boost::filesystem::filesystem_error(
      what, path, boost::system::error_code(error, boost::system::system_category()));
}

bool exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

// The same directory, whatever the path that names it.
bool sameDirectory(const std::string& a, const std::string& b) {
  struct stat first {};
  struct stat second {};
  return ::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

// Everything the watcher's thread keeps: for every location, the certificate
// files that entered (file name -> identifier), the index it published last,
// what an intent record holds back, and the notification.
//
// A commit of the tool (base/intentrecord.h) renames its new files into place
// one after the other; a run killed between two renames leaves a certificate
// beside a key that is not its own until a next run completes the record.
// While a record exists, the files it names are therefore read as the record
// will leave them: each from its staged place until its rename is made, a file
// to be removed or renamed away as absent. The indexes published meanwhile
// send lookups of those files to the same places, so a reader meets the new
// pair whole, never a half-renamed one; once the record is gone, the files are
// read where they are.
class CertStoreWatcher::Follower {
 public:
  Follower(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
           bool withPrivateKeys, const std::vector<std::string>& locations,
           const std::string& subdirectory);

  // Watches what can be watched, then scans everything: the first moment.
  StoreMoment start();
  // Until `stop_` is signalled: waits for changes and hands each new index to `publish`.
  void run(CertStoreWatcher& watcher);
  void stop() const;

 private:
  struct Location {
    std::string location, directory;
    int directoryWatch = -1, locationWatch = -1;
    CompactStringMap files;  // entered file name -> identifier
    // The authorities' and the revocation lists' directories: any change of a
    // file there makes the authorities or the lists anew.
    std::string authorities, lists;
    int authoritiesWatch = -1, listsWatch = -1;
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
    bool record = false;       // the intent record came or went
    bool authorities = false;  // a file of a `ca` directory changed
    bool lists = false;        // a file of a `crl` directory changed
  };
  // A file that the intent record names -> the places its content is to be
  // read from, in turn (none: it is absent).
  using Held = std::map<std::pair<std::size_t, std::string>, std::vector<std::string>>;

  static std::string stem(std::string_view fileName) {
    return std::string(fileName.substr(0, CertFileCache::certExtensionAt(fileName)));
  }

  void watch(std::size_t location);
  // Watches a directory beside the cache directory; false when it was watched already.
  bool watchBeside(std::size_t location, const std::string& directory, int& watch);
  // Whether `event` was one of a directory beside the cache directory of
  // `location`; it then marks what changed in `batch`.
  bool onBesideEvent(const inotify_event& event, const std::string& name, std::size_t location,
                     Batch& batch);
  // Makes the authorities and the lists anew where `batch` touched them; true
  // when they differ from those published.
  bool refreshBeside(const Batch& batch);
  bool readEvents(Batch& batch);
  void onEvent(const inotify_event& event, Batch& batch);
  void touchCertificates(std::size_t location, const std::string& name, bool rewritten,
                         Batch& batch) const;
  void retryWatches(Batch& batch);
  // Reads the intent record again; the files it named and names now are touched.
  void readRecord(Batch& batch);
  // Applies `batch` to the working index, noting what changed; throws what a scan throws.
  void apply(const Batch& batch, StoreChanges& changes);
  CertificateIndex scanEverything();
  void scan(std::size_t location, CertificateIndex* index);
  void examine(const Touched& touched, int directoryFd);
  // Whether the key of certificate file `certName` of `location` is there for
  // the scan: as the record will leave it when the record names it, else none.
  std::optional<bool> heldKey(std::size_t location, std::string_view certName) const;
  // Reads the certificate file `fileName` of `location` that the record holds
  // from where its content lies now; true when it entered, with `id`.
  bool examineHeld(std::size_t location, const std::string& fileName,
                   const std::vector<std::string>& places, std::string& id);
  // For each identifier, the file that gives it in a fresh scan: the last
  // location's, and within it the listing's last. `onlyTouched`: the files
  // just read are all that can give them.
  std::map<std::string, std::pair<std::size_t, std::string>> winners(
      const std::set<std::string>& ids, bool onlyTouched, const Batch& batch);
  std::shared_ptr<const CertFileCache> snapshot();

  CertificateStore& store_;
  boost::shared_ptr<CertificateFilter> filter_;
  const bool withPrivateKeys_;
  std::string root_;
  int rootWatch_ = -1;
  std::vector<Location> locations_;
  std::multimap<int, std::size_t> watches_;  // watch -> locations it serves
  FileDescriptor notify_;
  FileDescriptor stop_;
  // The scan's rules are the cache's: an empty cache of the same kind reads the files.
  std::unique_ptr<CertFileCache> reader_;
  std::shared_ptr<const CertFileCache> published_;
  std::shared_ptr<const CertificateChain> authorities_;
  std::shared_ptr<const RevocationLists> lists_;
  // The cache directory is the authorities' own: its changes are theirs too.
  bool ownAuthorities_ = false;
  // Key files created and not yet closed: the close that ends their creation
  // completes a pair written file by file, it replaces no key.
  std::set<std::pair<std::size_t, std::string>> keysBeingCreated_;
  CertificateIndex working_;  // the next index; shares all it did not change with published_
  Held held_;
  std::shared_ptr<const CertFileCache::Redirects> redirects_;  // held_ for lookups
  bool failed_ = false;  // the last scan threw: scan everything on the next change
  // Identifiers that more than one file may give. Any other is given by one
  // file at most, so a change of files that gave or give it decides it alone,
  // without a look at every file of the store.
  std::set<std::string> shared_;
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
      root_(store.getRoot()),
      notify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      reader_(new CertFileCache(store, filter_, withPrivateKeys, CertificateIndex())) {
  for (const std::string& location : locations) {
    locations_.emplace_back();
    locations_.back().location = location;
    locations_.back().directory = cacheDirectory(location, subdirectory.c_str()).string();
    locations_.back().authorities = cacheDirectory(location, kAuthorities).string();
    locations_.back().lists = cacheDirectory(location, kRevocationSubdirectory).string();
  }
  ownAuthorities_ = subdirectory == kAuthorities;
  if (!stop_.isOpen()) throwError("eventfd", std::string(), errno);
  if (!notify_.isOpen()) {
    TAVIK_LOG_WARNING(logHandle) << "No change notification (" << std::to_string(errno)
                                 << "): scanning the store once a second";
  }
}

StoreMoment CertStoreWatcher::Follower::start() {
  // Watches first, so that no change made during the scan goes unseen.
  watch(kRoot);
  for (std::size_t i = 0; i < locations_.size(); ++i) watch(i);
  Batch ignored;
  readRecord(ignored);
  try {
    working_ = scanEverything();
  } catch (const boost::filesystem::filesystem_error& error) {
    TAVIK_LOG_ERROR(logHandle) << "Scanning the store failed, starting empty: " << error.what();
    failed_ = true;
    working_ = CertificateIndex();
  }
  Batch everything;
  everything.everything = true;
  refreshBeside(everything);
  published_ = snapshot();
  return {published_, authorities_, lists_, 1};
}

void CertStoreWatcher::Follower::watch(std::size_t i) {
  if (!notify_.isOpen()) return;
  if (i == kRoot) {
    // The same mask as a location's: a root that is a location shares its watch.
    rootWatch_ = ::inotify_add_watch(notify_.get(), root_.c_str(), kLocationEvents);
    if (rootWatch_ >= 0) watches_.emplace(rootWatch_, kRoot);
    return;
  }
  Location& location = locations_[i];
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
  if (!ownAuthorities_) watchBeside(i, location.authorities, location.authoritiesWatch);
  watchBeside(i, location.lists, location.listsWatch);
}

bool CertStoreWatcher::Follower::watchBeside(std::size_t i, const std::string& directory,
                                             int& watch) {
  if (watch >= 0) return false;
  watch = ::inotify_add_watch(notify_.get(), directory.c_str(), kDirectoryEvents);
  if (watch >= 0) watches_.emplace(watch, i);
  return watch >= 0;
}

bool CertStoreWatcher::Follower::onBesideEvent(const inotify_event& event, const std::string& name,
                                               std::size_t i, Batch& batch) {
  Location& location = locations_[i];
  const bool ofLocation = event.wd == location.locationWatch;
  for (const auto& [subdirectory, watch, touched] :
       {std::make_tuple(kAuthorities, &location.authoritiesWatch, &batch.authorities),
        std::make_tuple(kRevocationSubdirectory, &location.listsWatch, &batch.lists)}) {
    if (ofLocation ? name != subdirectory || name == filter_->subdirectory() : event.wd != *watch) {
      continue;
    }
    *touched = true;
    // The directory itself went, came or was replaced: it is watched anew.
    if (ofLocation || (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
      if (*watch >= 0 && (event.mask & IN_IGNORED) == 0) ::inotify_rm_watch(notify_.get(), *watch);
      if (*watch >= 0) watches_.erase(*watch);
      *watch = -1;
    }
    return !ofLocation;
  }
  return false;
}

bool CertStoreWatcher::Follower::refreshBeside(const Batch& batch) {
  const bool authorities = batch.authorities || batch.everything || !authorities_;
  const bool lists = authorities || batch.lists;
  std::shared_ptr<const CertificateChain> newAuthorities = authorities_;
  if (authorities) newAuthorities = std::make_shared<const CertificateChain>(store_);
  if (!lists) return false;
  auto newLists = std::make_shared<const RevocationLists>(store_, *newAuthorities);
  const auto ders = [](const std::vector<std::shared_ptr<Certificate>>& certificates) {
    std::vector<std::string> all;
    for (const auto& certificate : certificates) all.push_back(certificate->der());
    return all;
  };
  const auto kept = [](const RevocationLists& index) {
    std::vector<std::string> all;
    for (const KeptRevocationList& list : index.lists())
      all.push_back(list.file + list.list->der());
    return all;
  };
  // What did not change is not published again: polling looks every second.
  const bool same = authorities_ && lists_ &&
                    ders(authorities_->authorities()) == ders(newAuthorities->authorities()) &&
                    kept(*lists_) == kept(*newLists);
  if (same) return false;
  authorities_ = std::move(newAuthorities);
  lists_ = std::move(newLists);
  return true;
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
    if (batch.record || batch.everything) readRecord(batch);
    // A watcher of the authorities' own directory: its changes are theirs too.
    batch.authorities =
        batch.authorities || (ownAuthorities_ && (!batch.touched.empty() || !batch.relist.empty()));
    // A failed scan is tried again on the next change, not on every tick.
    if (batch.touched.empty() && batch.relist.empty() && !batch.everything && !batch.authorities &&
        !batch.lists) {
      continue;
    }
    StoreChanges changes;
    try {
      apply(batch, changes);
      failed_ = false;
      const bool beside = refreshBeside(batch);
      if (changes.added.empty() && changes.removed.empty() && changes.changed.empty() &&
          !batch.record && !beside) {
        continue;
      }
      published_ = snapshot();
      watcher.publish({published_, authorities_, lists_, 0}, changes, beside);
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
    if (i == kRoot) {
      if ((event.mask & IN_IGNORED) != 0) rootWatch_ = -1;
      batch.record = batch.record || name == kIntentRecordName || (event.mask & IN_IGNORED) != 0;
      continue;
    }
    Location& location = locations_[i];
    if (onBesideEvent(event, name, i, batch)) continue;
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
    // What the record holds changes when the record does, not when its files move.
    const bool held = held_.count({i, name}) != 0;
    bool rewritten = (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE)) != 0 && !held;
    if (CertFileCache::certExtensionAt(name) == std::string::npos) {
      // A key is replaced when one is moved or written over it; the close that
      // ends a key's creation completes a pair, which the certificate's events tell.
      const bool created = (event.mask & IN_CREATE) != 0;
      if (created) keysBeingCreated_.emplace(i, name);
      const bool creationEnds =
          (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM)) != 0 &&
          keysBeingCreated_.erase({i, name}) != 0;
      rewritten = withPrivateKeys_ && !held && !created && !creationEnds &&
                  (event.mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) != 0;
    }
    touchCertificates(i, name, rewritten, batch);
  }
}

void CertStoreWatcher::Follower::touchCertificates(std::size_t i, const std::string& name,
                                                   bool rewritten, Batch& batch) const {
  if (CertFileCache::certExtensionAt(name) != std::string::npos) {
    batch.touched.push_back({i, name, rewritten});
    return;
  }
  // A key decides whether the certificates of its base name enter: every
  // letter case of ".crt" pairs with the one ".key".
  const std::size_t length = name.size() - 4;
  if (name.size() <= 4 || name.compare(length, 4, kKeyExtension) != 0) return;
  for (int variant = 0; variant < 8; ++variant) {
    std::string certName = name.substr(0, length) + ".crt";
    for (int letter = 0; letter < 3; ++letter) {
      if ((variant & (1 << letter)) != 0) certName[length + 1 + letter] -= 'a' - 'A';
    }
    batch.touched.push_back({i, certName, rewritten});
  }
}

void CertStoreWatcher::Follower::retryWatches(Batch& batch) {
  if (notify_.isOpen() && rootWatch_ < 0) {
    watch(kRoot);
    batch.record = batch.record || rootWatch_ >= 0;
  }
  for (std::size_t i = 0; i < locations_.size(); ++i) {
    Location& location = locations_[i];
    const bool hadDirectory = location.directoryWatch >= 0;
    const bool hadAuthorities = location.authoritiesWatch >= 0, hadLists = location.listsWatch >= 0;
    watch(i);
    if (!hadDirectory && location.directoryWatch >= 0) batch.relist.insert(i);
    batch.authorities = batch.authorities || (!hadAuthorities && location.authoritiesWatch >= 0);
    batch.lists = batch.lists || (!hadLists && location.listsWatch >= 0);
  }
}

void CertStoreWatcher::Follower::readRecord(Batch& batch) {
  std::vector<IntentStep> steps;
  const IntentRead read = readIntentRecord(root_, steps);
  if (read == IntentRead::kDamaged) {
    TAVIK_LOG_ERROR(logHandle) << "The intent record in " << root_
                               << " is damaged: its files are read as they are";
  }
  Held held;
  const auto hold = [&](const std::string& path, std::vector<std::string> places) {
    const boost::filesystem::path file(path);
    for (std::size_t i = 0; i < locations_.size(); ++i) {
      if (sameDirectory(file.parent_path().string(), locations_[i].directory)) {
        held[{i, file.filename().string()}] = places;
      }
    }
  };
  // A file the record renames away or removes is gone, unless a later step
  // renames another onto it; a rename's target is where its source is until
  // the rename is made.
  for (const IntentStep& step : steps) hold(step.from, {});
  for (const IntentStep& step : steps) {
    if (step.rename) hold(step.to, {step.from, step.to});
  }
  if (held == held_) return;
  // The files it held and holds now are read again, each as what holds it says.
  for (const Held* named : {&held_, &held}) {
    for (const auto& entry : *named) {
      const bool fresh = named == &held && held_.count(entry.first) == 0;
      touchCertificates(entry.first.first, entry.first.second, fresh, batch);
    }
  }
  held_ = std::move(held);
  auto redirects = std::make_shared<CertFileCache::Redirects>();
  for (const auto& [file, places] : held_) {
    (*redirects)[(boost::filesystem::path(locations_[file.first].directory) / file.second)
                     .string()] = places;
  }
  if (redirects->empty()) redirects.reset();
  redirects_ = std::move(redirects);
  batch.record = true;
}

void CertStoreWatcher::Follower::apply(const Batch& batch, StoreChanges& changes) {
  const CertFileCache& before = *published_;
  if (batch.everything || failed_) {
    working_ = scanEverything();
    before.index_.forEach([&](const std::string& id, const std::string& base) {
      const std::string* now = working_.find(id);
      if (now == nullptr) changes.removed.push_back(id);
      if (now != nullptr && *now != base) changes.changed.push_back(id);
    });
    working_.forEach([&](const std::string& id, const std::string&) {
      if (before.index_.find(id) == nullptr) changes.added.push_back(id);
    });
    return;
  }

  // Every identifier that a changed file gave before or gives now.
  std::set<std::string> ids;
  const auto note = [&ids](std::string_view, std::string_view id) { ids.emplace(id); };
  for (const std::size_t i : batch.relist) {
    locations_[i].files.forEach(note);
    scan(i, nullptr);
    locations_[i].files.forEach(note);
  }
  std::map<std::size_t, FileDescriptor> directories;
  for (const Touched& touched : batch.touched) {
    Location& location = locations_[touched.location];
    const auto known = location.files.find(touched.fileName);
    const std::string was = known ? std::string(*known) : std::string();
    if (known) ids.insert(was);
    auto open = directories.find(touched.location);
    if (open == directories.end()) {
      open = directories
                 .emplace(touched.location,
                          ::open(location.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
                 .first;
    }
    examine(touched, open->second.get());
    const auto now = location.files.find(touched.fileName);
    if (!now) continue;
    ids.emplace(*now);
    // A file that begins to give an identifier another file gives already.
    if (*now != was && before.index_.find(std::string(*now)) != nullptr) shared_.emplace(*now);
  }

  bool onlyTouched = batch.relist.empty();
  for (const std::string& id : ids) onlyTouched = onlyTouched && shared_.count(id) == 0;
  const auto winner = winners(ids, onlyTouched, batch);

  for (const std::string& id : ids) {
    const std::string* was = before.index_.find(id);
    const auto is = winner.find(id);
    if (is == winner.end()) {
      if (was != nullptr) changes.removed.push_back(id);
      working_.erase(id);
      continue;
    }
    const std::string base = stem(is->second.second);
    working_.set(id, base);
    if (was == nullptr) {
      changes.added.push_back(id);
      continue;
    }
    bool rewritten = *was != base;
    for (const Touched& touched : batch.touched) {
      rewritten = rewritten || (touched.rewritten && touched.location == is->second.first &&
                                touched.fileName == is->second.second);
    }
    if (rewritten) changes.changed.push_back(id);
  }
}

std::map<std::string, std::pair<std::size_t, std::string>> CertStoreWatcher::Follower::winners(
    const std::set<std::string>& ids, bool onlyTouched, const Batch& batch) {
  // Candidates by identifier, by location.
  std::map<std::string, std::map<std::size_t, std::set<std::string>>> found;
  const auto consider = [&](std::size_t i, const std::string& fileName, const std::string& id) {
    if (ids.count(id) != 0) found[id][i].insert(fileName);
  };
  if (onlyTouched) {
    for (const Touched& touched : batch.touched) {
      const auto id = locations_[touched.location].files.find(touched.fileName);
      if (id) consider(touched.location, touched.fileName, std::string(*id));
    }
  } else {
    for (std::size_t i = 0; i < locations_.size(); ++i) {
      locations_[i].files.forEach([&](std::string_view name, std::string_view id) {
        consider(i, std::string(name), std::string(id));
      });
    }
  }
  std::map<std::string, std::pair<std::size_t, std::string>> chosen;
  for (const auto& [id, byLocation] : found) {
    std::size_t files = 0;
    for (const auto& entry : byLocation) files += entry.second.size();
    if (files > 1) shared_.insert(id);
    if (files == 1 && !onlyTouched) shared_.erase(id);
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

CertificateIndex CertStoreWatcher::Follower::scanEverything() {
  shared_.clear();
  CertificateIndex index;
  for (std::size_t i = 0; i < locations_.size(); ++i) scan(i, &index);
  return index;
}

void CertStoreWatcher::Follower::scan(std::size_t i, CertificateIndex* index) {
  Location& location = locations_[i];
  location.files.clear();
  const DirectoryListing listing(location.directory);
  std::string id;
  for (std::size_t at = 0; listing.isOpen() && at < listing.size(); ++at) {
    if (!listing.isRegularFile(at)) continue;
    const std::string_view name = listing.name(at);
    if (CertFileCache::certExtensionAt(name) == std::string_view::npos) continue;
    if (!held_.empty() && held_.count({i, std::string(name)}) != 0) continue;
    if (reader_->examineFile(location.directory, listing.fd(), name, &listing, buffer_, id,
                             heldKey(i, name)) != CertFileCache::Entry::kEntered) {
      continue;
    }
    location.files.set(name, id);
    if (index != nullptr && !index->set(id, stem(name))) shared_.insert(id);
  }
  listing.throwIfIncomplete();
  // What the record holds in this directory, where it lies now.
  for (const auto& [file, places] : held_) {
    if (file.first != i || CertFileCache::certExtensionAt(file.second) == std::string::npos ||
        !examineHeld(i, file.second, places, id)) {
      continue;
    }
    location.files.set(file.second, id);
    if (index != nullptr && !index->set(id, stem(file.second))) shared_.insert(id);
  }
}

std::optional<bool> CertStoreWatcher::Follower::heldKey(std::size_t i,
                                                        std::string_view certName) const {
  if (held_.empty()) return std::nullopt;
  const auto held = held_.find({i, stem(certName) + kKeyExtension});
  if (held == held_.end()) return std::nullopt;
  return std::any_of(held->second.begin(), held->second.end(), exists);
}

bool CertStoreWatcher::Follower::examineHeld(std::size_t i, const std::string& fileName,
                                             const std::vector<std::string>& places,
                                             std::string& id) {
  const auto place = std::find_if(places.begin(), places.end(), exists);
  if (place == places.end()) return false;
  const boost::filesystem::path path(*place);
  const std::string directory = path.parent_path().string();
  const FileDescriptor directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directoryFd.isOpen()) return false;
  // The key beside the certificate is the one the record leaves beside it.
  const std::string keyName = stem(fileName) + kKeyExtension;
  const auto key = held_.find({i, keyName});
  const bool keyPresent = key != held_.end()
                              ? std::any_of(key->second.begin(), key->second.end(), exists)
                              : exists(locations_[i].directory + "/" + keyName);
  return reader_->examineFile(directory, directoryFd.get(), path.filename().string(), nullptr,
                              buffer_, id, keyPresent) == CertFileCache::Entry::kEntered;
}

void CertStoreWatcher::Follower::examine(const Touched& touched, int directoryFd) {
  const std::string& fileName = touched.fileName;
  Location& location = locations_[touched.location];
  const auto known = location.files.find(fileName);
  const std::string was = known ? std::string(*known) : std::string();
  if (known) location.files.erase(fileName);
  std::string id;
  const auto held = held_.find({touched.location, fileName});
  if (held != held_.end()) {
    if (examineHeld(touched.location, fileName, held->second, id)) location.files.set(fileName, id);
    return;
  }
  struct stat info {};
  if (directoryFd < 0 || ::fstatat(directoryFd, fileName.c_str(), &info, 0) != 0) {
    // As the listing's type test: an absent file or target is no file, any other failure an error.
    if (directoryFd >= 0 && errno != ENOENT && errno != ENOTDIR) {
      throwError("boost::filesystem::status", location.directory + "/" + fileName, errno);
    }
    return;
  }
  if (!S_ISREG(info.st_mode)) return;
  const CertFileCache::Entry entry =
      reader_->examineFile(location.directory, directoryFd, fileName, nullptr, buffer_, id,
                           heldKey(touched.location, fileName));
  if (entry == CertFileCache::Entry::kEntered) location.files.set(fileName, id);
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  if (entry == CertFileCache::Entry::kUnreadable && !was.empty() &&
      info.st_mtim.tv_sec + kSettleSeconds >= now.tv_sec) {
    location.files.set(fileName, was);
    unsettled_.push_back(touched);
  }
}

std::shared_ptr<const CertFileCache> CertStoreWatcher::Follower::snapshot() {
  return std::shared_ptr<const CertFileCache>(
      new CertFileCache(store_, filter_, withPrivateKeys_, working_.share(), redirects_));
}

CertStoreWatcher::CertStoreWatcher(CertificateStore& store,
                                   boost::shared_ptr<CertificateFilter> filter,
                                   bool withPrivateKeys) {
  store.getBaseLocations(locations_);
  subdirectory_ = filter->subdirectory();
  follower_ = std::make_unique<Follower>(store, filter, withPrivateKeys, locations_, subdirectory_);
  current_ = follower_->start();
  thread_ = std::thread([this] { follower_->run(*this); });
}

CertStoreWatcher::~CertStoreWatcher() {
  follower_->stop();
  thread_.join();
}

std::shared_ptr<const CertFileCache> CertStoreWatcher::current() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return current_.index;
}

StoreMoment CertStoreWatcher::moment() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return current_;
}

std::uint64_t CertStoreWatcher::generation() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return current_.generation;
}

bool CertStoreWatcher::waitForNewer(std::uint64_t generation,
                                    std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return published_.wait_for(lock, timeout, [&] { return current_.generation > generation; });
}

void CertStoreWatcher::setListener(std::function<void(const StoreChanges&)> listener) {
  const std::lock_guard<std::mutex> lock(mutex_);
  listener_ = std::move(listener);
}

void CertStoreWatcher::publish(StoreMoment moment, const StoreChanges& changes, bool sides) {
  std::function<void(const StoreChanges&)> listener;
  const bool changed =
      sides || !changes.added.empty() || !changes.removed.empty() || !changes.changed.empty();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    moment.generation = current_.generation + (changed ? 1 : 0);
    current_ = std::move(moment);
    // The same index read through other places: no new generation.
    if (!changed) return;
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
  StoreMoment moment;
  return find(id, password, errorCode, moment);
}

ChainedCredential CertStoreWatcher::getCredential(const std::string& id,
                                                  const std::string& password,
                                                  int& errorCode) const {
  StoreMoment moment;
  ChainedCredential credential;
  credential.certificate = find(id, password, errorCode, moment);
  if (!credential.certificate) return credential;
  const std::vector<std::shared_ptr<Certificate>> path =
      moment.authorities->build(credential.certificate);
  credential.complete = CertificateChain::isComplete(path);
  credential.authorities.assign(path.begin() + 1, path.end());
  return credential;
}

std::shared_ptr<Certificate> CertStoreWatcher::find(const std::string& id,
                                                    const std::string& password, int& errorCode,
                                                    StoreMoment& moment) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kSettleSeconds);
  // Short pauses: a writer that rewrites the pair again and again leaves it whole
  // for moments only, and each look is a chance to meet one.
  const std::chrono::milliseconds longestPause(5);
  for (std::chrono::milliseconds pause(1);; pause = std::min(2 * pause, longestPause)) {
    moment = this->moment();
    const CertFileCache& index = *moment.index;
    std::shared_ptr<Certificate> found = index.getCertificate(id, password, errorCode, true);
    if (found || !caughtBetweenWrites(index, id, errorCode) ||
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
