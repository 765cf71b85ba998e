#include "pkcs12commands.h"

#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "base/filecontents.h"
#include "base/filedescriptor.h"
#include "base/opensslutil.h"
#include "certificateinput.h"
#include "keyfile.h"
#include "passwordsource.h"
#include "resultwords.h"
#include "storecommit.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

namespace fs = boost::filesystem;

using Pkcs12Ptr = OpenSSLPtr<PKCS12, PKCS12_free>;
inline void freeCertificates(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}
using CertificatesPtr = OpenSSLPtr<STACK_OF(X509), freeCertificates>;

// PBKDF2 over SHA-256 for the bags and the MAC alike; ten times the least that
// the file's readers are promised, which costs a fraction of a second.
constexpr int kIterations = 100000;

void refuseKeylessStore(const Invocation& invocation) {
  if (!invocation.store.withKeys) {
    throw ToolError(kExitUsage,
                    invocation.command + " moves keys, which a --no-keys store has not");
  }
}

// The second password: the --passout source's, or the first one again. It
// protects a key, so it may not be empty.
std::string secondPassword(const Invocation& invocation, const std::string& first) {
  std::string second = invocation.passout.empty() ? first : readPassword(invocation.passout, true);
  if (second.empty()) {
    throw ToolError(CertFileCache::kEmptyPassword, "the password that protects the key is empty");
  }
  return second;
}

// How a PKCS#12 file is protected: the bags' algorithm and the MAC's digest.
struct Pkcs12Protection {
  int bags;
  const EVP_MD* (*mac)();
};

// AES-256 under PBKDF2, which every current reader takes; with `legacy`,
// Triple-DES under the PKCS#12 derivation for both bags (RC2, the other old
// choice, is gone from OpenSSL's default provider) and a SHA-1 MAC.
Pkcs12Ptr makePkcs12(const std::string& name, X509* certificate, EVP_PKEY* key,
                     const std::string& password, bool legacy) {
  const Pkcs12Protection protection =
      legacy ? Pkcs12Protection{NID_pbe_WithSHA1And3_Key_TripleDES_CBC, EVP_sha1}
             : Pkcs12Protection{NID_aes_256_cbc, EVP_sha256};
  // No MAC at first: PKCS12_create would take SHA-1 for it.
  Pkcs12Ptr container(PKCS12_create_ex(password.c_str(), name.c_str(), key, certificate, nullptr,
                                       protection.bags, protection.bags, kIterations, -1, 0,
                                       nullptr, nullptr));
  if (!container || PKCS12_set_mac(container.get(), password.c_str(), -1, nullptr, 0, kIterations,
                                   protection.mac()) != 1) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot make the PKCS#12 file");
  }
  return container;
}

// The file being written beside an output, for the signal handler below.
char besideOutput[4096];

// An export stopped by a signal takes its unfinished file with it.
extern "C" void removeUnfinished(int signal) {
  if (besideOutput[0] != '\0') ::unlink(besideOutput);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

// What an export that died left beside `path`: its unfinished files, named
// path.certcache-XXXXXX. Any of them that belongs to this user goes.
void removeUnfinishedBeside(const std::string& path) {
  const fs::path output = fs::absolute(path);
  const std::string prefix = output.filename().string() + ".certcache-";
  boost::system::error_code error;
  for (fs::directory_iterator it(output.parent_path(), error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    struct stat info {};
    if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0 &&
        ::lstat(it->path().c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        info.st_uid == ::geteuid()) {
      ::unlink(it->path().c_str());
    }
  }
}

// Writes `bytes` beside `path` and renames them over it, so that the file is
// whole or as it was; it is readable by its owner alone, as a key is. Nothing
// is left beside it on any way out: an error removes the file, a signal that
// ends the run too, and a kill leaves it to the next export.
void replaceFile(const std::string& path, const std::string& bytes) {
  removeUnfinishedBeside(path);
  std::string temporary = path + ".certcache-XXXXXX";
  if (temporary.size() >= sizeof besideOutput) throw ToolError(kExitUsage, "the path is too long");
  const int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  for (int signal : signals) std::signal(signal, removeUnfinished);
  const FileDescriptor created(::mkstemp(&temporary[0]));
  if (created.isOpen()) std::strcpy(besideOutput, temporary.c_str());
  boost::system::error_code error;
  const bool written = created.isOpen() && writeWholeFile(temporary, bytes, 0600) &&
                       ::fsync(created.get()) == 0 && (fs::rename(temporary, path, error), !error);
  if (!written && created.isOpen()) fs::remove(temporary, error);
  besideOutput[0] = '\0';
  for (int signal : signals) std::signal(signal, SIG_DFL);
  if (!written) throw ToolError(kExitIoError, "cannot write " + path);
}

// The DER encoding of an OpenSSL object, by its i2d function.
template <typename T, int (*Encode)(const T*, unsigned char**)>
std::string encodeDer(const T* object) {
  unsigned char* bytes = nullptr;
  const int length = Encode(object, &bytes);
  const OpenSSLBytesPtr owner(bytes);
  ERR_clear_error();
  if (length <= 0) throw ToolError(kExitIoError, "cannot encode the credential");
  return std::string(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(length));
}

struct Pkcs12Contents {
  PkeyHandle key;
  X509Ptr certificate;
  CertificatesPtr authorities;
};

Pkcs12Contents readPkcs12(const std::string& path, const std::string& password) {
  std::string bytes;
  if (!readSmallRegularFile(path, kMaxCredentialFileSize, bytes)) {
    throw ToolError(kExitNoInput, "cannot read " + path + " (or it is larger than 1 MiB)");
  }
  const unsigned char* at = reinterpret_cast<const unsigned char*>(bytes.data());
  Pkcs12Ptr container(d2i_PKCS12(nullptr, &at, static_cast<long>(bytes.size())));
  ERR_clear_error();
  if (!container) throw ToolError(kExitDataError, path + " is not a PKCS#12 file");
  // The MAC proves the file whole, and tells a wrong password from a file this
  // OpenSSL cannot decrypt.
  if (PKCS12_mac_present(container.get()) != 1) {
    throw ToolError(kExitDataError, path + " has no MAC, so nothing proves it whole");
  }
  const char* pass = password.c_str();
  if (PKCS12_verify_mac(container.get(), pass, -1) != 1 &&
      (!password.empty() || PKCS12_verify_mac(container.get(), nullptr, 0) != 1)) {
    ERR_clear_error();
    throw ToolError(lookupExitStatus(CertFileCache::kKeyUnreadable),
                    path + " cannot be read with this password");
  }
  EVP_PKEY* key = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* authorities = nullptr;
  const int parsed = PKCS12_parse(container.get(), pass, &key, &certificate, &authorities);
  ERR_clear_error();
  Pkcs12Contents contents{PkeyHandle(key), X509Ptr(certificate), CertificatesPtr(authorities)};
  if (parsed != 1) {
    throw ToolError(kExitDataError, path +
                                        " cannot be decrypted: it uses an algorithm this system "
                                        "does not offer (openssl pkcs12 -legacy can convert it)");
  }
  if (!contents.key || !contents.certificate) {
    throw ToolError(kExitDataError,
                    path + " holds no " + (contents.key ? "certificate" : "private key"));
  }
  if (!isKeyOf(contents.certificate.get(), contents.key.get())) {
    throw ToolError(kExitDataError, "the key in " + path + " is not its certificate's");
  }
  return contents;
}

// The store's view of an X509: what its filter and naming rule take.
std::shared_ptr<Certificate> storeCertificate(const X509* certificate) {
  return readCertificateInput(encodeDer<X509, i2d_X509>(certificate)).certificates.front();
}

// Writes certificate and key with the library's writers in the staging place
// and commits them into the store together.
void writePair(StoreSession& session, const std::string& baseName, X509* certificate, EVP_PKEY* key,
               const std::string& password) {
  StoreCommit commit(session.root(), session.filter().subdirectory());
  CertFileCache& cache = commit.cache(session.sharedFilter(), true);
  if (cache.writePrivateKey(commit.staged(baseName, kKeyExtension), password, key,
                            CredentialProfile()) != CertFileCache::kDone ||
      cache.writeCert(commit.staged(baseName, kCertExtension), certificate) !=
          CertFileCache::kDone) {
    throw ToolError(CertFileCache::kFailed, "the certificate and key were not imported");
  }
  for (const char* extension : {kKeyExtension, kCertExtension})
    commit.rename(commit.staged(baseName, extension), commit.stored(baseName, extension));
  commit.commit();
}

}  // namespace

int exportCommand(const Invocation& invocation, std::ostream& out) {
  refuseKeylessStore(invocation);
  const std::string password = readPassword(invocation.passin, false);
  const std::string filePassword = secondPassword(invocation, password);
  StoreSession session(invocation.store, StoreAccess::kRead);
  int errorCode = CertFileCache::kFound;
  const std::shared_ptr<Certificate> credential =
      session.cache().getCertificate(invocation.id, password, errorCode, true);
  if (!credential) {
    throw ToolError(lookupExitStatus(errorCode), describeLookupError(errorCode, invocation.id));
  }
  const Pkcs12Ptr container =
      makePkcs12(invocation.id, credential->getX509(), credential->getPrivateKey(), filePassword,
                 invocation.legacyPkcs12);
  replaceFile(invocation.outFile, encodeDer<PKCS12, i2d_PKCS12>(container.get()));
  if (invocation.legacyPkcs12) {
    std::cerr << "certcache: export: " << invocation.outFile
              << " is protected with Triple-DES and a SHA-1 MAC only, for software that reads "
                 "nothing newer\n";
  }
  out << "wrote the certificate and key of " << invocation.id << " to " << invocation.outFile
      << '\n';
  return kExitOk;
}

int importCommand(const Invocation& invocation, std::ostream& out) {
  refuseKeylessStore(invocation);
  const std::string filePassword = readPassword(invocation.passin, false);
  const std::string password = secondPassword(invocation, filePassword);
  const Pkcs12Contents contents = readPkcs12(invocation.inputFile, filePassword);
  StoreSession session(invocation.store, StoreAccess::kCreate);
  const std::shared_ptr<Certificate> certificate = storeCertificate(contents.certificate.get());
  if (!session.filter().acceptsCertificate(certificate)) {
    throw ToolError(kExitDataError, "the certificate in " + invocation.inputFile +
                                        " is not of the kind this store keeps in " +
                                        session.filter().subdirectory() + "/");
  }
  const std::string baseName =
      subjectToFilename(invocation.id, session.filter().certificateId(certificate));
  if (baseName.empty()) {
    throw ToolError(kExitDataError, "the certificate names nobody to call its files after");
  }
  const std::string directory = session.directory();
  if (!invocation.overwrite && (entryExists(storeFile(directory, baseName, kKeyExtension)) ||
                                entryExists(storeFile(directory, baseName, kCertExtension)))) {
    throw ToolError(
        CertFileCache::kExists,
        baseName + " is installed (add --overwrite to replace its certificate and key)");
  }
  writePair(session, baseName, contents.certificate.get(), contents.key.get(), password);
  const int authorities = contents.authorities ? sk_X509_num(contents.authorities.get()) : 0;
  if (authorities > 0) {
    std::cerr << "certcache: import: left out " << authorities
              << " authority certificate(s): the store keeps one certificate a key\n";
  }
  out << "imported the certificate and key as " << baseName << '\n';
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
