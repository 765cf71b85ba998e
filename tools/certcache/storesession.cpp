#include "storesession.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <boost/make_shared.hpp>
#include <cstdlib>

#include "base/filename.h"
#include "storecommit.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace fs = boost::filesystem;

namespace {

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// Refuses a root that is there but is not a directory: a cache over it would
// find nothing and every write would fail with a less helpful message.
void checkRoot(const std::string& root) {
  boost::system::error_code error;
  const fs::file_status status = fs::status(root, error);
  if (fs::exists(status) && !fs::is_directory(status)) {
    throw ToolError(kExitIoError, "the store root " + root + " is not a directory");
  }
}

// Only commands that create may find nothing where the store should be.
void checkExists(const std::string& directory, const char* what) {
  boost::system::error_code error;
  if (!fs::exists(fs::status(directory, error))) {
    throw ToolError(kExitNoInput, std::string(what) + " " + directory + " does not exist");
  }
}

void makeDirectory(const fs::path& directory) {
  boost::system::error_code error;
  fs::create_directories(directory, error);
  if (error) {
    throw ToolError(kExitIoError,
                    "cannot make the directory " + directory.string() + ": " + error.message());
  }
}

}  // namespace

std::string defaultStoreRoot() {
  std::string store = variable("CERTCACHE_STORE");
  if (!store.empty()) return store;
  std::string data = variable("XDG_DATA_HOME");
  if (data.empty()) {
    const std::string home = variable("HOME");
    if (home.empty()) {
      throw ToolError(kExitUsage,
                      "no store given: use --store, or set CERTCACHE_STORE, XDG_DATA_HOME or HOME");
    }
    data = home + "/.local/share";
  }
  return data + "/certcache";
}

StoreSession::StoreSession(const StoreOptions& options, StoreAccess access)
    : withKeys_(options.withKeys) {
  const std::string root = options.root.empty() ? defaultStoreRoot() : options.root;
  std::vector<std::string> locations = options.locations;
  if (locations.empty()) locations.push_back(root);

  if (options.authorities) {
    filter_ = boost::make_shared<AuthorityCertificateFilter>();
  } else {
    filter_ = boost::make_shared<UserCertificateFilter>();
  }
  checkRoot(root);
  if (access == StoreAccess::kCreate || access == StoreAccess::kPrepare) {
    makeDirectory(cacheDirectory(root, filter_->subdirectory()));
  } else {
    checkExists(root, "the store root");
    for (const std::string& location : options.locations) checkExists(location, "the location");
  }
  store_ = std::make_unique<CertificateStore>(root, std::move(locations));
  if (access != StoreAccess::kWatch && access != StoreAccess::kPrepare) lockAndScan(access);
}

void StoreSession::change() { lockAndScan(StoreAccess::kChange); }

void StoreSession::release() {
  cache_.reset();
  lock_.reset();
}

void StoreSession::lockAndScan(StoreAccess access) {
  const std::string& root = store_->getRoot();
  const bool reading = access == StoreAccess::kRead || access == StoreAccess::kInspect;
  cache_.reset();
  lock_.reset();
  lock_ = std::make_unique<StoreLock>(
      root, reading ? StoreLock::Mode::kShared : StoreLock::Mode::kExclusive);
  if (!reading) {
    StoreCommit::recover(root);
  } else if (access == StoreAccess::kRead && !StoreCommit::leftovers(root).empty()) {
    completeForReading(root);
  }
  cache_ = std::make_unique<CertFileCache>(*store_, filter_, withKeys_);
}

// A reader that finds a change a dead run left completes it under the
// exclusive lock, then reads under the shared one again.
void StoreSession::completeForReading(const std::string& root) {
  lock_.reset();
  try {
    StoreLock exclusive(root, StoreLock::Mode::kExclusive);
    StoreCommit::recover(root);
  } catch (const ToolError& error) {
    throw ToolError(kExitIoError, "a change that an earlier run left unfinished waits in " + root +
                                      " and cannot be completed by this one (" + error.what() +
                                      "); run certcache recover as the store's owner");
  }
  lock_ = std::make_unique<StoreLock>(root, StoreLock::Mode::kShared);
}

std::string StoreSession::directory() const {
  return cacheDirectory(store_->getRoot(), filter_->subdirectory()).string();
}

std::vector<std::string> StoreSession::directories() const {
  std::vector<std::string> locations;
  store_->getBaseLocations(locations);
  std::vector<std::string> directories;
  for (const std::string& location : locations) {
    const std::string directory = cacheDirectory(location, filter_->subdirectory()).string();
    if (std::find(directories.begin(), directories.end(), directory) == directories.end()) {
      directories.push_back(directory);
    }
  }
  return directories;
}

}  // namespace cli
}  // namespace tavik
