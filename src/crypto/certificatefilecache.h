// A cache of the certificates of one kind that lie as PEM files in the
// directories of a certificate store, with their password-protected private
// keys, and the operations that create, install, rename and remove them.
//
// On disk, every store location holds the filter's subdirectory, and in it a
// certificate with file base name B has up to three files: B.crt (the
// certificate), B.key (its encrypted private key) and B.tpk (the key of a
// pending certificate request). Reading goes through all base locations of the
// store in order; creating, renaming and removing happen in the root only.
//
// Construction scans the store once and keeps an index from identifier to file
// base name; nothing else adds to it, and only removeCert takes entries out.
// Lookups read the files afresh each time; the cache keeps no certificate.
//
// Operations report through result codes and log statements; they catch no
// exception. The cache takes no locks: callers that share one between threads
// serialise their calls.
#ifndef TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_
#define TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/certificate.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/opensslutil.h"
#include "crypto/certreq.h"
#include "crypto/credentialprofile.h"

namespace tavik {

class CertStoreWatcher;
class DirectoryListing;

class CertFileCache {
 public:
  // Flags of createSelfSignedKeyPair and createCsr; other bits are ignored.
  static constexpr int overwriteExisting = 1;  // an existing key file may be replaced
  static constexpr int skipTemporaryKey = 4;   // createCsr writes the key as .key, not .tpk

  // Result codes of the file and credential operations. The numbers never change.
  enum Result : int {
    kDone = 0,
    kFailed = 1,              // the operation, or the step named by its message, failed
    kExists = 2,              // the file to be written exists and overwriting was not asked for
    kEmptyBaseName = 3,       // the file base name came out empty
    kUnknownId = 4,           // the identifier is not in the index
    kNoCertFile = 5,          // the certificate file does not exist
    kNoKeyFile = 6,           // the key file does not exist
    kKeyNotRenamed = 7,       // the key file could not be renamed; the certificate was renamed back
    kKeyNotRemoved = 8,       // the key file could not be removed
    kNoPrivateKeys = 9,       // the cache holds no private keys
    kKeyNotPromoted = 10,     // the temporary key could not become the key file
    kTempKeyNotRemoved = 11,  // the temporary key file was not removed
    kEmptyPassword = 12,      // the password is empty
    kEmptyEmail = 13,         // the e-mail address is empty
  };

  // Error codes of getCertificate and getCertificateOnly, a set of their own.
  enum LookupError : int {
    kFound = 0,
    kNotInIndex = 1000100,       // the identifier is not in the index
    kNoLocationHasIt = 1000101,  // no base location holds the certificate file
    kCertUnreadable = 1000102,   // the certificate file could not be read
    kKeyUnreadable = 1000103,    // certificate and key could not be read together
    kKeyMissing = 1000104,       // the key file beside the certificate does not exist
  };

  // Builds the cache over `store`, which must outlive it, and scans the store.
  // With `withPrivateKeys` the cache holds certificate and key pairs, entered
  // under the filter's identifier; without, certificates alone, entered under
  // their file base name.
  CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                bool withPrivateKeys);
  CertFileCache(const CertFileCache&) = delete;
  CertFileCache& operator=(const CertFileCache&) = delete;

  // Scans every base location again. Adds entries and replaces base names; it
  // never removes an entry.
  void load();

  // The certificate of `id`, read afresh from the first base location that holds
  // its file, with its private key decrypted by `password` in a key-holding
  // cache. Null on failure, with the reason in `errorCode` (LookupError).
  std::shared_ptr<Certificate> getCertificate(const std::string& id, const std::string& password,
                                              int& errorCode, bool loadFlag) const;
  // getCertificate for an identity in plain form (an e-mail address), turned
  // into file-name form first, with an empty password.
  std::shared_ptr<Certificate> getCertificateOnly(const std::string& id, int& errorCode,
                                                  bool loadFlag) const;
  // The paths of the certificate file and, in a key-holding cache, the key file
  // of `baseName` in the root; 0, 5 or 6. `baseName` is used as it stands.
  int getFileInfo(const std::string& baseName, std::string& keyFile, std::string& certFile) const;
  // Replaces `ids` with the identifiers of the index, in byte-wise order.
  std::size_t listIds(std::vector<std::string>& ids) const;
  // The file base name that the index holds for `id`; "" when `id` is absent.
  std::string getFileBaseName(const std::string& id) const;

  // Renames one file of the root's cache directory. With `allowMissing`, an
  // absent source is a success. Base names are used as they stand.
  bool renameFile(const std::string& baseName, const char* extension,
                  const std::string& newBaseName, const char* newExtension,
                  bool allowMissing) const;
  // Renames a certificate's .crt, .key and .tpk files; 0, 1 or 7.
  int renameCert(const std::string& baseName, const std::string& newBaseName);
  // Deletes a certificate's files and its index entry; 0, 1, 4 or 8.
  int removeCert(const std::string& id);

  // Creating credentials. The members without a profile make the store's
  // original credentials: RSA 1024 keys, SHA-1 requests, version-1 self-signed
  // certificates valid 2010-2037, Triple-DES key files. The members with a
  // profile take the same steps in the same order, with the same files,
  // results and messages, but make the profile's key, sign with its digest,
  // add the credential's extensions and protect key files with AES-256 and
  // PBKDF2 (credentialprofile.h). An unusable profile (profileProblem) is
  // result 1 with "Can't use credential profile: " and the reason, after the
  // checks of the arguments and before anything is generated or written.
  //
  // Writes `cert` (borrowed) as PEM to `file`; 0 or 1.
  int writeCert(const boost::filesystem::path& file, X509* cert);
  // Writes `key` (borrowed) to `file`, encrypted with Triple-DES under
  // `password`, and makes the file private to its owner; 0 or 1.
  int writePrivateKey(const boost::filesystem::path& file, const std::string& password,
                      EVP_PKEY* key);
  // The same, under AES-256-CBC with PBKDF2 at the profile's iterations; the
  // file is owner-only from the moment it exists.
  int writePrivateKey(const boost::filesystem::path& file, const std::string& password,
                      EVP_PKEY* key, const CredentialProfile& profile);
  // Makes a new RSA key and a self-signed certificate for `email` and writes
  // them to the root; 0, 1, 2, 3, 12 or 13.
  int createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                              const std::string& password, int flags);
  // The same with the profile's key, a version-3 certificate with a random
  // serial, valid from now for the profile's days, with the credential's
  // extensions (the user filter lists it under `email`).
  int createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                              const std::string& password, int flags,
                              const CredentialProfile& profile);
  // Makes a new RSA key and a certificate request for `email`; the request's PEM
  // goes to `csr`, the key to the .tpk file (or .key with skipTemporaryKey).
  // 0, 1, 2, 3, 9 or 12.
  int createCsr(const std::string& subject, const std::string& email, const std::string& password,
                int flags, std::string& csr);
  // The same with the profile's key and request (CertReq's profile constructor).
  int createCsr(const std::string& subject, const std::string& email, const std::string& password,
                int flags, std::string& csr, const CredentialProfile& profile);
  // Deletes the temporary key of an abandoned request; 0, 3, 9 or 11.
  int cleanupCsr(const std::string& subject, const std::string& email);
  // Installs a signed certificate given as base64 text and, in a key-holding
  // cache, promotes the pending temporary key; 0, 1, 2, 3 or 10.
  int saveCert(const std::string& id, const std::string& certBase64, bool overwrite);

 private:
  // The watcher builds each index it publishes from the last one plus the files
  // that changed, by the scan's own rules, without scanning the store again.
  friend class CertStoreWatcher;

  // What the scan makes of one certificate file: left out (of another kind,
  // or gone; not counted), left out because it holds no certificate (perhaps
  // not yet: a writer may be at work), counted without its key, or entered.
  enum class Entry { kSkipped, kUnreadable, kWithoutKey, kEntered };

  // A cache over `index` as it stands: no scan, no statement.
  CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                bool withPrivateKeys, std::unordered_map<std::string, std::string> index);

  // Where the ".crt" extension of `fileName` starts, in any letter case; npos
  // when it has none.
  static std::size_t certExtensionAt(std::string_view fileName);
  // Reads the certificate file `fileName` of the cache directory `dir` (open
  // as `dirFd`), with the scan's checks and statements. On kEntered, `id` is
  // its identifier. Whether its key is there comes from `listing` when given,
  // else from the file system. `buffer` is reused from file to file.
  Entry examineFile(const std::string& dir, int dirFd, std::string_view fileName,
                    const DirectoryListing* listing, std::string& buffer, std::string& id) const;

  unsigned long loadFromDir(const std::string& dir, unsigned long& count);
  void addFileToCache(const std::string& id, const std::string& file, const char* from);

  // The steps of the members with and without a profile (null: without).
  int writeKeyFile(const boost::filesystem::path& file, const std::string& password, EVP_PKEY* key,
                   const CredentialProfile* profile);
  int makeSelfSignedKeyPair(const std::string& subject, const std::string& email,
                            const std::string& password, int flags,
                            const CredentialProfile* profile);
  int makeCsr(const std::string& subject, const std::string& email, const std::string& password,
              int flags, std::string& csr, const CredentialProfile* profile);

  // The cache directory of `location`: location / subdirectory.
  // The path of a file by the store's path rule: location / subdirectory /
  // (baseName + extension). The only place that joins paths.
  boost::filesystem::path filePath(const std::string& location, const std::string& baseName,
                                   const char* extension) const;

  CertificateStore& store_;
  boost::shared_ptr<CertificateFilter> filter_;
  const bool withPrivateKeys_;
  // identifier -> file base name; hashed, so that loading a large store does
  // not compare long identifiers at every step.
  std::unordered_map<std::string, std::string> index_;
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_
