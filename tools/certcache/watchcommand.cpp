#include "watchcommand.h"

#include <signal.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <string>

#include "crypto/certstorewatcher.h"
#include "storesession.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

// The lines of a watch, written by the watcher's thread as it publishes and,
// for --initial, by the command's own thread before that.
class ChangePrinter {
 public:
  ChangePrinter(std::ostream& out, bool json) : out_(out), json_(json) {}

  // The store as it stands: with `announce`, an "added" line for each entry.
  void begin(std::shared_ptr<const CertFileCache> index, bool announce) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> ids;
    index->listIds(ids);
    for (const std::string& id : ids) {
      if (announce) print("added", id, index->getFileBaseName(id));
      known_.insert(id);
    }
    previous_ = std::move(index);
  }

  // One publication: `index` is the watcher's index after it.
  void publish(const StoreChanges& changes, std::shared_ptr<const CertFileCache> index) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!previous_) return;  // begin() has not seen the store yet; it will print its state
    for (const std::string& id : changes.removed) {
      if (known_.erase(id) != 0) print("removed", id, previous_->getFileBaseName(id));
    }
    for (const std::string& id : changes.added) {
      if (known_.insert(id).second) print("added", id, index->getFileBaseName(id));
    }
    for (const std::string& id : changes.changed) {
      print("changed", id, index->getFileBaseName(id));
    }
    previous_ = std::move(index);
  }

 private:
  void print(const char* event, const std::string& id, const std::string& baseName) {
    if (json_) {
      out_ << nlohmann::ordered_json{{"event", event}, {"id", id}, {"base_name", baseName}}.dump()
           << '\n';
    } else {
      out_ << event << '\t' << id << '\t' << baseName << '\n';
    }
    out_.flush();  // a reader of a pipe sees each change when it happens
  }

  std::ostream& out_;
  const bool json_;
  std::mutex mutex_;
  std::set<std::string> known_;  // so that a change seen by both threads is printed once
  std::shared_ptr<const CertFileCache> previous_;
};

}  // namespace

int watchCommand(const Invocation& invocation, std::ostream& out) {
  // The signals are taken by this thread alone, so they are blocked before
  // the watcher's thread starts and inherits the mask.
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGINT);
  sigaddset(&stopping, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopping, nullptr);

  StoreSession session(invocation.store, StoreAccess::kWatch);
  ChangePrinter printer(out, invocation.json);
  CertStoreWatcher watcher(session.store(), session.sharedFilter(), session.withKeys());
  watcher.setListener([&printer, &watcher](const StoreChanges& changes) {
    printer.publish(changes, watcher.current());
  });
  printer.begin(watcher.current(), invocation.initial);

  timespec limit{invocation.timeoutSeconds, 0};
  int signal = -1;
  do {
    signal = invocation.timeoutSeconds > 0 ? sigtimedwait(&stopping, nullptr, &limit)
                                           : sigwaitinfo(&stopping, nullptr);
  } while (signal < 0 && errno == EINTR);
  if (signal < 0 && errno != EAGAIN) {
    throw ToolError(kExitIoError, std::string("cannot wait for a signal: ") + std::strerror(errno));
  }
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
