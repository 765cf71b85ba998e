// The statements of this file name it by the path under which it registers.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certificatefilecache.cpp"

#include "crypto/certificatefilecache.h"

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <utility>

#include "base/configurationinit.h"
#include "base/stringutil.h"
#include "log/log.h"

namespace tavik {

namespace fs = boost::filesystem;

namespace {

// Start-up order: the handle, then the library's initialisation, then the
// registration that gives the handle its levels.
LogHandle logHandle(nullptr, 0, 2);
ConfigurationInit configurationInit;
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

constexpr char kCertExtension[] = ".crt";
constexpr char kKeyExtension[] = ".key";

// Anything at all exists at `path`; a status that cannot be read counts as nothing.
bool entryExists(const fs::path& path, boost::system::error_code& error) {
  return fs::exists(fs::status(path, error));
}

// The file base name of a credential: the encoded subject when there is one,
// otherwise the encoded e-mail address with every "@" written as "_at_".
std::string subjectToFilename(const std::string& subject, const std::string& email) {
  if (!subject.empty()) return encodeFilename(subject);
  return encodeFilename(boost::algorithm::replace_all_copy(email, "@", "_at_"));
}

}  // namespace

CertFileCache::CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                             bool withPrivateKeys)
    : store_(store), filter_(std::move(filter)), withPrivateKeys_(withPrivateKeys) {
  load();
}

fs::path CertFileCache::cacheDirectory(const std::string& location) const {
  fs::path directory(location);
  directory /= filter_->subdirectory();
  return directory;
}

fs::path CertFileCache::filePath(const std::string& location, const std::string& baseName,
                                 const char* extension) const {
  fs::path file = cacheDirectory(location);
  file /= baseName + extension;
  return file;
}

void CertFileCache::load() {
  TAVIK_LOG_TRACE(logHandle) << "Looking for all certificates...";
  std::vector<std::string> locations;
  store_.getBaseLocations(locations);
  std::uint64_t total = 0;

  for (const std::string& location : locations) {
    const fs::path directory = cacheDirectory(location);
    boost::system::error_code error;
    if (!entryExists(directory, error)) {
      TAVIK_LOG_TRACE(logHandle) << "Cert store directory " << directory
                                 << " does not exist (we look at other locations!)";
      continue;
    }
    unsigned long found = 0;
    const unsigned long entered = loadFromDir(directory.string(), found);
    if (entered < found) {
      TAVIK_LOG_WARNING(logHandle)
          << (found - entered) << " certificate(s) without matching key (file) found in "
          << directory;
    }
    if (entered != 0) {
      TAVIK_LOG_INFO(logHandle) << "Successfully found " << entered << " certificate(s) in "
                                << directory;
    }
    total += entered;
  }

  if (total == 0) {
    std::string joined;
    for (std::size_t i = 0; i < locations.size(); ++i) {
      if (i != 0) joined += ", ";
      joined += locations[i];
    }
    if (withPrivateKeys_) {
      TAVIK_LOG_WARNING(logHandle)
          << "Did not find any certificates with matching key in one of the dirs " << joined;
    } else {
      TAVIK_LOG_INFO(logHandle) << "Did not find any certificates in one of the dirs " << joined;
    }
  }
}

unsigned long CertFileCache::loadFromDir(const std::string& dir, unsigned long& count) {
  TAVIK_LOG_TRACE(logHandle) << "Scanning dir " << dir << " for certificates...";
  count = 0;
  unsigned long entered = 0;

  boost::system::error_code error;
  fs::directory_iterator entry(dir, error);
  if (error) return 0;
  // Advancing the listing and reading an entry's type throw on failure: a scan
  // that cannot see the whole directory must not pass for a complete one.
  for (; entry != fs::directory_iterator(); ++entry) {
    if (!fs::is_regular_file(entry->status())) continue;
    const fs::path& file = entry->path();
    if (to_lowercase(file.extension().string()) != kCertExtension) continue;

    std::shared_ptr<Certificate> certificate = Certificate::createFromFile(file.string(), false);
    if (!certificate) {
      TAVIK_LOG_WARNING(logHandle) << "Loading certificate from " << file << " failed";
      continue;
    }
    if (!filter_->acceptsCertificate(certificate)) {
      TAVIK_LOG_WARNING(logHandle) << "The certificate in " << file << " is not the required type";
      continue;
    }
    ++count;
    const std::string baseName = file.stem().string();

    if (!withPrivateKeys_) {
      ++entered;
      addFileToCache(baseName, baseName, dir.c_str());
      continue;
    }
    fs::path keyFile = file;
    keyFile.replace_extension(kKeyExtension);
    if (!entryExists(keyFile, error)) {
      TAVIK_LOG_DEBUG(logHandle) << "Certificate without private key. File missing: " << keyFile;
      continue;
    }
    ++entered;
    addFileToCache(filter_->certificateId(certificate), baseName, dir.c_str());
  }
  return entered;
}

void CertFileCache::addFileToCache(const std::string& id, const std::string& file,
                                   const char* from) {
  const auto inserted = index_.emplace(id, file);
  if (inserted.second) {
    TAVIK_LOG_TRACE(logHandle) << "Added certficate " << id << " => " << file;
    return;
  }
  TAVIK_LOG_WARNING(logHandle) << "Replacing certificate (" << id << "). File '"
                               << inserted.first->second << "' replaced with '" << file
                               << "' from '" << from << "'";
  inserted.first->second = file;
}

std::shared_ptr<Certificate> CertFileCache::getCertificate(const std::string& id,
                                                           const std::string& password,
                                                           int& errorCode, bool loadFlag) const {
  const auto found = index_.find(id);
  if (found == index_.end()) {
    errorCode = kNotInIndex;
    return nullptr;
  }
  std::vector<std::string> locations;
  store_.getBaseLocations(locations);
  errorCode = kFound;

  for (const std::string& location : locations) {
    const fs::path certFile = filePath(location, found->second, kCertExtension);
    boost::system::error_code error;
    if (!entryExists(certFile, error)) continue;

    if (!withPrivateKeys_) {
      std::shared_ptr<Certificate> certificate =
          Certificate::createFromFile(certFile.string(), loadFlag);
      if (certificate) return certificate;
      TAVIK_LOG_WARNING(logHandle) << "Error reading certificate in '" << certFile << "'";
      errorCode = kCertUnreadable;
      continue;
    }
    fs::path keyFile = certFile;
    keyFile.replace_extension(kKeyExtension);
    if (!entryExists(keyFile, error)) {
      TAVIK_LOG_WARNING(logHandle) << "Error reading certificate. Key missing: " << keyFile;
      errorCode = kKeyMissing;
      continue;
    }
    std::shared_ptr<Certificate> certificate =
        Certificate::createFromFileWithKey(certFile.string(), keyFile.string(), password, loadFlag);
    if (certificate) return certificate;
    TAVIK_LOG_WARNING(logHandle) << "Error reading certificate. Key invalid: " << keyFile;
    errorCode = kKeyUnreadable;
  }
  if (errorCode == kFound) errorCode = kNoLocationHasIt;
  return nullptr;
}

std::shared_ptr<Certificate> CertFileCache::getCertificateOnly(const std::string& id,
                                                               int& errorCode,
                                                               bool loadFlag) const {
  return getCertificate(subjectToFilename(std::string(), id), std::string(), errorCode, loadFlag);
}

int CertFileCache::getFileInfo(const std::string& baseName, std::string& keyFile,
                               std::string& certFile) const {
  const std::string& root = store_.getRoot();
  if (withPrivateKeys_) {
    const fs::path keyPath = filePath(root, baseName, kKeyExtension);
    if (!fs::exists(keyPath)) return kNoKeyFile;
    keyFile = keyPath.string();
  } else {
    keyFile.clear();
  }
  const fs::path certPath = filePath(root, baseName, kCertExtension);
  if (!fs::exists(certPath)) return kNoCertFile;
  certFile = certPath.string();
  return kDone;
}

std::size_t CertFileCache::listIds(std::vector<std::string>& ids) const {
  ids.clear();
  ids.reserve(index_.size());
  for (const auto& entry : index_) ids.push_back(entry.first);
  return ids.size();
}

std::string CertFileCache::getFileBaseName(const std::string& id) const {
  const auto found = index_.find(id);
  return found == index_.end() ? std::string() : found->second;
}

}  // namespace tavik
