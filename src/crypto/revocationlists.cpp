// The revocation check's statements are its own (a list passed over, a list
// that does not count for a certificate, a revocation): they name this file
// and go through a handle of its own.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/revocationlists.cpp"

#include "crypto/revocationlists.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <string_view>

#include "base/directorylisting.h"
#include "base/filecontents.h"
#include "base/filename.h"
#include "log/log.h"

namespace tavik {

namespace {

LogHandle logHandle(nullptr, 0, 2);
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

// The reasons of RFC 5280 by their codes, as OpenSSL names them; code 7 is unused.
const char* const kReasons[] = {"unspecified",        "keyCompromise", "CACompromise",
                                "affiliationChanged", "superseded",    "cessationOfOperation",
                                "certificateHold",    nullptr,         "removeFromCRL",
                                "privilegeWithdrawn", "AACompromise"};

bool hasListExtension(std::string_view name) {
  const std::size_t length = sizeof kRevocationExtension - 1;
  return name.size() > length &&
         to_lowercase(std::string(name.substr(name.size() - length))) == kRevocationExtension;
}

std::string subjectOf(X509* certificate) {
  return OpenSSLUtil::nameText(X509_get_subject_name(certificate));
}

// OpenSSL's own check of a list, which the check hands every list that the
// index did not verify: what a verification context uses when its store sets
// no check of its own. Found once, from a context made for the purpose.
X509_STORE_CTX_check_crl_fn openSslListCheck() {
  static std::atomic<X509_STORE_CTX_check_crl_fn> found{nullptr};
  if (found.load() == nullptr) {
    const X509StorePtr store(X509_STORE_new());
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    if (store && context &&
        X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr) == 1) {
      found.store(X509_STORE_CTX_get_check_crl(context.get()));
    }
  }
  return found.load();
}

// Tells the verification callback of `error`, as OpenSSL's own check of a list
// does; false when the callback ends the verification.
bool report(X509_STORE_CTX* context, int error) {
  X509_STORE_CTX_set_error(context, error);
  return X509_STORE_CTX_get_verify_cb(context)(0, context) == 1;
}

// The reason and the date of `certificate`'s entry in `list` (both borrowed);
// false when it has none.
bool readEntry(X509_CRL* list, X509* certificate, std::string& reason, std::time_t& date) {
  X509_REVOKED* entry = nullptr;
  if (X509_CRL_get0_by_cert(list, &entry, certificate) != 1) return false;
  const OpenSSLPtr<ASN1_ENUMERATED, ASN1_ENUMERATED_free> code(static_cast<ASN1_ENUMERATED*>(
      X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
  const long number = code ? ASN1_ENUMERATED_get(code.get()) : 0;
  const bool named =
      number >= 0 && number < static_cast<long>(std::size(kReasons)) && kReasons[number] != nullptr;
  reason = named ? kReasons[number] : "reason " + std::to_string(number);
  std::tm broken{};
  date = ASN1_TIME_to_tm(X509_REVOKED_get0_revocationDate(entry), &broken) == 1 ? ::timegm(&broken)
                                                                                : 0;
  TAVIK_LOG_INFO(logHandle) << subjectOf(certificate) << " is revoked by the list of "
                            << OpenSSLUtil::nameText(X509_CRL_get_issuer(list)) << ": " << reason;
  return true;
}

}  // namespace

// One run of the check: the path, and what OpenSSL said of each certificate.
struct RevocationLists::Check {
  struct Verdict {
    bool noList = false;    // no list was found for it
    bool voidList = false;  // the list found does not count for it
    bool stale = false;     // the list found is past its nextUpdate
    bool revoked = false;
    X509_CRL* list = nullptr;  // the list OpenSSL checked it against
    std::string reason;
    std::time_t revokedAt = 0;
  };

  const RevocationLists* lists;
  const std::vector<std::shared_ptr<Certificate>>* path;
  X509_STORE_CTX_check_crl_fn openSslCheck;
  std::vector<Verdict> verdicts;
  // While a list is checked, what OpenSSL reports is about the list; the
  // certificate's entry in it is looked up after that.
  bool checkingList = false;

  // The verdict on `certificate` (borrowed), or null when it is not on the path.
  Verdict* verdictOn(const X509* certificate) {
    for (std::size_t i = 0; i < path->size(); ++i) {
      if ((*path)[i]->getX509() == certificate) return &verdicts[i];
    }
    return nullptr;
  }
};

RevocationLists::RevocationLists(CertificateStore& store, const CertificateChain& authorities) {
  std::vector<std::string> locations;
  store.getBaseLocations(locations);
  std::string buffer;
  for (const std::string& location : locations) {
    const std::string directory = cacheDirectory(location, kRevocationSubdirectory).string();
    const DirectoryListing listing(directory);
    std::vector<std::string> names;
    for (std::size_t i = 0; listing.isOpen() && i < listing.size(); ++i) {
      if (hasListExtension(listing.name(i))) names.emplace_back(listing.name(i));
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const boost::filesystem::path file = boost::filesystem::path(directory) / name;
      std::size_t length = 0;
      std::vector<std::shared_ptr<const RevocationList>> read;
      std::string refusal = "it cannot be read";
      if (readSmallFileAt(listing.fd(), name.c_str(), RevocationList::kMaxFileSize, buffer,
                          length) == ReadAtResult::kRead) {
        refusal = RevocationList::read(std::string_view(buffer.data(), length), read);
      }
      if (refusal.empty() && read.size() != 1) refusal = "it holds more than one list";
      if (refusal.empty()) refusal = read.front()->unusedKind();
      if (!refusal.empty()) {
        TAVIK_LOG_WARNING(logHandle)
            << "Passed over the revocation list " << file << ": " << refusal;
        continue;
      }
      const std::shared_ptr<const RevocationList>& list = read.front();
      byIssuer_.emplace(OpenSSLUtil::nameHash(X509_CRL_get_issuer(list->get())), lists_.size());
      byList_.emplace(list->get(), lists_.size());
      lists_.push_back({list, file.string(), list->issuers(authorities)});
    }
  }
  TAVIK_LOG_DEBUG(logHandle) << "Found " << std::to_string(lists_.size())
                             << " revocation list(s) in " << std::to_string(locations.size())
                             << " location(s)";
}

std::vector<const KeptRevocationList*> RevocationLists::keptOf(const Certificate& issuer) const {
  std::vector<const KeptRevocationList*> kept;
  for (const KeptRevocationList& list : lists_) {
    for (const std::shared_ptr<Certificate>& verifier : list.issuers) {
      if (verifier->der() == issuer.der()) {
        kept.push_back(&list);
        break;
      }
    }
  }
  return kept;
}

X509CrlStackPtr RevocationLists::listsFor(
    const std::vector<std::shared_ptr<Certificate>>& path) const {
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < path.size(); ++i) {
    X509* certificate = path[i]->getX509();
    const X509_NAME* issuer = X509_get_issuer_name(certificate);
    // Its issuer on the path: the next certificate, or itself at a self-signed root.
    X509* signer = i + 1 < path.size()                     ? path[i + 1]->getX509()
                   : X509_self_signed(certificate, 0) == 1 ? certificate
                                                           : nullptr;
    std::vector<std::size_t> named, signedBy;
    const auto range = byIssuer_.equal_range(OpenSSLUtil::nameHash(issuer));
    for (auto it = range.first; it != range.second; ++it) {
      if (X509_NAME_cmp(X509_CRL_get_issuer(lists_[it->second].list->get()), issuer) != 0) continue;
      named.push_back(it->second);
      if (signer != nullptr && signedWith(lists_[it->second], signer))
        signedBy.push_back(it->second);
    }
    // OpenSSL chooses among the lists of one issuer name by their times, never
    // by their signature: a newer list under the name, signed with another key
    // (another authority of that name, or a forgery), would hide the issuer's
    // own. So where lists verify with the issuer's key, only they are handed
    // over; where none does, all are, and OpenSSL says why they do not count.
    const std::vector<std::size_t>& counting = signedBy.empty() ? named : signedBy;
    found.insert(found.end(), counting.begin(), counting.end());
  }
  // In the order indexed: of lists that OpenSSL rates alike (the same issuer
  // and thisUpdate), it takes the first.
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  X509CrlStackPtr stack(sk_X509_CRL_new_null());
  for (const std::size_t i : found) {
    X509_CRL* crl = lists_[i].list->get();
    if (!stack || sk_X509_CRL_push(stack.get(), crl) <= 0) return nullptr;
    X509_CRL_up_ref(crl);
  }
  return stack;
}

bool RevocationLists::signedWith(const KeptRevocationList& kept, X509* issuer) {
  EVP_PKEY* key = X509_get0_pubkey(issuer);
  if (key == nullptr) return false;
  if (kept.issuers.empty()) return X509_CRL_verify(kept.list->get(), key) == 1;
  // The index verified it with the keys of the store's authorities: the issuer
  // on the path is one of them, or another certificate for one of their keys.
  return std::any_of(kept.issuers.begin(), kept.issuers.end(),
                     [key](const std::shared_ptr<Certificate>& verifier) {
                       return EVP_PKEY_eq(X509_get0_pubkey(verifier->getX509()), key) == 1;
                     });
}

bool RevocationLists::verifiedWith(const X509_CRL* crl, X509* issuer) const {
  const auto entry = byList_.find(crl);
  if (entry == byList_.end() || lists_[entry->second].list->isPartial()) return false;
  return std::any_of(lists_[entry->second].issuers.begin(), lists_[entry->second].issuers.end(),
                     [issuer](const std::shared_ptr<Certificate>& verifier) {
                       return X509_cmp(verifier->getX509(), issuer) == 0;
                     });
}

int RevocationLists::checkList(X509_STORE_CTX* context, X509_CRL* crl) {
  Check* check = static_cast<Check*>(X509_STORE_CTX_get_app_data(context));
  Check::Verdict* verdict = check->verdictOn(X509_STORE_CTX_get_current_cert(context));
  if (verdict != nullptr) verdict->list = crl;
  check->checkingList = true;
  const int result = judgeList(*check, context, crl);
  check->checkingList = false;
  return result;
}

int RevocationLists::judgeList(const Check& check, X509_STORE_CTX* context, X509_CRL* crl) {
  X509* issuer = X509_STORE_CTX_get0_current_issuer(context);
  if (issuer == nullptr || !check.lists->verifiedWith(crl, issuer)) {
    return check.openSslCheck(context, crl);
  }
  // The index verified the list's signature with this issuer's key, and the
  // list covers all of the issuer's certificates. What remains of OpenSSL's
  // check is what may have changed since, in its order: the issuer's right to
  // sign lists, then the list's times.
  if ((X509_get_extension_flags(issuer) & EXFLAG_KUSAGE) != 0 &&
      (X509_get_key_usage(issuer) & KU_CRL_SIGN) == 0 &&
      !report(context, X509_V_ERR_KEYUSAGE_NO_CRL_SIGN)) {
    return 0;
  }
  const int since = X509_cmp_time(X509_CRL_get0_lastUpdate(crl), nullptr);
  if ((since == 0 && !report(context, X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD)) ||
      (since > 0 && !report(context, X509_V_ERR_CRL_NOT_YET_VALID))) {
    return 0;
  }
  const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl);
  const int until = nextUpdate == nullptr ? 1 : X509_cmp_time(nextUpdate, nullptr);
  if ((until == 0 && !report(context, X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD)) ||
      (until < 0 && !report(context, X509_V_ERR_CRL_HAS_EXPIRED))) {
    return 0;
  }
  return 1;
}

int RevocationLists::noteVerdict(int ok, X509_STORE_CTX* context) {
  Check* check = static_cast<Check*>(X509_STORE_CTX_get_app_data(context));
  X509* certificate = X509_STORE_CTX_get_current_cert(context);
  Check::Verdict* verdict = check->verdictOn(certificate);
  const int error = X509_STORE_CTX_get_error(context);
  // Errors of the path itself (its signatures, its times, its trust) are the
  // verification's business; going on, OpenSSL checks every certificate.
  if (ok == 1 || verdict == nullptr) return 1;
  if (check->checkingList && error == X509_V_ERR_CRL_HAS_EXPIRED) {
    verdict->stale = true;
  } else if (check->checkingList || error == X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION) {
    verdict->voidList = true;
    TAVIK_LOG_INFO(logHandle) << "The revocation list of "
                              << OpenSSLUtil::nameText(X509_CRL_get_issuer(verdict->list))
                              << " does not count for " << subjectOf(certificate) << ": "
                              << X509_verify_cert_error_string(error);
  } else if (error == X509_V_ERR_UNABLE_TO_GET_CRL) {
    verdict->noList = true;
  } else if (error == X509_V_ERR_CERT_REVOKED && !verdict->voidList && verdict->list != nullptr) {
    verdict->revoked = readEntry(verdict->list, certificate, verdict->reason, verdict->revokedAt);
  }
  return 1;
}

std::vector<RevocationStatus> RevocationLists::check(
    const std::vector<std::shared_ptr<Certificate>>& path, RevocationScope scope) const {
  const bool all = scope == RevocationScope::all;
  std::vector<RevocationStatus> statuses(path.empty() ? 0 : all ? path.size() : 1);
  const bool decoded = std::all_of(path.begin(), path.end(), [](const auto& certificate) {
    return certificate && certificate->getX509() != nullptr;
  });
  if (path.empty() || !decoded) return statuses;

  ERR_set_mark();
  Check check{this, &path, openSslListCheck(), std::vector<Check::Verdict>(path.size())};
  X509* root = path.back()->getX509();
  const X509StorePtr store(X509_STORE_new());
  const X509StoreCtxPtr context(X509_STORE_CTX_new());
  const X509StackPtr untrusted(sk_X509_new_null());
  const X509CrlStackPtr crls = listsFor(path);
  const bool anchored = X509_self_signed(root, 0) == 1;
  bool ready = store && context && untrusted && crls && check.openSslCheck != nullptr &&
               (!anchored || X509_STORE_add_cert(store.get(), root) == 1);
  for (std::size_t i = 1; ready && i < path.size() - (anchored ? 1 : 0); ++i) {
    ready = sk_X509_push(untrusted.get(), path[i]->getX509()) > 0;
    if (ready) X509_up_ref(path[i]->getX509());
  }
  if (ready) {
    X509_STORE_set_flags(store.get(),
                         X509_V_FLAG_CRL_CHECK | (all ? X509_V_FLAG_CRL_CHECK_ALL : 0));
    X509_STORE_set_verify_cb(store.get(), noteVerdict);
    X509_STORE_set_check_crl(store.get(), checkList);
    ready = X509_STORE_CTX_init(context.get(), store.get(), path.front()->getX509(),
                                untrusted.get()) == 1;
  }
  if (ready) {
    X509_STORE_CTX_set0_crls(context.get(), crls.get());
    X509_STORE_CTX_set_app_data(context.get(), &check);
    ready = X509_verify_cert(context.get()) == 1;
  }
  ERR_pop_to_mark();
  if (!ready) {
    TAVIK_LOG_ERROR(logHandle) << "The revocation check of " << subjectOf(path.front()->getX509())
                               << " could not run";
    return statuses;
  }
  // OpenSSL checks the certificates of the chain it built, which is the path
  // (a broken path as far as it goes).
  const STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
  for (std::size_t i = 0; i < statuses.size(); ++i) {
    const Check::Verdict& verdict = check.verdicts[i];
    RevocationStatus& status = statuses[i];
    const bool onChain = i < static_cast<std::size_t>(sk_X509_num(chain)) &&
                         sk_X509_value(chain, static_cast<int>(i)) == path[i]->getX509();
    if (!onChain || verdict.noList || verdict.voidList) continue;
    status.state = verdict.revoked ? RevocationStatus::State::revoked
                   : verdict.stale ? RevocationStatus::State::unknown
                                   : RevocationStatus::State::good;
    status.stale = !verdict.revoked && verdict.stale;
    status.reason = verdict.reason;
    status.revokedAt = verdict.revokedAt;
  }
  return statuses;
}

}  // namespace tavik
