// The tool's output on standard output, for people (lines) and for programs
// (JSON with --json). The forms are fixed: scripts read them.
#ifndef TAVIK_TOOLS_CERTCACHE_OUTPUT_H_
#define TAVIK_TOOLS_CERTCACHE_OUTPUT_H_

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "certificatedescription.h"
#include "storecheck.h"
#include "storefiles.h"

namespace tavik {
namespace cli {

// Identifiers one a line, or with `longForm` ID<TAB>BASENAME; JSON: an array of
// identifiers, or of {"id", "base_name"} objects. Base names are asked for one
// at a time, so that a large store's listing holds no second copy of it.
void printList(std::ostream& out, const std::vector<std::string>& ids,
               const std::function<std::string(const std::string&)>& baseNameOf, bool longForm,
               bool json);

struct ShowRecord {
  std::string id;
  std::string baseName;
  CertificateDescription certificate;
  bool hasKey = false;
  // With --chain: the certificates of the path above it, issuer first, and the
  // issuer that nothing in the store stands for when the path breaks.
  bool withChain = false;
  std::vector<CertificateDescription> chain;
  std::string missing;
};

// Lines "field: value", then for each certificate of the chain a blank line and
// its subject, issuer, validity and fingerprint, and "missing: ISSUER" where the
// path breaks; JSON: one object with the same fields, the chain as an array
// (leaf first) and "complete".
void printShow(std::ostream& out, const ShowRecord& record, bool json);

// Lines "certificate: PATH" and, when `hasKey`, "key: PATH"; JSON: an object
// whose "key" is null in a cache without keys.
void printFiles(std::ostream& out, const std::string& certFile, const std::string& keyFile,
                bool hasKey, bool json);

struct ExpiringEntry {
  std::string id;
  std::string notAfter;
  bool expired = false;  // already expired, rather than due within the window
};

// Lines ID<TAB>NOT_AFTER<TAB>expired|due; JSON: an array of {"id", "not_after", "expired"}.
void printExpiring(std::ostream& out, const std::vector<ExpiringEntry>& entries, bool json);

// Lines BASENAME<TAB>SINCE (the time as 2026-01-31T12:00:00Z); JSON: an array of
// {"base_name", "since"}.
void printPending(std::ostream& out, const std::vector<PendingRequest>& requests, bool json);

// Lines KIND<TAB>PATH<TAB>WHAT; JSON: an array of {"kind", "path", "what"}.
void printFindings(std::ostream& out, const std::vector<Finding>& findings, bool json);

struct VerificationRecord {
  std::string id;
  std::string reason;  // why it failed, in OpenSSL's words; empty when it verified
  std::string
      detail;  // in JSON, after the reason in parentheses: the list's reason of a revocation
  std::string revocation;  // good, revoked or unknown; empty when revocation was not checked
  std::string revokedAt;   // when revoked: 2026-01-31T12:00:00Z
};

// "ID: OK", or "ID: FAILED: REASON" when the reason is not empty; JSON:
// {"id", "ok", "reason"} with a null reason when it verified, then
// "revocation" when it was checked and "revoked_at" when revoked.
void printVerification(std::ostream& out, const VerificationRecord& record, bool json);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_OUTPUT_H_
