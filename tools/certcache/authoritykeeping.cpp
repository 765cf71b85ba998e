#include "authoritykeeping.h"

#include <iostream>
#include <set>

#include "base/certificatefilter.h"
#include "base/filename.h"
#include "certificatedescription.h"
#include "crypto/certificatechain.h"
#include "storefiles.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

std::vector<std::string> stageAuthorities(
    const std::vector<std::shared_ptr<Certificate>>& certificates, CertificateStore& store,
    StoreCommit& commit, CertFileCache& writer) {
  AuthorityCertificateFilter filter;
  const CertificateChain held(store);
  std::set<std::string> names, ders;
  std::vector<std::string> kept;
  for (const std::shared_ptr<Certificate>& certificate : certificates) {
    if (!filter.acceptsCertificate(certificate) || held.holds(certificate->der()) ||
        !ders.insert(certificate->der()).second) {
      continue;
    }
    const std::string id = filter.certificateId(certificate);
    // A renewed intermediate comes under the name of the one it follows, which
    // certificates it issued still need: both stay, told apart by fingerprint.
    std::string baseName = subjectToFilename("", id);
    if (baseName.empty() || names.count(baseName) != 0 ||
        entryExists(commit.stored(filter.subdirectory(), baseName, kCertExtension))) {
      baseName += (baseName.empty() ? "" : "-") +
                  describeCertificate(certificate->getX509(), 0).sha256.substr(0, 8);
    }
    names.insert(baseName);
    const std::string staged = commit.aside(filter.subdirectory(), baseName, kCertExtension);
    if (writer.writeCert(staged, certificate->getX509()) != CertFileCache::kDone) {
      throw ToolError(CertFileCache::kFailed, "the authority " + id + " was not kept");
    }
    commit.rename(staged, commit.stored(filter.subdirectory(), baseName, kCertExtension));
    kept.push_back(id);
  }
  return kept;
}

void tellKeptAuthorities(const std::vector<std::string>& ids) {
  for (const std::string& id : ids) std::cerr << "kept authority: " << id << '\n';
}

}  // namespace cli
}  // namespace tavik
