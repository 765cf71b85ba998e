// A cache built over a store whose file names, kinds and contents come from the
// input, then every lookup on what it found. Loading must never crash, hang on
// a special file or leak, and the index must only name what is on disk.
//
// Input: flags (1 byte: bit 0 a key-holding cache, bit 1 the authority filter,
// bit 2 a second base location, bit 3 the load flag of lookups), a password
// (1 length byte), then entries until the input ends: kind (1 byte), name (1
// length byte), content (2 length bytes, little-endian). The kind's low two
// bits choose a regular file, a directory, a symbolic link to the entry named
// by the content, or a FIFO; bit 2 puts the entry in the second location, bit
// 3 in the location itself instead of its cache directory.
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/make_shared.hpp>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "base/stringutil.h"
#include "crypto/certificatefilecache.h"
#include "fuzzsupport.h"

namespace tavik {
namespace fuzz {
namespace {

namespace fs = boost::filesystem;

enum Flags : std::uint8_t { kWithKeys = 1, kAuthority = 2, kSecondLocation = 4, kLoadFlag = 8 };
enum EntryKind : std::uint8_t { kFile = 0, kDirectory = 1, kLink = 2, kFifo = 3 };
enum EntryPlace : std::uint8_t { kInSecond = 4, kInLocation = 8 };

// A name that stays one entry of the directory it is made in.
bool usableName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

struct Store {
  std::vector<std::string> locations;
  // The names made in each location's cache directory.
  std::vector<std::set<std::string>> names;
};

void makeEntry(const std::string& directory, std::uint8_t kind, const std::string& name,
               const std::string& content) {
  boost::system::error_code error;
  fs::create_directories(directory, error);
  const std::string path = directory + "/" + name;
  switch (kind & 3) {
    case kFile: {
      // The input may have put a file where this entry's directory should
      // be; then the entry is not made.
      std::ofstream out(path, std::ios::binary | std::ios::trunc);
      out.write(content.data(), static_cast<std::streamsize>(content.size()));
      break;
    }
    case kDirectory:
      fs::create_directory(path, error);
      break;
    case kLink:
      if (usableName(content)) fs::create_symlink(content, path, error);
      break;
    case kFifo:
      ::mkfifo(path.c_str(), 0600);
      break;
  }
}

Store buildStore(InputReader& input, std::uint8_t flags, const char* subdirectory) {
  const std::string top = scratchDirectory() + "/store";
  boost::system::error_code error;
  fs::remove_all(top, error);
  Store store;
  store.locations.push_back(top + "/first");
  if ((flags & kSecondLocation) != 0) store.locations.push_back(top + "/second");
  store.names.resize(store.locations.size());
  for (const std::string& location : store.locations) fs::create_directories(location);

  while (!input.empty()) {
    const std::uint8_t kind = input.byte();
    const std::string name = input.shortString();
    const std::string content = input.longString();
    if (!usableName(name)) continue;
    const std::size_t which = (kind & kInSecond) != 0 && store.locations.size() > 1 ? 1 : 0;
    if ((kind & kInLocation) != 0) {
      makeEntry(store.locations[which], kind, name, content);
    } else {
      makeEntry(store.locations[which] + "/" + subdirectory, kind, name, content);
      store.names[which].insert(name);
    }
  }
  return store;
}

// Some location's cache directory holds a name that is `base` and an extension
// of any letter case equal to ".crt".
bool certificateFileWasMade(const Store& store, const std::string& base) {
  for (const std::set<std::string>& names : store.names) {
    for (const std::string& name : names) {
      if (name.size() == base.size() + 4 && name.compare(0, base.size(), base) == 0 &&
          to_lowercase(name.substr(base.size())) == ".crt") {
        return true;
      }
    }
  }
  return false;
}

// `lowest` is the lowest failure code the lookup may give: getCertificateOnly
// turns an identifier into file-name form, which the index need not hold.
void checkLookup(const std::shared_ptr<Certificate>& certificate, int errorCode, int lowest,
                 bool withKeys, bool loadFlag) {
  if (!certificate) {
    check(errorCode >= lowest && errorCode <= CertFileCache::kKeyMissing,
          "a failed lookup has an unexpected error code");
    return;
  }
  check(errorCode == CertFileCache::kFound || (errorCode >= CertFileCache::kCertUnreadable &&
                                               errorCode <= CertFileCache::kKeyMissing),
        "a successful lookup has an unexpected error code");
  if (withKeys) {
    check(certificate->getPrivateKey() != nullptr, "a key-holding lookup gave no key");
    check(certificate->getX509() != nullptr, "a certificate with key has no X509");
  } else if (loadFlag) {
    check(certificate->getX509() != nullptr, "a whole read has no X509");
  }
}

void examine(CertFileCache& cache, const Store& store, bool withKeys, bool loadFlag,
             const std::string& password) {
  std::vector<std::string> ids;
  check(cache.listIds(ids) == ids.size(), "listIds counts wrong");
  for (std::size_t i = 1; i < ids.size(); ++i) check(ids[i - 1] < ids[i], "ids out of order");

  for (const std::string& id : ids) {
    const std::string base = cache.getFileBaseName(id);
    check(certificateFileWasMade(store, base), "the index names a file that was not made");
    if (!withKeys) check(id == base, "a certificate-only cache keys by base name");

    int errorCode = -1;
    checkLookup(cache.getCertificate(id, password, errorCode, loadFlag), errorCode,
                CertFileCache::kNoLocationHasIt, withKeys, loadFlag);
    checkLookup(cache.getCertificateOnly(id, errorCode, loadFlag), errorCode,
                CertFileCache::kNotInIndex, withKeys, loadFlag);
    std::string keyFile;
    std::string certFile;
    try {
      const int result = cache.getFileInfo(base, keyFile, certFile);
      check(result == CertFileCache::kDone || result == CertFileCache::kNoCertFile ||
                result == CertFileCache::kNoKeyFile,
            "getFileInfo has an unexpected result");
    } catch (const fs::filesystem_error&) {
      // A link loop or the like: passed on to the caller by design.
    }
  }
  int errorCode = -1;
  const std::string absent(1, '\x01');
  if (cache.getFileBaseName(absent).empty()) {
    check(cache.getCertificate(absent, password, errorCode, loadFlag) == nullptr &&
              errorCode == CertFileCache::kNotInIndex,
          "an absent identifier is not reported as such");
  }

  // Loading again only adds and replaces.
  cache.load();
  std::vector<std::string> again;
  cache.listIds(again);
  std::set<std::string> after(again.begin(), again.end());
  for (const std::string& id : ids) check(after.count(id) == 1, "a second load lost an entry");
}

void fuzzOne(InputReader& input) {
  const std::uint8_t flags = input.byte();
  const std::string password = input.shortString();
  boost::shared_ptr<CertificateFilter> filter;
  if ((flags & kAuthority) != 0) {
    filter = boost::make_shared<AuthorityCertificateFilter>();
  } else {
    filter = boost::make_shared<UserCertificateFilter>();
  }
  const Store store = buildStore(input, flags, filter->subdirectory());
  CertificateStore certificateStore(store.locations.front(), store.locations);
  const bool withKeys = (flags & kWithKeys) != 0;
  try {
    CertFileCache cache(certificateStore, filter, withKeys);
    examine(cache, store, withKeys, (flags & kLoadFlag) != 0, password);
  } catch (const fs::filesystem_error&) {
    // An entry whose type cannot be read (a link loop) ends the scan by design.
  }
}

}  // namespace
}  // namespace fuzz
}  // namespace tavik

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool initialised = (tavik::fuzz::enableAllLogging(), true);
  (void)initialised;
  tavik::fuzz::InputReader input(data, size);
  tavik::fuzz::fuzzOne(input);
  return 0;
}
