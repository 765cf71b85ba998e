// One certificate revocation list: read from what a file or a person hands
// over, with what a store needs to know of it (its issuer, its times, its
// number, whether it is of a kind the store uses) and the authority that
// issued it among a store's authorities.
//
// An authority publishes a list of the certificates it revoked, signed with
// its key and renewed before its nextUpdate. Reading one is the one place that
// knows the forms it comes in (PEM blocks labelled X509 CRL, with any text
// around them, or DER), so that the store's index and the tool that adds lists
// refuse the same things for the same reasons.
//
// Failures. read() gives the reason for refusing bytes in words and no list;
// nothing else here fails but for want of memory. Nothing throws but
// std::bad_alloc. What OpenSSL puts on its error queue while reading is taken
// off it again: the caller's queue is as it was.
//
// Threads. A RevocationList never changes once it is read: its members may be
// called from any number of threads at once, and OpenSSL's own lookups in the
// list (X509_CRL_get0_by_cert) find its entries already sorted.
#ifndef TAVIK_CRYPTO_REVOCATIONLIST_H_
#define TAVIK_CRYPTO_REVOCATIONLIST_H_

#include <openssl/x509.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/certificate.h"
#include "base/opensslutil.h"
#include "crypto/certificatechain.h"

namespace tavik {

class RevocationList {
 public:
  // The largest file read as revocation lists. A list of 100,000 revoked
  // serials takes about 4 MiB; the largest public ones stay far below this.
  static constexpr std::size_t kMaxFileSize = std::size_t{64} * 1024 * 1024;

  // Reads every revocation list in `contents`: PEM blocks labelled X509 CRL,
  // with any text around them, or one DER-encoded list and nothing after it.
  // Returns "" with the lists in `lists`, in their order; otherwise `lists`
  // is empty and the result says why in words, as the end of a sentence that
  // begins "it is not a revocation list:" (a certificate given as a list, a
  // list cut short, a length announced beyond the end, a broken PEM block, a
  // block of another kind, garbage).
  static std::string read(std::string_view contents,
                          std::vector<std::shared_ptr<const RevocationList>>& lists);

  RevocationList(const RevocationList&) = delete;
  RevocationList& operator=(const RevocationList&) = delete;

  X509_CRL* get() const { return crl_.get(); }  // borrowed; never null
  const std::string& der() const { return der_; }
  // The list as one PEM block labelled X509 CRL, holding der(); "" when
  // there is no memory for it.
  std::string pem() const;

  // The issuer's name in OpenSSL's one-line RFC 2253 form.
  const std::string& issuer() const { return issuer_; }
  std::time_t thisUpdate() const { return thisUpdate_; }
  // 0 when the list names no nextUpdate.
  std::time_t nextUpdate() const { return nextUpdate_; }
  // Whether the list names a nextUpdate that lies before `now`.
  bool isStale(std::time_t now) const { return nextUpdate_ != 0 && nextUpdate_ < now; }
  std::size_t entries() const;

  // A delta list (deltaCRLIndicator) holds only what changed since a base
  // list, and an indirect one (issuingDistributionPoint indirectCRL) revokes
  // certificates of other issuers: the store uses neither. "" for a list of
  // the kind it uses, else what kind of list it is, in words.
  std::string unusedKind() const;
  // Whether an issuingDistributionPoint restricts the list to part of its
  // issuer's certificates; OpenSSL then decides for each certificate whether
  // the list covers it.
  bool isPartial() const { return partial_; }

  // Which of two lists of one issuer is the newer: by CRL number when both
  // carry one, else by thisUpdate. Negative when `a` is older than `b`, 0
  // when neither is, positive when `a` is newer.
  static int compare(const RevocationList& a, const RevocationList& b);

  // The authorities of `authorities` that issued this list: named as its
  // issuer, holding the key that its authority key identifier names (when it
  // names one), and whose key verifies its signature; in search order.
  // `named`, when given, is set to whether any authority bears the issuer's
  // name, so that a caller can tell "no such authority" from "not its key".
  std::vector<std::shared_ptr<Certificate>> issuers(const CertificateChain& authorities,
                                                    bool* named = nullptr) const;

 private:
  RevocationList(X509CrlPtr crl, std::string der);

  // Decodes one list from exactly `der`; null when it is not one list.
  static std::shared_ptr<const RevocationList> fromDer(std::string der);
  // The two forms read() takes: each appends what it read to `lists` and
  // returns "", or returns why not.
  static std::string readPem(std::string_view text,
                             std::vector<std::shared_ptr<const RevocationList>>& lists);
  static std::string readDer(std::string_view der,
                             std::vector<std::shared_ptr<const RevocationList>>& lists);

  X509CrlPtr crl_;
  std::string der_;
  std::string issuer_;
  std::time_t thisUpdate_ = 0;
  std::time_t nextUpdate_ = 0;
  Asn1IntegerPtr number_;  // the CRL number; null when the list carries none
  bool delta_ = false;
  bool indirect_ = false;
  bool partial_ = false;
};

}  // namespace tavik

#endif  // TAVIK_CRYPTO_REVOCATIONLIST_H_
