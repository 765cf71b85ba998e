#include "inspectcommands.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <ctime>
#include <string_view>

#include "base/opensslutil.h"
#include "cachecalls.h"
#include "certificatedescription.h"
#include "crypto/certificatechain.h"
#include "crypto/revocationlists.h"
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
X509StorePtr storeAuthorities(const CertificateChain& authorities,
                              const std::shared_ptr<Certificate>& leaf,
                              X509StackPtr& intermediates) {
  X509StorePtr trusted(X509_STORE_new());
  intermediates.reset(sk_X509_new_null());
  if (!trusted || !intermediates) throw ToolError(kExitIoError, "out of memory");
  for (const std::shared_ptr<Certificate>& authority : authorities.candidates(leaf)) {
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

// A certificate of the path OpenSSL built (borrowed), as the revocation check takes it.
std::shared_ptr<Certificate> certificateOf(X509* certificate) {
  unsigned char* bytes = nullptr;
  const int length = i2d_X509(certificate, &bytes);
  const OpenSSLBytesPtr der(bytes);
  std::shared_ptr<Certificate> taken =
      length > 0 ? Certificate::createFromContents(
                       std::string_view(reinterpret_cast<const char*>(bytes), length), true)
                 : nullptr;
  ERR_clear_error();
  if (!taken) throw ToolError(kExitIoError, "cannot take the certificates of the path");
  return taken;
}

// OpenSSL's verdict on a certificate: why it does not chain ("" when it does),
// and the path it built, leaf first, as far as it went.
struct PathVerdict {
  std::string reason;
  std::vector<std::shared_ptr<Certificate>> path;
};

PathVerdict verifyChain(X509_STORE* authorities, const std::shared_ptr<Certificate>& leaf,
                        STACK_OF(X509) * untrusted) {
  X509StoreCtxPtr context(X509_STORE_CTX_new());
  if (!context ||
      X509_STORE_CTX_init(context.get(), authorities, leaf->getX509(), untrusted) != 1) {
    ERR_clear_error();
    throw ToolError(kExitIoError, "cannot set up the verification");
  }
  const int verified = X509_verify_cert(context.get());
  ERR_clear_error();
  PathVerdict verdict{"", {leaf}};
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
  for (int i = 1; i < sk_X509_num(chain); ++i) {
    verdict.path.push_back(certificateOf(sk_X509_value(chain, i)));
  }
  if (verified == 1) return verdict;
  const int reason = X509_STORE_CTX_get_error(context.get());
  if (verified < 0 || reason == X509_V_OK) {
    throw ToolError(kExitIoError, "the verification could not run");
  }
  verdict.reason = X509_verify_cert_error_string(reason);
  return verdict;
}

// The names of RevocationStatus::State, in its order.
const char* const kRevocationStates[] = {"good", "revoked", "unknown"};

// Applies the kept lists' word on `path` to `record`: the first certificate
// revoked decides, else the first whose revocation is unknown. Returns why the
// certificate fails for it, for the tool's line on stderr, or "" when it does not.
std::string judgeRevocation(const Invocation& invocation,
                            const std::vector<std::shared_ptr<Certificate>>& path,
                            const std::vector<RevocationStatus>& statuses,
                            VerificationRecord& record) {
  using State = RevocationStatus::State;
  const auto first = [&statuses](State state) {
    return std::find_if(statuses.begin(), statuses.end(),
                        [state](const RevocationStatus& status) { return status.state == state; });
  };
  auto decisive = first(State::revoked);
  if (decisive == statuses.end()) decisive = first(State::unknown);
  if (decisive == statuses.end()) {
    record.revocation = kRevocationStates[static_cast<int>(State::good)];
    return "";
  }
  const std::size_t at = static_cast<std::size_t>(decisive - statuses.begin());
  const RevocationStatus& status = *decisive;
  record.revocation = kRevocationStates[static_cast<int>(status.state)];
  X509* certificate = path[at]->getX509();
  const std::string issuer = OpenSSLUtil::nameText(X509_get_issuer_name(certificate));
  const std::string whom =
      at == 0 ? "it" : "its authority " + OpenSSLUtil::nameText(X509_get_subject_name(certificate));
  const bool failed = !record.reason.empty();
  if (status.state == State::revoked) {
    record.revokedAt = formatTime(status.revokedAt);
    if (failed) return "";
    record.reason = X509_verify_cert_error_string(X509_V_ERR_CERT_REVOKED);
    record.detail = status.reason;
    return "'" + invocation.id + "' is revoked: the list of " + issuer + " revokes " + whom +
           " since " + record.revokedAt + " (" + status.reason + ")";
  }
  if (failed || !invocation.requireCrl) return "";
  record.reason = X509_verify_cert_error_string(status.stale ? X509_V_ERR_CRL_HAS_EXPIRED
                                                             : X509_V_ERR_UNABLE_TO_GET_CRL);
  return "the revocation of '" + invocation.id + "' is unknown, which --require-crl refuses: " +
         (status.stale ? "the list of " + issuer + " kept for " + whom + " is past its nextUpdate"
                       : "no list of " + issuer + " kept in the store counts for " + whom);
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
  // A kept list past its nextUpdate, and a user certificate that a kept list revokes.
  const RevocationLists lists(session.store(), authorities);
  rules.revocation = &lists;

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
  if (invocation.requireCrl && invocation.crlCheck == "off") {
    throw ToolError(kExitUsage,
                    "--require-crl cannot go with --crl-check off, which checks no list");
  }
  StoreSession session(invocation.store, StoreAccess::kRead);
  std::string baseName;
  const std::shared_ptr<Certificate> certificate =
      readCertificateAlone(session.cache(), invocation.id, baseName);
  const CertificateChain authorities(session.store());
  X509StackPtr intermediates;
  const bool ownAuthorities = invocation.caFile.empty();
  const X509StorePtr trusted = ownAuthorities
                                   ? storeAuthorities(authorities, certificate, intermediates)
                                   : readAuthorities(invocation.caFile);
  const PathVerdict verdict = verifyChain(trusted.get(), certificate, intermediates.get());
  VerificationRecord record;
  record.id = invocation.id;
  record.reason = verdict.reason;
  std::string why;
  if (!verdict.reason.empty()) {
    why = "'" + invocation.id + "' does not chain to an authority " +
          (ownAuthorities ? "of the store" : "in " + invocation.caFile) + ": " + verdict.reason;
  }
  // The store's lists apply to the path whoever is trusted: a list counts
  // where it verifies with the key of its issuer on the path.
  if (invocation.crlCheck != "off") {
    const RevocationLists lists(session.store(), authorities);
    const RevocationScope scope =
        invocation.crlCheck == "leaf" ? RevocationScope::leaf : RevocationScope::all;
    const std::string revoked =
        judgeRevocation(invocation, verdict.path, lists.check(verdict.path, scope), record);
    if (why.empty()) why = revoked;
  }
  printVerification(out, record, invocation.json);
  if (!why.empty()) throw ToolError(kExitDataError, why);
  return kExitOk;
}

}  // namespace cli
}  // namespace tavik
