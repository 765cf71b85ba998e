#include "pkcs12commands.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>

#include "authoritykeeping.h"
#include "base/filecontents.h"
#include "base/filedescriptor.h"
#include "base/opensslutil.h"
#include "cachecalls.h"
#include "certificateinput.h"
#include "crypto/certificatechain.h"
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
SecretString secondPassword(const Invocation& invocation, const SecretString& first) {
  SecretString second = invocation.passout.empty() ? SecretString(first.str())
                                                   : readPassword(invocation.passout, true);
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
                     STACK_OF(X509) * authorities, const std::string& password, bool legacy) {
  const Pkcs12Protection protection =
      legacy ? Pkcs12Protection{NID_pbe_WithSHA1And3_Key_TripleDES_CBC, EVP_sha1}
             : Pkcs12Protection{NID_aes_256_cbc, EVP_sha256};
  // No MAC at first: PKCS12_create would take SHA-1 for it.
  Pkcs12Ptr container(PKCS12_create_ex(password.c_str(), name.c_str(), key, certificate,
                                       authorities, protection.bags, protection.bags, kIterations,
                                       -1, 0, nullptr, nullptr));
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

// Writes a file beside `path` with `write` (given the new file's path) and
// renames it over `path`, so that the file is whole or as it was; it is
// readable by its owner alone, as a key is. Nothing is left beside it on any
// way out: an error removes the file, a signal that ends the run too, and a
// kill leaves it to the next export.
void replaceFile(const std::string& path, const std::function<bool(const std::string&)>& write) {
  removeUnfinishedBeside(path);
  std::string temporary = path + ".certcache-XXXXXX";
  if (temporary.size() >= sizeof besideOutput) throw ToolError(kExitUsage, "the path is too long");
  const int signals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  for (int signal : signals) std::signal(signal, removeUnfinished);
  const FileDescriptor created(::mkstemp(&temporary[0]));
  if (created.isOpen()) std::strcpy(besideOutput, temporary.c_str());
  boost::system::error_code error;
  const bool written = created.isOpen() && write(temporary) && ::fsync(created.get()) == 0 &&
                       (fs::rename(temporary, path, error), !error);
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
  X509StackPtr authorities;
};

Pkcs12Contents readPkcs12(const std::string& path, const std::string& password) {
  std::string read;
  const bool whole = readSmallRegularFile(path, kMaxCredentialFileSize, read);
  const SecretString bytes(std::move(read));
  if (!whole) {
    throw ToolError(kExitNoInput, "cannot read " + path + " (or it is larger than 1 MiB)");
  }
  const unsigned char* at = reinterpret_cast<const unsigned char*>(bytes.c_str());
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
  Pkcs12Contents contents{PkeyHandle(key), X509Ptr(certificate), X509StackPtr(authorities)};
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
// and commits them into the store together, with the authorities that came
// with them; returns the identifiers of the authorities kept.
std::vector<std::string> writePair(StoreSession& session, const std::string& baseName,
                                   X509* certificate, EVP_PKEY* key, const std::string& password,
                                   const std::vector<std::shared_ptr<Certificate>>& authorities) {
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
  const std::vector<std::string> kept =
      stageAuthorities(authorities, session.store(), commit, cache);
  commit.commit();
  return kept;
}

// The certificate of `id` with the authorities above it; with `withKey`, its key too.
ChainedCredential readCredential(StoreSession& session, const std::string& id,
                                 const std::string& password, bool withKey) {
  const CertificateChain chain(session.store());
  if (!withKey) {
    std::string baseName;
    ChainedCredential credential;
    credential.certificate = readCertificateAlone(session.cache(), id, baseName);
    const std::vector<std::shared_ptr<Certificate>> path = chain.build(credential.certificate);
    credential.authorities.assign(path.begin() + 1, path.end());
    return credential;
  }
  int errorCode = CertFileCache::kFound;
  ChainedCredential credential = chain.getCredential(session.cache(), id, password, errorCode);
  if (!credential.certificate) {
    throw ToolError(lookupExitStatus(errorCode), describeLookupError(errorCode, id));
  }
  return credential;
}

std::string pemOf(X509* certificate) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot encode the certificate");
  }
  return std::string(data, static_cast<std::size_t>(BIO_get_mem_data(bio.get(), &data)));
}

void writeOrFail(const std::string& path, const std::string& bytes) {
  replaceFile(path,
              [&bytes](const std::string& file) { return writeWholeFile(file, bytes, 0600); });
}

}  // namespace

int exportCommand(const Invocation& invocation, std::ostream& out) {
  // The certificates alone are no secret: --pem without --key-out needs no password.
  const bool withKey = !invocation.pemExport || !invocation.keyOutFile.empty();
  if (withKey) refuseKeylessStore(invocation);
  const SecretString password = withKey ? readPassword(invocation.passin, false) : SecretString();
  const SecretString filePassword = withKey ? secondPassword(invocation, password) : SecretString();
  StoreSession session(invocation.store, StoreAccess::kRead);
  ChainedCredential credential = readCredential(session, invocation.id, password.str(), withKey);
  if (invocation.noChain) credential.authorities.clear();
  X509* certificate = credential.certificate->getX509();
  if (invocation.pemExport) {
    std::string text = pemOf(certificate);
    for (const std::shared_ptr<Certificate>& authority : credential.authorities)
      text += pemOf(authority->getX509());
    writeOrFail(invocation.outFile, text);
    if (withKey) {
      replaceFile(invocation.keyOutFile, [&](const std::string& file) {
        return session.cache().writePrivateKey(file, filePassword.str(),
                                               credential.certificate->getPrivateKey(),
                                               CredentialProfile()) == CertFileCache::kDone;
      });
    }
  } else {
    const X509StackPtr authorities = credential.authorityStack();
    if (!authorities) throw ToolError(kExitIoError, "out of memory");
    const Pkcs12Ptr container =
        makePkcs12(invocation.id, certificate, credential.certificate->getPrivateKey(),
                   authorities.get(), filePassword.str(), invocation.legacyPkcs12);
    writeOrFail(invocation.outFile,
                SecretString(encodeDer<PKCS12, i2d_PKCS12>(container.get())).str());
  }
  if (invocation.legacyPkcs12) {
    std::cerr << "certcache: export: " << invocation.outFile
              << " is protected with Triple-DES and a SHA-1 MAC only, for software that reads "
                 "nothing newer\n";
  }
  out << "wrote the certificate" << (withKey ? " and key" : "") << " of " << invocation.id;
  if (!credential.authorities.empty()) {
    out << " with " << credential.authorities.size() << " authorit"
        << (credential.authorities.size() == 1 ? "y" : "ies");
  }
  out << " to " << invocation.outFile;
  if (!invocation.keyOutFile.empty()) out << " and " << invocation.keyOutFile;
  out << '\n';
  return kExitOk;
}

int importCommand(const Invocation& invocation, std::ostream& out) {
  refuseKeylessStore(invocation);
  const SecretString filePassword = readPassword(invocation.passin, false);
  const SecretString password = secondPassword(invocation, filePassword);
  const Pkcs12Contents contents = readPkcs12(invocation.inputFile, filePassword.str());
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
  std::vector<std::shared_ptr<Certificate>> others;
  for (int i = 0; i < sk_X509_num(contents.authorities.get()); ++i)
    others.push_back(storeCertificate(sk_X509_value(contents.authorities.get(), i)));
  tellKeptAuthorities(writePair(session, baseName, contents.certificate.get(), contents.key.get(),
                                password.str(), others));
  for (const std::shared_ptr<Certificate>& other : others) {
    if (!other->identity().authority) {
      std::cerr << "certcache: import: left out " << other->identity().name
                << ": not an authority\n";
    }
  }
  out << "imported the certificate and key as " << baseName << '\n';
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
