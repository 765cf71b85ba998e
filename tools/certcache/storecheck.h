// What in a store needs a person's attention, found by looking at every file
// of its cache directories rather than at the index alone: the index shows
// neither a key without its certificate nor a file the scan refused.
#ifndef TAVIK_TOOLS_CERTCACHE_STORECHECK_H_
#define TAVIK_TOOLS_CERTCACHE_STORECHECK_H_

#include <ctime>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "crypto/certificatechain.h"
#include "crypto/revocationlists.h"

namespace tavik {
namespace cli {

struct Finding {
  // orphan-key, no-key, stale-request, mode, unreadable, expired, due, weak, mismatch,
  // chain (an issuer the store does not hold), revoked (by a kept list), crl-stale (a kept
  // list past its nextUpdate), interrupted (a change an earlier run left unfinished)
  std::string kind;
  std::string path;
  std::string what;  // in words, for the person who reads it
};

struct CheckRules {
  bool withKeys = true;                   // a key-holding cache: a certificate needs its key
  std::time_t now = 0;                    // what "expired" is measured against
  int days = 30;                          // the window for "due" and the age of a stale request
  const std::string* password = nullptr;  // given: every key is read and compared
  // Given: a certificate whose issuer these authorities do not hold is found.
  const CertificateChain* authorities = nullptr;
  // Given: the lists of the directory's location past their nextUpdate are
  // found, and with `authorities` a certificate that these lists revoke.
  const RevocationLists* revocation = nullptr;
};

// The findings in the cache directory `directory` under `filter`, and in the
// lists beside it (its location's crl/), ordered by path. A directory that
// does not exist has none. Throws ToolError 74 when it cannot be listed.
std::vector<Finding> checkDirectory(const std::string& directory, CertificateFilter& filter,
                                    const CheckRules& rules);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_STORECHECK_H_
