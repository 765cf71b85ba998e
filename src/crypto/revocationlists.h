// The revocation lists a store keeps, and the revocation check of a
// certificate's path against them: a class of its own, beside the
// CertificateChain whose paths it checks.
//
// A store keeps its authorities' lists as files `*.crl` in the `crl`
// subdirectory of each location (beside `user` and `ca`), one list a file, PEM
// or DER. RevocationLists reads them once, when it is made. For each
// certificate of a path (as CertificateChain::build gives it: the leaf first,
// the root last) the check says whether it is good, revoked (with the list's
// reason and the revocation date), or unknown: no list counts for it, or its
// issuer's list is past its nextUpdate. A list counts for a certificate when
// it is its issuer's (the issuer's name, and its key identifier where the list
// names one), verifies with that issuer's key, and its thisUpdate is not in
// the future. Of several lists under one issuer's name (another authority of
// that name keeps its own), those that verify with the key of the issuer on
// the path are the ones that count; a newer one signed with another key does
// not hide them.
//
// The answer is OpenSSL's: the check runs X509_verify_cert with the lists and
// CRL checking (X509_V_FLAG_CRL_CHECK, with X509_V_FLAG_CRL_CHECK_ALL for the
// whole path), the path's self-signed root as its trust anchor and the rest as
// untrusted certificates, and reads OpenSSL's verdict on each certificate from
// its verification callback. Whether the path itself is valid (its signatures,
// its certificates' times) is the verification's business, not this check's.
// One thing is done once instead of on each check: OpenSSL 3.0 verifies a
// list's signature again whenever it uses the list, which for a list of
// 100,000 entries is a hash over megabytes. So when the index is made, each
// list's signature is verified with the keys of the store's authorities that
// may have issued it, and a check that uses the list with one of those keys
// takes that verdict and leaves to the list only what can change: its times
// and its issuer's right to sign lists. Lists with an issuingDistributionPoint
// (which cover part of their issuer's certificates) and issuers from outside
// the store go through OpenSSL's own check of the list each time.
//
// Failures. A location whose `crl` directory is missing or cannot be listed
// holds no list; a file there that cannot be read or holds anything but one
// list of a kind the store uses (not a delta list, not an indirect list) is
// passed over with a log statement. A check whose verification cannot run at
// all (out of memory) gives unknown for every certificate, with a log
// statement. Nothing throws but std::bad_alloc. OpenSSL's error queue is left
// as the caller had it.
//
// Threads. RevocationLists reads the store once, when it is made, and never
// changes afterwards: check(), lists() and keptOf() may be called from any
// number of threads at once. Lists added later are not in it; a new
// RevocationLists sees them.
#ifndef TAVIK_CRYPTO_REVOCATIONLISTS_H_
#define TAVIK_CRYPTO_REVOCATIONLISTS_H_

#include <ctime>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/certificate.h"
#include "base/certificatestore.h"
#include "crypto/certificatechain.h"
#include "crypto/revocationlist.h"

namespace tavik {

// The subdirectory of every location that holds revocation lists, and their
// extension.
inline constexpr char kRevocationSubdirectory[] = "crl";
inline constexpr char kRevocationExtension[] = ".crl";

// Which certificates of a path are checked: each of them, or the leaf alone.
enum class RevocationScope { all, leaf };

// What the check says of one certificate.
struct RevocationStatus {
  enum class State { good, revoked, unknown };
  State state = State::unknown;
  // unknown: true when its issuer's list is past its nextUpdate, false when no
  // list counts for it.
  bool stale = false;
  // revoked: the reason as the list gives it, by OpenSSL's names
  // (keyCompromise, CACompromise, affiliationChanged, superseded,
  // cessationOfOperation, certificateHold, removeFromCRL, privilegeWithdrawn,
  // AACompromise; unspecified when the list gives none), and the revocation date.
  std::string reason;
  std::time_t revokedAt = 0;
};

// A list the store keeps.
struct KeptRevocationList {
  std::shared_ptr<const RevocationList> list;
  std::string file;  // its path: the location, "crl", the file name
  // The store's authorities whose key verifies it, in search order; empty
  // when the store holds none of them.
  std::vector<std::shared_ptr<Certificate>> issuers;
};

class RevocationLists {
 public:
  // Indexes the lists in the `crl` subdirectory of every location of `store`,
  // in search order and by file name within a location, and verifies each
  // one's signature with the keys of `authorities` (normally the same store's)
  // that may have issued it. Neither argument is kept.
  RevocationLists(CertificateStore& store, const CertificateChain& authorities);
  RevocationLists(const RevocationLists&) = delete;
  RevocationLists& operator=(const RevocationLists&) = delete;

  // Checks `path` (leaf first, each certificate followed by its issuer; a
  // complete one ends at a self-signed root) against the lists: one status
  // for each certificate checked, in the path's order (with `leaf`, one).
  // A path with a certificate that is null or cannot be decoded is unknown
  // throughout; an empty path gives no status.
  std::vector<RevocationStatus> check(const std::vector<std::shared_ptr<Certificate>>& path,
                                      RevocationScope scope) const;

  // Every list kept, in the order indexed.
  const std::vector<KeptRevocationList>& lists() const { return lists_; }
  // The lists kept that `issuer`, one of the store's authorities, verifies,
  // in the order indexed; none for a certificate the store does not hold.
  std::vector<const KeptRevocationList*> keptOf(const Certificate& issuer) const;

 private:
  struct Check;

  // OpenSSL's hooks into the verification: its check of a list, and its
  // verification callback, which notes each certificate's verdict.
  static int checkList(X509_STORE_CTX* context, X509_CRL* crl);
  static int judgeList(const Check& check, X509_STORE_CTX* context, X509_CRL* crl);
  static int noteVerdict(int ok, X509_STORE_CTX* context);

  // The lists whose issuer is named as the issuer of a certificate of `path`;
  // of those, where some verify with the key of that issuer on the path, only
  // those.
  X509CrlStackPtr listsFor(const std::vector<std::shared_ptr<Certificate>>& path) const;
  // Whether `kept`'s signature verifies with the key of `issuer` (borrowed):
  // the index's verdict where it verified the list, else verified here.
  static bool signedWith(const KeptRevocationList& kept, X509* issuer);
  // Whether the index verified `crl`'s signature with `issuer`'s key.
  bool verifiedWith(const X509_CRL* crl, X509* issuer) const;

  std::vector<KeptRevocationList> lists_;
  std::unordered_multimap<unsigned long, std::size_t> byIssuer_;  // name hash -> lists_
  std::unordered_map<const X509_CRL*, std::size_t> byList_;       // into lists_
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_REVOCATIONLISTS_H_
