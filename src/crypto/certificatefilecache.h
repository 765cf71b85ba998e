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
// base name; only load() adds to it, and only removeCert takes entries out.
// Lookups read the files afresh each time; the cache keeps no certificate.
// Files that other programs (or this cache's creating members) add, rename or
// remove later are not in the index: a new cache over the store sees them.
//
// A change by the certcache tool that dies half way. The tool changes a store
// by one commit: new files made whole beside, an intent record
// (ROOT/.certcache-intent, base/intentrecord.h), then renames. A run killed
// between two of its renames leaves the record and a half-renamed pair: say
// the new key in place beside the old certificate, the new certificate still
// in the run's staging place. A cache scans the files as they stand and knows
// nothing of the record, so until the commit is completed a lookup of that
// pair fails with kKeyUnreadable (a certificate beside a key not its own) or
// kNoLocationHasIt (a pair renamed half way to another base name), and an
// identifier whose commit adds or removes it may be listed or not. Any
// certcache command that takes the store's lock (list and show included)
// completes the record first, and a cache built after that sees the new
// credential whole. A CertStoreWatcher honours the record and never shows the
// half-renamed pair (certstorewatcher.h).
//
// Failures. Operations report through their results (the codes below, empty
// pointers, false) and through log statements (log/log.h), and catch no
// exception. What can pass out of them:
//   - std::bad_alloc, from any member;
//   - boost::filesystem::filesystem_error, from the constructor and load() (a
//     cache directory whose listing stops at an error, or an entry that is a
//     link whose target cannot be examined for a reason other than its
//     absence: a link loop, a target below a directory without search
//     permission) and from getFileInfo (a file whose status cannot be read
//     for a reason other than its absence). Every other member uses the
//     file-system calls that report errors as values, and turns them into its
//     result and a log statement;
//   - whatever a filter of the caller's own throws, from the members that
//     call it (certificatefilter.h).
// A cache directory that is missing or cannot be opened is no error: it holds
// nothing.
//
// Threads. The lookups getCertificate, getCertificateOnly, getFileInfo,
// listIds and getFileBaseName read the index, the store's locations and the
// files, and change nothing: any number of threads may call them on one cache
// at once, as long as no other member runs on that cache meanwhile. Every
// other member, load() and renameFile included, changes the index or the
// files: the caller serialises it against every other call on the same cache.
// The cache takes no locks, in memory or on files: caches in several threads
// or processes that write the same base name at once race as two processes
// writing the same files do. A Certificate that a lookup returns is the
// caller's own, whichever thread uses it.
//
// Secrets. Passwords reach the cache as `const std::string&` and leave it
// nowhere: no log statement, file name or message holds one. What the cache
// copies it cleanses before the copy goes (base/secretstring.h): the lookups'
// copy of the password (Certificate::createFromFileWithKey takes it by value
// and cleanses it) and the bytes of a key file it read. The private key of a
// Certificate is OpenSSL's EVP_PKEY, freed with the Certificate; OpenSSL
// clears its numbers when it frees them, and keeps them in its secure heap
// when the program started one. What stays the caller's job, since a library
// must not change its host process:
//   - the caller's own copies of the password (SecretString holds one and
//     cleanses it);
//   - OpenSSL 3.0 frees some intermediate buffers of a key it decrypts or
//     encrypts (the decrypted PKCS#8 and its DER read by the key decoder)
//     without cleansing them: a program that must leave none installs an
//     allocator that cleanses what it frees, with CRYPTO_set_mem_functions
//     before OpenSSL allocates (ConfigurationInit allows that), as the
//     certcache tool does;
//   - OpenSSL's secure heap (CRYPTO_secure_malloc_init), locked memory that
//     core dumps leave out, and whether the process may dump core at all
//     (prctl PR_SET_DUMPABLE, RLIMIT_CORE).
// docs/security.md says what the tool does and how to check it.
#ifndef TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_
#define TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/certificate.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/opensslutil.h"
#include "crypto/certificateindex.h"
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

  // Builds the cache over `store`, which must outlive it, and scans the store
  // with load(). With `withPrivateKeys` the cache holds certificate and key
  // pairs (a BASE.crt of the filter's kind with a BASE.key beside it), entered
  // under the filter's identifier; without, certificates alone, entered under
  // their file base name. The filter is shared with the caller. Throws what
  // load() throws; there is no cache then.
  CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                bool withPrivateKeys);
  CertFileCache(const CertFileCache&) = delete;
  CertFileCache& operator=(const CertFileCache&) = delete;

  // Scans every base location again, in search order. Adds entries and
  // replaces base names (an identifier found again takes the base name found
  // last, with a warning); it never removes an entry, so a pair deleted since
  // stays listed and its lookup fails with kNoLocationHasIt. A .crt file (in
  // any case) that cannot be read or is not of the filter's kind is skipped
  // with a warning. A scan that throws leaves the index with
  // what it held plus what the scan entered before the failure; later
  // locations are not read. To see a store as it is now, build a new cache.
  void load();

  // The certificate of `id`, read afresh from the first base location that holds
  // its file, with its private key decrypted by `password` (its characters up
  // to the first NUL) in a key-holding cache; a cache without keys ignores the
  // password. On success `errorCode` is kFound, and the Certificate owns the
  // certificate and key that getX509() and getPrivateKey() lend for as long as
  // it is held (OpenSSL functions that keep them, such as
  // SSL_CTX_use_certificate or CMS_sign, take references of their own).
  //
  // On failure: null, with the reason in `errorCode` (LookupError). A location
  // whose files fail is logged as a warning and the next one is tried; the
  // code is the last failure's. A wrong password, or a key that is not the
  // certificate's, is kKeyUnreadable with the warning "Error reading
  // certificate. Key invalid: PATH", which the default sink prints.
  //
  // `loadFlag` chooses how much of the certificate is decoded now. True:
  // all of it, so getX509() is never null (what a program that hands the
  // certificate to OpenSSL wants). False: in a cache without keys, only what
  // identifies it (subject and extensions) after checking that the file holds
  // one whole, well-formed certificate; the rest waits for the first getX509(),
  // which returns null if that decoding fails. A certificate read with its key
  // is always decoded whole, since the key is checked against it.
  //
  // Throws nothing but std::bad_alloc. A const lookup (see Threads above).
  std::shared_ptr<Certificate> getCertificate(const std::string& id, const std::string& password,
                                              int& errorCode, bool loadFlag) const;
  // getCertificate for an identity in plain form (an e-mail address), turned
  // into file-name form first ("a@b" becomes "a_at_b", as subjectToFilename
  // makes base names), with an empty password. Meant for a cache without
  // keys, whose index holds base names. In a key-holding cache, whose index
  // holds the filter's identifiers, "a_at_b" is looked up as it stands and
  // normally missed (kNotInIndex); an entry found fails on its key
  // (kKeyUnreadable), since an empty password opens none.
  std::shared_ptr<Certificate> getCertificateOnly(const std::string& id, int& errorCode,
                                                  bool loadFlag) const;
  // The paths of the certificate file and, in a key-holding cache, the key file
  // of `baseName` in the root, whether or not the index knows the base name;
  // the root alone, not the other base locations. 0; kNoKeyFile (tested first;
  // neither path is set then); kNoCertFile (`keyFile` is set already). In a
  // cache without keys `keyFile` is cleared. `baseName` is used as it stands.
  // Throws boost::filesystem::filesystem_error when a file's status cannot be
  // read for a reason other than its absence (a directory on the way without
  // search permission, a link loop).
  int getFileInfo(const std::string& baseName, std::string& keyFile, std::string& certFile) const;
  // Replaces `ids` with the identifiers of the index, in byte-wise order, and
  // returns their number. std::bad_alloc leaves `ids` partly filled.
  std::size_t listIds(std::vector<std::string>& ids) const;
  // The file base name that the index holds for `id`; "" when `id` is absent.
  std::string getFileBaseName(const std::string& id) const;

  // Renames one file of the root's cache directory, baseName + extension to
  // newBaseName + newExtension, replacing a file of that name as rename(2)
  // does. With `allowMissing`, an absent source is a success and nothing
  // happens. False on failure, logged as an error, with nothing changed. Base
  // names are used as they stand. The index is not changed: a lookup of an
  // identifier whose files were renamed misses them (kNoLocationHasIt) until a
  // new cache is built. Though const, it changes files: see Threads above.
  bool renameFile(const std::string& baseName, const char* extension,
                  const std::string& newBaseName, const char* newExtension,
                  bool allowMissing) const;
  // Renames a certificate's .crt, .key and .tpk files in the root, in that
  // order, with renameFile. 0; 1 when the certificate file could not be
  // renamed (nothing changed); 7 when the key file could not be, after the
  // certificate file has been renamed back (if that fails too, it is logged
  // and the certificate stays under the new name). An absent key or request
  // file is no failure, and a request file that cannot be renamed stays under
  // the old name (logged). The index is not changed (see renameFile).
  int renameCert(const std::string& baseName, const std::string& newBaseName);
  // Deletes a certificate's .crt, .key and .tpk files in the root and its index
  // entry. 0; 4 when `id` is not in the index; 1 when the root holds no
  // certificate file for it or the file could not be removed (nothing
  // changed); 8 when the key file could not be removed (the certificate file
  // is gone, the entry stays). A request file that cannot be removed is
  // logged and changes neither the result nor the removal of the entry.
  // Copies in other base locations stay where they are.
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
  // The cache makes no directories: creating in a root without the filter's
  // subdirectory fails with 1. New pairs, requests and installed certificates
  // are not entered in the index; a new cache lists them.
  //
  // Writes `cert` (borrowed) as PEM to `file`, created with the process's mode
  // or emptied; 0 or 1. A failed write may leave the file empty or cut short;
  // OpenSSL's errors of a failed open or write stay on its error queue.
  int writeCert(const boost::filesystem::path& file, X509* cert);
  // Writes `key` (borrowed) to `file`, created with the process's mode or
  // emptied, as PKCS#8 encrypted with Triple-DES under `password` (its
  // characters up to the first NUL), then restricts the file to its owner
  // (Environment::setPrivateAccessMode; if that fails, a warning, not a
  // failure). Set a restrictive umask first: until then the key is readable
  // as the mode allows. 0 or 1; a key that could not be written is removed,
  // and OpenSSL's first error is taken off its queue into the log statement.
  int writePrivateKey(const boost::filesystem::path& file, const std::string& password,
                      EVP_PKEY* key);
  // The same, under AES-256-CBC with PBKDF2 at the profile's iterations; the
  // file is owner-only from the moment it exists (an existing one is
  // restricted before it is emptied). An unusable profile is 1 before the file
  // is touched.
  int writePrivateKey(const boost::filesystem::path& file, const std::string& password,
                      EVP_PKEY* key, const CredentialProfile& profile);
  // Makes a new RSA key and a self-signed certificate for `email` and writes
  // them to the root as BASE.key, then BASE.crt: BASE is the encoded `subject`,
  // or, when that is empty, `email` with "@" written "_at_". 0; 12 empty
  // password; 13 empty `email`; 3 empty base name; 2 when BASE.key exists and
  // `flags` lacks overwriteExisting; 1 when making or writing fails. The
  // refusals and a failure before writing change nothing. A key that cannot
  // be written is removed (with overwriteExisting the earlier key is lost
  // then, and its certificate stays); a certificate that cannot be written
  // is removed together with the new key.
  int createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                              const std::string& password, int flags);
  // The same with the profile's key, a version-3 certificate with a random
  // serial, valid from now for the profile's days, with the credential's
  // extensions (the user filter lists it under `email`).
  int createSelfSignedKeyPair(const std::string& subject, const std::string& email,
                              const std::string& password, int flags,
                              const CredentialProfile& profile);
  // Makes a new RSA key and a certificate request for `email`; the request's PEM
  // goes to `csr`, the key to BASE.tpk in the root (BASE.key with
  // skipTemporaryKey), BASE as above, replacing such a file. 0; 9 in a cache
  // without keys; 12 empty password; 3 empty base name; 2 when BASE.key exists
  // and `flags` lacks overwriteExisting (a pending BASE.tpk does not count: a
  // new request replaces its key); 1 when making the request or writing the
  // key fails. Refusals change nothing; a key that cannot be written is
  // removed. `csr` holds the request once it is made, even if writing the key
  // then fails; otherwise it keeps what it held.
  int createCsr(const std::string& subject, const std::string& email, const std::string& password,
                int flags, std::string& csr);
  // The same with the profile's key and request (CertReq's profile constructor).
  int createCsr(const std::string& subject, const std::string& email, const std::string& password,
                int flags, std::string& csr, const CredentialProfile& profile);
  // Deletes BASE.tpk, the key of an abandoned request, in the root (BASE as
  // above); 0, 3, 9, or 11 when there is none or it cannot be removed (logged
  // as an error).
  int cleanupCsr(const std::string& subject, const std::string& email);
  // Installs a signed certificate given as text (a PEM block, or bare base64
  // of the DER) as BASE.crt in the root, BASE being the encoded `id`, or when
  // `id` is empty the filter's identifier of the certificate with "@" written
  // "_at_"; in a key-holding cache it then renames the pending BASE.tpk to
  // BASE.key. 0; 1 when the text is no certificate or the file cannot be
  // written; 3 empty base name; 2 when BASE.crt exists and `overwrite` is
  // false; 10 when the pending key cannot become the key file (there is no
  // BASE.tpk, for one). A failure after the checks takes the certificate back:
  // the one it replaced is written back with its mode, or the new file is
  // removed. The
  // certificate is not compared with the pending key: a caller that takes
  // certificates from outside compares them first, as the tool does.
  int saveCert(const std::string& id, const std::string& certBase64, bool overwrite);

 private:
  // The watcher builds each index it publishes from the last one plus the files
  // that changed, by the scan's own rules, without scanning the store again.
  friend class CertStoreWatcher;

  // What the scan makes of one certificate file: left out (of another kind,
  // or gone; not counted), left out because it holds no certificate (perhaps
  // not yet: a writer may be at work), counted without its key, or entered.
  enum class Entry { kSkipped, kUnreadable, kWithoutKey, kEntered };

  // Where a lookup reads a file of the store instead of where the path rule
  // puts it: the path rule's path -> the places to try in turn (none: the
  // file counts as absent). The watcher sets this while a commit's intent
  // record says where the files of the commit are to be found.
  using Redirects = std::unordered_map<std::string, std::vector<std::string>>;

  // A cache over `index` as it stands: no scan, no statement.
  CertFileCache(CertificateStore& store, boost::shared_ptr<CertificateFilter> filter,
                bool withPrivateKeys, CertificateIndex index,
                std::shared_ptr<const Redirects> redirects = nullptr);

  // Where the ".crt" extension of `fileName` starts, in any letter case; npos
  // when it has none.
  static std::size_t certExtensionAt(std::string_view fileName);
  // Reads the certificate file `fileName` of the cache directory `dir` (open
  // as `dirFd`), with the scan's checks and statements. On kEntered, `id` is
  // its identifier. Whether its key is there is `keyPresent` when given, else
  // comes from `listing` when given, else from the file system. `buffer` is
  // reused from file to file.
  Entry examineFile(const std::string& dir, int dirFd, std::string_view fileName,
                    const DirectoryListing* listing, std::string& buffer, std::string& id,
                    std::optional<bool> keyPresent = std::nullopt) const;

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

  // Where a lookup reads `path`: `path` itself unless it is redirected.
  boost::filesystem::path readPath(boost::filesystem::path path) const;

  // The path of a file by the store's path rule: location / subdirectory /
  // (baseName + extension). The only place that joins paths.
  boost::filesystem::path filePath(const std::string& location, const std::string& baseName,
                                   const char* extension) const;

  CertificateStore& store_;
  boost::shared_ptr<CertificateFilter> filter_;
  const bool withPrivateKeys_;
  // identifier -> file base name; hashed, so that loading a large store does
  // not compare long identifiers at every step, and in shards that the
  // watcher's indexes share.
  CertificateIndex index_;
  std::shared_ptr<const Redirects> redirects_;  // null but in some of the watcher's
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_CERTIFICATEFILECACHE_H_
