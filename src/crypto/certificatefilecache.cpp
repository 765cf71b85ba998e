// The statements of this file name it by the path under which it registers.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certificatefilecache.cpp"

#include "crypto/certificatefilecache.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <boost/algorithm/string/replace.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "base/configurationinit.h"
#include "base/environment.h"
#include "base/filecontents.h"
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
constexpr char kTempKeyExtension[] = ".tpk";

// Every key the cache makes is RSA of this size.
constexpr int kRsaKeyBits = 1024;

// The fixed validity of self-signed certificates, whatever the day they are made.
constexpr char kSelfSignedNotBefore[] = "20100101000000Z";
constexpr char kSelfSignedNotAfter[] = "20370101000000Z";

constexpr char kEmptyPasswordMessage[] =
    "Empty password specified - not accepted by PEM_write_bio_PrivateKey when a cipher is present";

// Anything at all exists at `path`; a status that cannot be read counts as nothing.
bool entryExists(const fs::path& path, boost::system::error_code& error) {
  return fs::exists(fs::status(path, error));
}

// OpenSSL's text for an error code taken off the queue.
std::string openSslErrorText(unsigned long code) {
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

// A file BIO over `file` opened with "w". BIO_new_file would leave the file
// created or emptied when only the BIO cannot be made (for want of memory); an
// empty key file would later pass for a key, so such a file goes again.
BioPtr openForWriting(const fs::path& file) {
  std::FILE* stream = std::fopen(file.string().c_str(), "w");
  if (stream == nullptr) return BioPtr();
  BioPtr bio(BIO_new_fp(stream, BIO_CLOSE));
  if (!bio) {
    std::fclose(stream);
    boost::system::error_code ignored;
    fs::remove(file, ignored);
  }
  return bio;
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
  const auto found = index_.find(id);
  if (found == index_.end()) return kUnknownId;
  const std::string& baseName = found->second;
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
  index_.erase(found);
  return kDone;
}

int CertFileCache::writeCert(const fs::path& file, X509* cert) {
  BioPtr bio = openForWriting(file);
  if (!bio) {
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "Can't create file BIO: " << file;
    return kFailed;
  }
  // The flush belongs to the write: a full disk shows only there.
  const bool written = PEM_write_bio_X509(bio.get(), cert) == 1 && BIO_flush(bio.get()) == 1;
  bio.reset();
  if (!written) {
    ERR_clear_error();
    return kFailed;
  }
  return kDone;
}

int CertFileCache::writePrivateKey(const fs::path& file, const std::string& password,
                                   EVP_PKEY* key) {
  BioPtr bio = openForWriting(file);
  if (!bio) {
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "Can't create file BIO: " << file;
    return kFailed;
  }
  // The password reaches OpenSSL as the default pass-phrase callback's user
  // data, so the pass phrase is its characters up to the first NUL.
  const bool written =
      PEM_write_bio_PrivateKey(bio.get(), key, EVP_des_ede3_cbc(), nullptr, 0, nullptr,
                               const_cast<char*>(password.c_str())) == 1 &&
      BIO_flush(bio.get()) == 1;
  if (!written) {
    // Taken off the queue whether or not the message is written.
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "ERROR writing '" << file
                               << "' - PEM_write_bio_PrivateKey: " << openSslErrorText(code);
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

namespace {

// Builds the self-signed certificate of a new pair: version 1 (no version
// field), serial 1, subject and issuer CN = email, the fixed validity, signed
// with `key` over SHA-256. kDone, or kFailed with the failing step's message.
int buildSelfSignedCertificate(const std::string& email, EVP_PKEY* key, X509Ptr& cert) {
  cert.reset(X509_new());
  if (!cert) return CertFileCache::kFailed;
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(email.c_str()), -1, -1,
                                 0) != 1) {
    return CertFileCache::kFailed;
  }
  if (X509_set_subject_name(cert.get(), name) != 1 || X509_set_issuer_name(cert.get(), name) != 1) {
    return CertFileCache::kFailed;
  }
  if (X509_set_pubkey(cert.get(), key) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set pubkey";
    return CertFileCache::kFailed;
  }
  if (ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set serial number";
    return CertFileCache::kFailed;
  }
  if (ASN1_TIME_set_string(X509_getm_notBefore(cert.get()), kSelfSignedNotBefore) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Cant set not before property in certificate";
    return CertFileCache::kFailed;
  }
  if (ASN1_TIME_set_string(X509_getm_notAfter(cert.get()), kSelfSignedNotAfter) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set not after property in certificate";
    return CertFileCache::kFailed;
  }
  if (X509_sign(cert.get(), key, EVP_sha256()) == 0) return CertFileCache::kFailed;
  return CertFileCache::kDone;
}

}  // namespace

int CertFileCache::createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                                           const std::string& password, int flags) {
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

  PkeyHandle key = OpenSSLUtil::generateRsaPkey(kRsaKeyBits);
  if (!key) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create rsa pkey";
    return kFailed;
  }
  X509Ptr cert;
  if (buildSelfSignedCertificate(email, key.get(), cert) != kDone) {
    ERR_clear_error();
    return kFailed;
  }
  const int keyWritten = writePrivateKey(keyPath, password, key.get());
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

  CertReq request(email, csr, kRsaKeyBits);
  if (!request.generated) {
    TAVIK_LOG_ERROR(logHandle) << "Can't generate Certificate Request or private key: " << keyPath;
    return kFailed;
  }
  fs::path target = keyPath;
  if ((flags & skipTemporaryKey) == 0) target.replace_extension(kTempKeyExtension);
  return writePrivateKey(target, password, request.pkey.get());
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
  // A certificate that this one replaces comes back if the new one cannot be
  // written, or its key cannot be put in place: the earlier key is still there.
  std::string replaced;
  const bool replacing =
      overwrite && readSmallRegularFile(certPath.string(), kMaxCredentialFileSize, replaced);
  if (!certificate->saveToFile(certPath.string())) {
    if (replacing) writeWholeFile(certPath.string(), replaced);
    TAVIK_LOG_ERROR(logHandle) << "Can't save certificate: " << certPath;
    return kFailed;
  }
  if (withPrivateKeys_) {
    if (!renameFile(baseName, kTempKeyExtension, baseName, kKeyExtension, false)) {
      // A certificate whose key never arrived must not look installed.
      if (!replacing || !writeWholeFile(certPath.string(), replaced)) fs::remove(certPath, error);
      return kKeyNotPromoted;
    }
    TAVIK_LOG_TRACE(logHandle) << "Temporary private key file for " << certPath
                               << " was renamed successflly";
  }
  TAVIK_LOG_TRACE(logHandle) << "Cert was written: " << certPath;
  return kDone;
}

CertReq::CertReq(const std::string& email, std::string& csr, int /*keyBits*/) : generated(false) {
  pkey = OpenSSLUtil::generateRsaPkey(kRsaKeyBits);
  if (!pkey) {
    TAVIK_LOG_ERROR(logHandle) << "Can't create pkey";
    return;
  }
  X509ReqPtr request(X509_REQ_new());
  if (!request) {
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "Can't create request";
    return;
  }
  if (!makeReq(request.get(), pkey.get(), email, MBSTRING_UTF8)) {
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "Can't make request";
    return;
  }
  if (X509_REQ_sign(request.get(), pkey.get(), EVP_sha1()) <= 0) {
    ERR_clear_error();
    TAVIK_LOG_ERROR(logHandle) << "Can't sign locally";
    return;
  }
  BioPtr buffer(BIO_new(BIO_s_mem()));
  if (!buffer) {
    ERR_clear_error();
    return;
  }
  BIO_set_close(buffer.get(), BIO_CLOSE);
  if (PEM_write_bio_X509_REQ(buffer.get(), request.get()) != 1) {
    ERR_clear_error();
    return;
  }
  char* text = nullptr;
  const long length = BIO_get_mem_data(buffer.get(), &text);
  csr.assign(text, static_cast<std::size_t>(length));
  TAVIK_LOG_DEBUG(logHandle) << "Created certificate request: \n" << csr;
  generated = true;
}

bool CertReq::makeReq(X509_REQ* req, EVP_PKEY* key, const std::string& email, unsigned long type) {
  if (X509_REQ_set_version(req, 0) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set version";
    return false;
  }
  X509NamePtr name(X509_NAME_new());
  if (!name) return false;
  if (X509_NAME_add_entry_by_txt(name.get(), "emailAddress", static_cast<int>(type),
                                 reinterpret_cast<const unsigned char*>(email.c_str()), -1, -1,
                                 0) != 1) {
    return false;
  }
  if (X509_REQ_set_subject_name(req, name.get()) != 1) return false;
  if (X509_REQ_set_pubkey(req, key) != 1) {
    TAVIK_LOG_ERROR(logHandle) << "Can't set pubkey";
    return false;
  }
  TAVIK_LOG_DEBUG(logHandle) << "Success making requests";
  return true;
}

}  // namespace tavik
