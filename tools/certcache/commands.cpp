#include "commands.h"

#include <ctime>
#include <iostream>
#include <memory>

#include "base/certificate.h"
#include "base/filename.h"
#include "cachecalls.h"
#include "certificatedescription.h"
#include "crlcommands.h"
#include "crypto/certificatechain.h"
#include "inspectcommands.h"
#include "installcommand.h"
#include "output.h"
#include "passwordsource.h"
#include "pkcs12commands.h"
#include "requestcommands.h"
#include "resultwords.h"
#include "safeguards.h"
#include "storecommit.h"
#include "storefiles.h"
#include "toolerror.h"
#include "watchcommand.h"

namespace tavik {
namespace cli {

namespace {

// The cache uses base names as they stand, so one taken from a person must not
// leave the cache directory.
void checkBaseName(const std::string& baseName) {
  if (!isSafeBaseName(baseName)) {
    throw ToolError(kExitUsage, "'" + baseName +
                                    "' is not a file base name: it must be non-empty, not . "
                                    "or .., and hold no / or NUL");
  }
}

int listCommand(const Invocation& invocation, std::ostream& out) {
  StoreSession session(invocation.store, StoreAccess::kRead);
  if (invocation.pendingList) {
    printPending(out, pendingRequests(session.directory()), invocation.json);
    return kExitOk;
  }
  std::vector<std::string> ids;
  session.cache().listIds(ids);
  const CertFileCache& cache = session.cache();
  printList(
      out, ids, [&cache](const std::string& id) { return cache.getFileBaseName(id); },
      invocation.longList, invocation.json);
  return kExitOk;
}

int showCommand(const Invocation& invocation, std::ostream& out) {
  const bool withPassword = !invocation.passin.empty();
  const SecretString password =
      withPassword ? readPassword(invocation.passin, false) : SecretString();
  StoreSession session(invocation.store, StoreAccess::kRead);

  ShowRecord record;
  record.id = invocation.id;
  std::shared_ptr<Certificate> certificate;
  if (withPassword) {
    int errorCode = CertFileCache::kFound;
    certificate = session.cache().getCertificate(invocation.id, password.str(), errorCode, true);
    if (!certificate) {
      throw ToolError(lookupExitStatus(errorCode), describeLookupError(errorCode, invocation.id));
    }
    record.baseName = session.cache().getFileBaseName(invocation.id);
    record.hasKey = certificate->getPrivateKey() != nullptr;
  } else {
    certificate = readCertificateAlone(session.cache(), invocation.id, record.baseName);
  }
  const std::time_t now = std::time(nullptr);
  record.certificate = describeCertificate(certificate->getX509(), now);
  if (invocation.chain) {
    const std::vector<std::shared_ptr<Certificate>> path =
        CertificateChain(session.store()).build(certificate);
    record.withChain = true;
    for (std::size_t i = 1; i < path.size(); ++i)
      record.chain.push_back(describeCertificate(path[i]->getX509(), now));
    if (!CertificateChain::isComplete(path)) {
      record.missing =
          record.chain.empty() ? record.certificate.issuer : record.chain.back().issuer;
    }
  }
  printShow(out, record, invocation.json);
  return kExitOk;
}

int filesCommand(const Invocation& invocation, std::ostream& out) {
  checkBaseName(invocation.baseName);
  StoreSession session(invocation.store, StoreAccess::kRead);
  std::string keyFile;
  std::string certFile;
  failOnResult(session.cache().getFileInfo(invocation.baseName, keyFile, certFile),
               "'" + invocation.baseName + "'");
  printFiles(out, certFile, keyFile, session.withKeys(), invocation.json);
  return kExitOk;
}

int selfSignedCommand(const Invocation& invocation, std::ostream& out) {
  checkEmailAddress(invocation.email);
  if (invocation.store.authorities) {
    throw ToolError(
        kExitUsage,
        "self-signed makes user certificates only, which a --kind ca store never lists");
  }
  const SecretString password = readPassword(invocation.passin, true);
  StoreSession session(invocation.store, StoreAccess::kPrepare);
  const std::string what = "no self-signed pair made for '" + invocation.email + "'";
  const std::string baseName = subjectToFilename(invocation.subject, invocation.email);
  // The library refuses an existing key unless asked to replace it; the staging
  // place is empty, so the store is asked here, before the key is made and
  // again under the lock.
  const auto refuseExisting = [&] {
    if (!invocation.overwrite && !baseName.empty() &&
        entryExists(storeFile(session.directory(), baseName, kKeyExtension))) {
      failOnResult(CertFileCache::kExists, what);
    }
  };
  refuseExisting();
  StoreCommit commit(session.root(), session.filter().subdirectory());
  CertFileCache& cache = commit.cache(session.sharedFilter(), session.withKeys());
  const int flags = CertFileCache::overwriteExisting;
  failOnResult(invocation.legacyKey
                   ? cache.createSelfSignedKeyPair(invocation.subject, invocation.email,
                                                   password.str(), flags)
                   : cache.createSelfSignedKeyPair(invocation.subject, invocation.email,
                                                   password.str(), flags, invocation.credential),
               what);
  session.change();
  refuseExisting();
  for (const char* extension : {kKeyExtension, kCertExtension})
    commit.rename(commit.staged(baseName, extension), commit.stored(baseName, extension));
  commit.commit();
  out << "made a key and a self-signed certificate for " << invocation.email << '\n';
  return kExitOk;
}

int cancelRequestCommand(const Invocation& invocation, std::ostream& out) {
  checkEmailAddress(invocation.email);
  StoreSession session(invocation.store, StoreAccess::kChange);
  failOnResult(session.cache().cleanupCsr(invocation.subject, invocation.email),
               "no request cancelled for '" + invocation.email + "'");
  out << "cancelled the pending request for " << invocation.email << '\n';
  return kExitOk;
}

int renameCommand(const Invocation& invocation, std::ostream& out) {
  checkBaseName(invocation.baseName);
  checkBaseName(invocation.newBaseName);
  StoreSession session(invocation.store, StoreAccess::kChange);
  if (!invocation.overwrite) refuseExistingFiles(session.directory(), invocation.newBaseName);
  StoreCommit commit(session.root(), session.filter().subdirectory());
  if (!entryExists(commit.stored(invocation.baseName, kCertExtension))) {
    throw ToolError(CertFileCache::kFailed,
                    "'" + invocation.baseName + "' was not renamed: it has no certificate file");
  }
  for (const char* extension : {kCertExtension, kKeyExtension, kTempKeyExtension}) {
    commit.rename(commit.stored(invocation.baseName, extension),
                  commit.stored(invocation.newBaseName, extension));
  }
  commit.commit();
  out << "renamed " << invocation.baseName << " to " << invocation.newBaseName << '\n';
  return kExitOk;
}

int removeCommand(const Invocation& invocation, std::ostream& out) {
  StoreSession session(invocation.store, StoreAccess::kChange);
  const std::string what = "'" + invocation.id + "' was not removed";
  const std::string baseName = session.cache().getFileBaseName(invocation.id);
  if (baseName.empty()) failOnResult(CertFileCache::kUnknownId, what);
  StoreCommit commit(session.root(), session.filter().subdirectory());
  // As the library's removal: the certificate file of the root goes, or nothing does.
  if (!entryExists(commit.stored(baseName, kCertExtension))) {
    throw ToolError(CertFileCache::kFailed, what +
                                                ": the store's root has no certificate file "
                                                "for it");
  }
  for (const char* extension : {kCertExtension, kKeyExtension, kTempKeyExtension})
    commit.remove(commit.stored(baseName, extension));
  commit.commit();
  out << "removed " << invocation.id << '\n';
  return kExitOk;
}

int recoverCommand(const Invocation& invocation, std::ostream& out) {
  // A changing session completes whatever it finds before it does anything else.
  StoreSession session(invocation.store, StoreAccess::kChange);
  out << "nothing is left unfinished in " << session.root() << '\n';
  return kExitOk;
}

int expiringCommand(const Invocation& invocation, std::ostream& out) {
  StoreSession session(invocation.store, StoreAccess::kRead);
  const std::time_t now = std::time(nullptr);
  const std::time_t cutoff = now + static_cast<std::time_t>(invocation.days) * 24 * 60 * 60;

  std::vector<std::string> ids;
  session.cache().listIds(ids);
  std::vector<ExpiringEntry> entries;
  int failure = kExitOk;
  for (const std::string& id : ids) {
    try {
      std::string baseName;
      std::shared_ptr<Certificate> certificate =
          readCertificateAlone(session.cache(), id, baseName);
      const CertificateDescription description = describeCertificate(certificate->getX509(), now);
      if (description.notAfterTime <= cutoff) {
        entries.push_back({id, description.notAfter, description.expired});
      }
    } catch (const ToolError& error) {
      // One unreadable certificate must not hide the others from a monitoring
      // check; it is told on its own line and decides the exit status.
      std::cerr << "certcache: expiring: " << error.what() << '\n';
      if (failure == kExitOk) failure = error.status();
    }
  }
  printExpiring(out, entries, invocation.json);
  if (failure != kExitOk) return failure;
  return entries.empty() ? kExitOk : kExitDue;
}

}  // namespace

int runCommand(const Invocation& invocation, std::ostream& out) {
  const std::string& command = invocation.command;
  if (command == "list") return listCommand(invocation, out);
  if (command == "show") return showCommand(invocation, out);
  if (command == "files") return filesCommand(invocation, out);
  if (command == "self-signed") return selfSignedCommand(invocation, out);
  if (command == "request") return requestCommand(invocation, out);
  if (command == "renew") return renewCommand(invocation, out);
  if (command == "cancel-request") return cancelRequestCommand(invocation, out);
  if (command == "install") return installCommand(invocation, out);
  if (command == "rename") return renameCommand(invocation, out);
  if (command == "remove") return removeCommand(invocation, out);
  if (command == "recover") return recoverCommand(invocation, out);
  if (command == "expiring") return expiringCommand(invocation, out);
  if (command == "check") return checkCommand(invocation, out);
  if (command == "verify") return verifyCommand(invocation, out);
  if (command == "export") return exportCommand(invocation, out);
  if (command == "import") return importCommand(invocation, out);
  if (command == "watch") return watchCommand(invocation, out);
  if (command == "crl add") return crlAddCommand(invocation, out);
  if (command == "crl list") return crlListCommand(invocation, out);
  throw ToolError(kExitUsage, "unknown command '" + command + "'");
}

}  // namespace cli
}  // namespace tavik
