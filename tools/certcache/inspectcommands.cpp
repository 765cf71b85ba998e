#include "inspectcommands.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <ctime>

#include "base/opensslutil.h"
#include "cachecalls.h"
#include "crypto/certificatechain.h"
#include "output.h"
#include "passwordsource.h"
#include "storecheck.h"
#include "storecommit.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

using X509StorePtr = OpenSSLPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSSLPtr<X509_STORE_CTX, X509_STORE_CTX_free>;

// Every certificate of the PEM file `path`, trusted as an authority.
X509StorePtr readAuthorities(const std::string& path) {
  BioPtr file(BIO_new_file(path.c_str(), "r"));
  if (!file) {
    ERR_clear_error();
    throw ToolError(kExitNoInput, "cannot read the authorities' file " + path);
  }
  X509StorePtr authorities(X509_STORE_new());
  if (!authorities) throw ToolError(kExitIoError, "out of memory");
  int count = 0;
  for (;;) {
    X509Ptr certificate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
    if (!certificate) break;
    if (X509_STORE_add_cert(authorities.get(), certificate.get()) != 1) {
      ERR_clear_error();
      throw ToolError(kExitIoError, "cannot take the authorities of " + path);
    }
    ++count;
  }
  // The end of the file, or a block that is no certificate.
  const unsigned long stop = ERR_peek_last_error();
  ERR_clear_error();
  if (ERR_GET_REASON(stop) != PEM_R_NO_START_LINE || count == 0) {
    throw ToolError(kExitDataError, path + (count == 0 ? " holds no PEM certificate"
                                                       : " holds a broken PEM block"));
  }
  return authorities;
}

// The store's own authorities that could stand above `certificate`: the
// self-signed ones trusted, the others handed to the validator as
// intermediates (into `intermediates`), which finds the path.
X509StorePtr storeAuthorities(CertificateStore& store, const std::shared_ptr<Certificate>& leaf,
                              X509StackPtr& intermediates) {
  X509StorePtr trusted(X509_STORE_new());
  intermediates.reset(sk_X509_new_null());
  if (!trusted || !intermediates) throw ToolError(kExitIoError, "out of memory");
  for (const std::shared_ptr<Certificate>& authority : CertificateChain(store).candidates(leaf)) {
    X509* certificate = authority->getX509();
    const bool selfSigned = CertificateChain::isComplete({authority});
    if (selfSigned ? X509_STORE_add_cert(trusted.get(), certificate) != 1
                   : sk_X509_push(intermediates.get(), certificate) <= 0) {
      ERR_clear_error();
      throw ToolError(kExitIoError, "cannot take the store's authorities");
    }
    if (!selfSigned) X509_up_ref(certificate);
  }
  return trusted;
}

// "" when `certificate` chains to one of `authorities`, else OpenSSL's reason.
std::string verifyChain(X509_STORE* authorities, X509* certificate, STACK_OF(X509) * untrusted) {
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context || X509_STORE_CTX_init(context.get(), authorities, certificate, untrusted) != 1) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot set up the verification");
  }
  const int verified = X509_verify_cert(context.get());
  ERR_clear_error();
  if (verified == 1) return "";
  const int reason = X509_STORE_CTX_get_error(context.get());
  if (verified < 0 || reason == X509_V_OK) {
    throw ToolError(kExitIoError, "the verification could not run");
  }
  return X509_verify_cert_error_string(reason);
}

}  // namespace

int checkCommand(const Invocation& invocation, std::ostream& out) {
  const bool withPassword = !invocation.passin.empty();
  const SecretString password =
      withPassword ? readPassword(invocation.passin, false) : SecretString();
  StoreSession session(invocation.store, StoreAccess::kInspect);
  CheckRules rules;
  rules.withKeys = session.withKeys();
  rules.now = std::time(nullptr);
  rules.days = invocation.days;
  if (withPassword && session.withKeys()) rules.password = &password.str();
  // A user certificate whose issuer is nowhere in the store cannot be presented
  // with its chain.
  const CertificateChain authorities(session.store());
  if (!invocation.store.authorities) rules.authorities = &authorities;

  // A change that a dead run left is reported, not completed: the person
  // running check wants to see the store as it is.
  std::vector<Finding> findings;
  for (const std::string& path : StoreCommit::leftovers(session.root())) {
    findings.push_back({"interrupted", path,
                        "a change an earlier run left unfinished; any changing command or "
                        "certcache recover completes it"});
  }
  for (const std::string& directory : session.directories()) {
    std::vector<Finding> found = checkDirectory(directory, session.filter(), rules);
    findings.insert(findings.end(), found.begin(), found.end());
  }
  printFindings(out, findings, invocation.json);
  return findings.empty() ? kExitOk : kExitDue;
}

int verifyCommand(const Invocation& invocation, std::ostream& out) {
  StoreSession session(invocation.store, StoreAccess::kRead);
  std::string baseName;
  const std::shared_ptr<Certificate> certificate =
      readCertificateAlone(session.cache(), invocation.id, baseName);
  X509StackPtr intermediates;
  const bool ownAuthorities = invocation.caFile.empty();
  const X509StorePtr authorities =
      ownAuthorities ? storeAuthorities(session.store(), certificate, intermediates)
                     : readAuthorities(invocation.caFile);
  const std::string reason =
      verifyChain(authorities.get(), certificate->getX509(), intermediates.get());
  printVerification(out, invocation.id, reason, invocation.json);
  if (!reason.empty()) {
    throw ToolError(kExitDataError,
                    "'" + invocation.id + "' does not chain to an authority " +
                        (ownAuthorities ? "of the store" : "in " + invocation.caFile) + ": " +
                        reason);
  }
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
