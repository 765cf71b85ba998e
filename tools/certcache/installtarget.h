// Which certificate of what `install` was given goes beside which key. The
// cache installs any certificate beside any key; the tool first reads the key
// with the password and compares it with the certificate's, so that a
// certificate never lands beside a key that is not its own.
#ifndef TAVIK_TOOLS_CERTCACHE_INSTALLTARGET_H_
#define TAVIK_TOOLS_CERTCACHE_INSTALLTARGET_H_

#include <memory>
#include <string>
#include <vector>

#include "base/certificate.h"
#include "base/certificatefilter.h"

namespace tavik {
namespace cli {

enum class InstallRoute {
  kPendingKey,    // the answer to a request: its key (.tpk) becomes the key
  kInstalledKey,  // a re-issue for the key that is installed: the certificate file alone
};

struct InstallTarget {
  std::shared_ptr<Certificate> certificate;
  std::string baseName;
  InstallRoute route = InstallRoute::kPendingKey;
};

// The first of `certificates` whose public key is the pending key of its base
// name (subjectToFilename(id, the filter's identifier)) in the cache directory
// `directory`, else the first whose key is the installed key there. Keys are
// read with `password`. Throws ToolError: 65 when a certificate's base name
// has a key that is not its own and no certificate fits; 10 when none of their
// base names has a key; 103 when a key does not open with the password.
InstallTarget findKeyHolder(const std::vector<std::shared_ptr<Certificate>>& certificates,
                            const std::string& id, CertificateFilter& filter,
                            const std::string& directory, const std::string& password);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_INSTALLTARGET_H_
