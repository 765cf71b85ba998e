// The authorities that come with a credential (the intermediates of its chain,
// perhaps the root) kept in the store's `ca` directory, so that the chain can
// be presented with the certificate later.
#ifndef TAVIK_TOOLS_CERTCACHE_AUTHORITYKEEPING_H_
#define TAVIK_TOOLS_CERTCACHE_AUTHORITYKEEPING_H_

#include <memory>
#include <string>
#include <vector>

#include "base/certificate.h"
#include "base/certificatestore.h"
#include "crypto/certificatefilecache.h"
#include "storecommit.h"

namespace tavik {
namespace cli {

// Stages into `commit` every authority (basicConstraints CA true) of
// `certificates` that no location of `store` holds (the same DER), written by
// `writer` as a certificate alone, under the authority filter's identifier by
// the store's naming rule in the root's `ca` directory; a name that another
// certificate holds gets a short fingerprint after it. Returns the
// identifiers of those staged. Certificates that are no authority are left
// to the caller. Throws ToolError 1 when one cannot be written.
std::vector<std::string> stageAuthorities(
    const std::vector<std::shared_ptr<Certificate>>& certificates, CertificateStore& store,
    StoreCommit& commit, CertFileCache& writer);

// Tells on standard error which authorities were kept, one line each.
void tellKeptAuthorities(const std::vector<std::string>& ids);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_AUTHORITYKEEPING_H_
