// The statements of this file name it by the path under which it registers.
#include "crypto/certificatefilecache.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "base/configurationinit.h"
#include "base/directorylisting.h"
#include "base/environment.h"
#include "base/filecontents.h"
#include "base/filename.h"
#include "base/pemfile.h"
#include "crypto/cachelog.h"

namespace tavik {

namespace fs = boost::filesystem;

namespace {

// Start-up order: the handle, then the library's initialisation, then the
// registration that gives the handle its levels.
LogHandle logHandle(nullptr, 0, 2);
ConfigurationInit configurationInit;
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

constexpr char kProfileRefused[] = "Can't use credential profile: ";
constexpr char kEmptyPasswordMessage[] =
    "Empty password specified - not accepted by PEM_write_bio_PrivateKey when a cipher is present";

// Anything at all exists at `path`; a status that cannot be read counts as nothing.
bool entryExists(const fs::path& path, boost::system::error_code& error) {
  return fs::exists(fs::status(path, error));
}

// The locations as a message names them: "A, B".
std::string joined(const std::vector<std::string>& locations) {
  std::string text;
  for (std::size_t i = 0; i < locations.size(); ++i) {
    if (i != 0) text += ", ";
    text += locations[i];
  }
  return text;
}

// OpenSSL's text for an error code taken off the queue.
std::string openSSLErrorText(unsigned long code) {
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

}  // namespace

LogHandle& cacheLogHandle() { return logHandle; }

CertFileCache::CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                             bool withPrivateKeys)
    : store_(store), filter_(std::move(filter)), withPrivateKeys_(withPrivateKeys) {
  load();
}

CertFileCache::CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                             bool withPrivateKeys, CertificateIndex index,
                             std::shared_ptr<const Redirects> redirects)
    : store_(store),
      filter_(std::move(filter)),
      withPrivateKeys_(withPrivateKeys),
      index_(std::move(index)),
      redirects_(std::move(redirects)) {}

fs::path CertFileCache::readPath(fs::path path) const {
  if (!redirects_) return path;
  const auto redirected = redirects_->find(path.string());
  if (redirected == redirects_->end()) return path;
  for (const std::string& place : redirected->second) {
    struct stat info {};
    if (::stat(place.c_str(), &info) == 0) return place;
  }
  return fs::path();  // absent
}

fs::path CertFileCache::filePath(const std::string& location, const std::string& baseName,
                                 const char* extension) const {
  return credentialFile(cacheDirectory(location, filter_->subdirectory()), baseName, extension);
}

void CertFileCache::load() {
  TAVIK_LOG_TRACE(logHandle) << "Looking for all certificates...";
  std::vector<std::string> locations;
  store_.getBaseLocations(locations);
  std::uint64_t total = 0;

  for (const std::string& location : locations) {
    const fs::path directory = cacheDirectory(location, filter_->subdirectory());
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
    // The list is joined only once the statement is known to be written.
    if (withPrivateKeys_) {
      TAVIK_LOG_WARNING(logHandle)
          << "Did not find any certificates with matching key in one of the dirs "
          << joined(locations);
    } else {
      TAVIK_LOG_INFO(logHandle) << "Did not find any certificates in one of the dirs "
                                << joined(locations);
    }
  }
}

unsigned long CertFileCache::loadFromDir(const std::string& dir, unsigned long& count) {
  TAVIK_LOG_TRACE(logHandle) << "Scanning dir " << dir << " for certificates...";
  count = 0;
  unsigned long entered = 0;

  // The whole listing is read first; then each certificate costs opening,
  // reading and closing it, relative to the open directory, and whether its
  // key is there comes from the listing.
  const DirectoryListing listing(dir);
  if (!listing.isOpen()) return 0;
  index_.reserve(listing.size() / (withPrivateKeys_ ? 2 : 1));
  std::string buffer;  // one for every file of the directory
  std::string id;
  for (std::size_t i = 0; i < listing.size(); ++i) {
    // Type first, then extension.
    if (!listing.isRegularFile(i)) continue;
    const std::string_view fileName = listing.name(i);
    const std::size_t dot = certExtensionAt(fileName);
    if (dot == std::string_view::npos) continue;
    const Entry entry = examineFile(dir, listing.fd(), fileName, &listing, buffer, id);
    if (entry == Entry::kSkipped || entry == Entry::kUnreadable) continue;
    ++count;
    if (entry == Entry::kWithoutKey) continue;
    ++entered;
    addFileToCache(id, std::string(fileName.substr(0, dot)), dir.c_str());
  }
  listing.throwIfIncomplete();
  return entered;
}

std::size_t CertFileCache::certExtensionAt(std::string_view fileName) {
  const std::size_t dot = fileName.rfind('.');
  if (dot == std::string_view::npos ||
      to_lowercase(std::string(fileName.substr(dot))) != kCertExtension) {
    return std::string_view::npos;
  }
  return dot;
}

CertFileCache::Entry CertFileCache::examineFile(const std::string& dir, int dirFd,
                                                std::string_view fileName,
                                                const DirectoryListing* listing,
                                                std::string& buffer, std::string& id,
                                                std::optional<bool> keyPresent) const {
  const auto file = [&dir, fileName] { return fs::path(dir) / std::string(fileName); };
  const std::string name(fileName);
  std::size_t length = 0;
  const ReadAtResult read =
      readSmallFileAt(dirFd, name.c_str(), kMaxCredentialFileSize, buffer, length);
  // A file removed since the listing is skipped, as a later listing would.
  if (read == ReadAtResult::kGone) return Entry::kSkipped;
  std::shared_ptr<Certificate> certificate =
      read == ReadAtResult::kRead
          ? Certificate::createFromContents(std::string_view(buffer.data(), length), false)
          : nullptr;
  if (!certificate) {
    TAVIK_LOG_WARNING(logHandle) << "Loading certificate from " << file() << " failed";
    return Entry::kUnreadable;
  }
  if (!filter_->acceptsCertificate(certificate)) {
    TAVIK_LOG_WARNING(logHandle) << "The certificate in " << file() << " is not the required type";
    return Entry::kSkipped;
  }
  const std::string baseName(fileName.substr(0, certExtensionAt(fileName)));
  if (!withPrivateKeys_) {
    id = baseName;
    return Entry::kEntered;
  }
  // Without a listing, the file system says whether the key is there, links followed.
  struct stat info {};
  const std::string keyName = baseName + kKeyExtension;
  if (keyPresent.has_value() ? !*keyPresent
      : listing != nullptr   ? !listing->exists(keyName)
                             : ::fstatat(dirFd, keyName.c_str(), &info, 0) != 0) {
    TAVIK_LOG_DEBUG(logHandle) << "Certificate without private key. File missing: "
                               << credentialFile(dir, baseName, kKeyExtension);
    return Entry::kWithoutKey;
  }
  id = filter_->certificateId(certificate);
  return Entry::kEntered;
}

void CertFileCache::addFileToCache(const std::string& id, const std::string& file,
                                   const char* from) {
  std::string replaced;
  if (index_.set(id, file, &replaced)) {
    TAVIK_LOG_TRACE(logHandle) << "Added certficate " << id << " => " << file;
    return;
  }
  TAVIK_LOG_WARNING(logHandle) << "Replacing certificate (" << id << "). File '" << replaced
                               << "' replaced with '" << file << "' from '" << from << "'";
}

std::shared_ptr<Certificate> CertFileCache::getCertificate(const std::string& id,
                                                           const std::string& password,
                                                           int& errorCode, bool loadFlag) const {
  const std::string* baseName = index_.find(id);
  if (baseName == nullptr) {
    errorCode = kNotInIndex;
    return nullptr;
  }
  std::vector<std::string> locations;
  store_.getBaseLocations(locations);
  errorCode = kFound;

  for (const std::string& location : locations) {
    const fs::path certFile = readPath(filePath(location, *baseName, kCertExtension));
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
    const fs::path keyFile = readPath(filePath(location, *baseName, kKeyExtension));
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
  index_.forEach([&ids](const std::string& id, const std::string&) { ids.push_back(id); });
  // In the order of the identifiers, whatever the index's own.
  std::sort(ids.begin(), ids.end());
  return ids.size();
}

std::string CertFileCache::getFileBaseName(const std::string& id) const {
  const std::string* baseName = index_.find(id);
  return baseName == nullptr ? std::string() : *baseName;
}

bool CertFileCache::renameFile(const std::string& baseName, const char* extension,
                               const std::string& newBaseName, const char* newExtension,
                               bool allowMissing) const {
  const fs::path source = filePath(store_.getRoot(), baseName, extension);
  boost::system::error_code error;
  if (allowMissing && !entryExists(source, error)) return true;
  const fs::path target = filePath(store_.getRoot(), newBaseName, newExtension);
  fs::rename(source, target, error);
  if (error) {
    TAVIK_LOG_ERROR(logHandle) << "An error occurred when renaming " << source << " to "
                               << newBaseName << newExtension << ": " << error;
    return false;
  }
  return true;
}

int CertFileCache::renameCert(const std::string& baseName, const std::string& newBaseName) {
  if (!renameFile(baseName, kCertExtension, newBaseName, kCertExtension, false)) return kFailed;
  if (!renameFile(baseName, kKeyExtension, newBaseName, kKeyExtension, true)) {
    // A certificate without its key is no use: put the certificate back.
    renameFile(newBaseName, kCertExtension, baseName, kCertExtension, false);
    return kKeyNotRenamed;
  }
  // A pending request's key is worth keeping but does not decide the outcome.
  renameFile(baseName, kTempKeyExtension, newBaseName, kTempKeyExtension, true);
  TAVIK_LOG_INFO(logHandle) << "Certificate in file (" << baseName
                            << ") has been renamed in file store to: " << newBaseName;
  return kDone;
}

int CertFileCache::removeCert(const std::string& id) {
  const std::string* found = index_.find(id);
  if (found == nullptr) return kUnknownId;
  const std::string baseName = *found;
  // One error code for every call, so each message shows what its own call left.
  boost::system::error_code error;

  const fs::path certPath = filePath(store_.getRoot(), baseName, kCertExtension);
  if (!fs::remove(certPath, error)) {
    TAVIK_LOG_WARNING(logHandle) << "Error " << error << " removing cert (" << id
                                 << ") from cert store: " << certPath;
    return kFailed;
  }
  const fs::path keyPath = filePath(store_.getRoot(), baseName, kKeyExtension);
  if (entryExists(keyPath, error) && !fs::remove(keyPath, error)) {
    TAVIK_LOG_WARNING(logHandle) << "Error " << error << " removing key file (" << id
                                 << ") from cert store: " << keyPath;
    return kKeyNotRemoved;
  }
  const fs::path tempKeyPath = filePath(store_.getRoot(), baseName, kTempKeyExtension);
  if (entryExists(tempKeyPath, error) && !fs::remove(tempKeyPath, error)) {
    TAVIK_LOG_WARNING(logHandle) << "Error " << error << " removing temp key file (" << id
                                 << ") from cert store: " << tempKeyPath;
  }
  TAVIK_LOG_INFO(logHandle) << "Certificate (" << id
                            << ") has been removed from store: " << certPath;
  index_.erase(id);
  return kDone;
}

int CertFileCache::writeCert(const fs::path& file, X509* cert) {
  // OpenSSL's errors of a failed open or write stay on the caller's queue.
  PemFileWriter writer(file.string());
  if (!writer.isOpen()) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create file BIO: " << file;
    return kFailed;
  }
  const bool written = writer.writeCertificate(cert);
  writer.close();
  return written ? kDone : kFailed;
}

int CertFileCache::writePrivateKey(const fs::path& file, const std::string& password,
                                   EVP_PKEY* key) {
  return writeKeyFile(file, password, key, nullptr);
}

int CertFileCache::writePrivateKey(const fs::path& file, const std::string& password, EVP_PKEY* key,
                                   const CredentialProfile& profile) {
  const std::string problem = profileProblem(profile, false);
  if (!problem.empty()) {
    TAVIK_LOG_ERROR(logHandle) << kProfileRefused << problem;
    return kFailed;
  }
  return writeKeyFile(file, password, key, &profile);
}

int CertFileCache::writeKeyFile(const fs::path& file, const std::string& password, EVP_PKEY* key,
                                const CredentialProfile* profile) {
  PemFileWriter writer(file.string(), profile != nullptr ? PemFileWriter::Mode::kPrivate
                                                         : PemFileWriter::Mode::kProcessDefault);
  if (!writer.isOpen()) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create file BIO: " << file;
    return kFailed;
  }
  const bool written = profile != nullptr
                           ? writer.writeEncryptedKeyPbes2(key, password, profile->kdfIterations)
                           : writer.writeEncryptedKey(key, password);
  if (!written) {
    // The earliest error leaves the queue whether or not the message is
    // written; later ones stay for the caller.
    const unsigned long code = ERR_get_error();
    TAVIK_LOG_ERROR(logHandle) << "ERROR writing '" << file
                               << "' - PEM_write_bio_PrivateKey: " << openSSLErrorText(code);
    boost::system::error_code ignored;
    fs::remove(file, ignored);
    return kFailed;
  }
  // Restricted while the file is still open.
  if (!Environment::accessInstance(false)->setPrivateAccessMode(file.string())) {
    TAVIK_LOG_WARNING(logHandle) << "Could not set private access mode on private key file: "
                                 << file;
  }
  TAVIK_LOG_TRACE(logHandle) << "Key was written: " << file;
  return kDone;
}

int CertFileCache::createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                                           const std::string& password, int flags) {
  return makeSelfSignedKeyPair(subject, email, password, flags, nullptr);
}

int CertFileCache::createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                                           const std::string& password, int flags,
                                           const CredentialProfile& profile) {
  return makeSelfSignedKeyPair(subject, email, password, flags, &profile);
}

int CertFileCache::makeSelfSignedKeyPair(const std::string& subject, const std::string& email,
                                         const std::string& password, int flags,
                                         const CredentialProfile* profile) {
  if (password.empty()) {
    TAVIK_LOG_ERROR(logHandle) << kEmptyPasswordMessage;
    return kEmptyPassword;
  }
  if (email.empty()) {
    TAVIK_LOG_ERROR(logHandle) << "atleast one of email/subject must be set in the certificate";
    return kEmptyEmail;
  }
  const std::string baseName = subjectToFilename(subject, email);
  if (baseName.empty()) return kEmptyBaseName;
  const fs::path keyPath = filePath(store_.getRoot(), baseName, kKeyExtension);
  const fs::path certPath = filePath(store_.getRoot(), baseName, kCertExtension);
  boost::system::error_code ignored;
  // Only the key decides: a certificate without its key is worth nothing.
  if ((flags & overwriteExisting) == 0 && entryExists(keyPath, ignored)) return kExists;
  const std::string problem = profile != nullptr ? profileProblem(*profile, true) : "";
  if (!problem.empty()) {
    TAVIK_LOG_ERROR(logHandle) << kProfileRefused << problem;
    return kFailed;
  }

  PkeyHandle key =
      profile != nullptr ? generateProfileKey(*profile) : OpenSSLUtil::generateRsaPkey(kRsaKeyBits);
  if (!key) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create rsa pkey";
    return kFailed;
  }
  X509Ptr cert;
  const bool built = profile != nullptr
                         ? buildSelfSignedCertificate(email, key.get(), *profile, cert)
                         : buildSelfSignedCertificate(email, key.get(), cert);
  if (!built) return kFailed;
  const int keyWritten = writeKeyFile(keyPath, password, key.get(), profile);
  if (keyWritten != kDone) {
    fs::remove(keyPath, ignored);
    return keyWritten;
  }
  const int certWritten = writeCert(certPath, cert.get());
  if (certWritten != kDone) {
    fs::remove(keyPath, ignored);
    fs::remove(certPath, ignored);
    return certWritten;
  }
  return kDone;
}

int CertFileCache::createCsr(const std::string& subject, const std::string& email,
                             const std::string& password, int flags, std::string& csr) {
  return makeCsr(subject, email, password, flags, csr, nullptr);
}

int CertFileCache::createCsr(const std::string& subject, const std::string& email,
                             const std::string& password, int flags, std::string& csr,
                             const CredentialProfile& profile) {
  return makeCsr(subject, email, password, flags, csr, &profile);
}

int CertFileCache::makeCsr(const std::string& subject, const std::string& email,
                           const std::string& password, int flags, std::string& csr,
                           const CredentialProfile* profile) {
  if (!withPrivateKeys_) return kNoPrivateKeys;
  if (password.empty()) {
    TAVIK_LOG_ERROR(logHandle) << kEmptyPasswordMessage;
    return kEmptyPassword;
  }
  const std::string baseName = subjectToFilename(subject, email);
  if (baseName.empty()) return kEmptyBaseName;
  const fs::path keyPath = filePath(store_.getRoot(), baseName, kKeyExtension);
  boost::system::error_code ignored;
  // Tested before a key is generated, which is the slow part.
  if ((flags & overwriteExisting) == 0 && entryExists(keyPath, ignored)) return kExists;
  const std::string problem = profile != nullptr ? profileProblem(*profile, false) : "";
  if (!problem.empty()) {
    TAVIK_LOG_ERROR(logHandle) << kProfileRefused << problem;
    return kFailed;
  }

  std::optional<CertReq> request;
  if (profile != nullptr) {
    request.emplace(email, csr, *profile);
  } else {
    request.emplace(email, csr, kRsaKeyBits);
  }
  if (!request->generated) {
    TAVIK_LOG_ERROR(logHandle) << "Can't generate Certificate Request or private key: " << keyPath;
    return kFailed;
  }
  const fs::path target = (flags & skipTemporaryKey) != 0
                              ? keyPath
                              : filePath(store_.getRoot(), baseName, kTempKeyExtension);
  return writeKeyFile(target, password, request->pkey.get(), profile);
}

int CertFileCache::cleanupCsr(const std::string& subject, const std::string& email) {
  if (!withPrivateKeys_) return kNoPrivateKeys;
  const std::string baseName = subjectToFilename(subject, email);
  if (baseName.empty()) return kEmptyBaseName;
  const fs::path tempKeyPath = filePath(store_.getRoot(), baseName, kTempKeyExtension);
  boost::system::error_code error;
  if (fs::remove(tempKeyPath, error)) {
    TAVIK_LOG_TRACE(logHandle) << "Key was cleaned up: " << tempKeyPath;
    return kDone;
  }
  TAVIK_LOG_ERROR(logHandle) << "Error (" << error
                             << ") deleting temporary private key file: " << tempKeyPath;
  return kTempKeyNotRemoved;
}

int CertFileCache::saveCert(const std::string& id, const std::string& certBase64, bool overwrite) {
  std::shared_ptr<Certificate> certificate = Certificate::createFromBase64(certBase64);
  if (!certificate) {
    TAVIK_LOG_ERROR(logHandle) << "Can't save certificate to file. Not a valid certificate: " << id;
    return kFailed;
  }
  const std::string certificateId = filter_->certificateId(certificate);
  const std::string baseName = subjectToFilename(id, certificateId);
  if (baseName.empty()) {
    TAVIK_LOG_ERROR(logHandle) << "Can't save certificate to file. Invalid ID: "
                               << (id.empty() ? certificateId : id);
    return kEmptyBaseName;
  }
  const fs::path certPath = filePath(store_.getRoot(), baseName, kCertExtension);
  boost::system::error_code error;
  if (!overwrite && entryExists(certPath, error)) return kExists;
  // A certificate that this one replaces comes back, with its mode, if the new
  // one cannot be written or its key cannot be put in place: the earlier key
  // is still there.
  std::string replaced;
  unsigned replacedMode = 0;
  const bool replacing =
      overwrite &&
      readSmallRegularFile(certPath.string(), kMaxCredentialFileSize, replaced, &replacedMode);
  if (!certificate->saveToFile(certPath.string())) {
    if (replacing) writeWholeFile(certPath.string(), replaced, replacedMode);
    TAVIK_LOG_ERROR(logHandle) << "Can't save certificate: " << certPath;
    return kFailed;
  }
  if (withPrivateKeys_) {
    if (!renameFile(baseName, kTempKeyExtension, baseName, kKeyExtension, false)) {
      // A certificate whose key never arrived must not look installed.
      if (!replacing || !writeWholeFile(certPath.string(), replaced, replacedMode)) {
        fs::remove(certPath, error);
      }
      return kKeyNotPromoted;
    }
    TAVIK_LOG_TRACE(logHandle) << "Temporary private key file for " << certPath
                               << " was renamed successflly";
  }
  TAVIK_LOG_TRACE(logHandle) << "Cert was written: " << certPath;
  return kDone;
}

}  // namespace tavik
