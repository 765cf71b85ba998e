#include "base/certificatestore.h"

#include <utility>

namespace tavik {

CertificateStore::CertificateStore(std::string root, std::vector<std::string> baseLocations)
    : root_(std::move(root)), baseLocations_(std::move(baseLocations)) {}

const std::string& CertificateStore::getRoot() const { return root_; }

void CertificateStore::getBaseLocations(std::vector<std::string>& locations) {
  locations.insert(locations.end(), baseLocations_.begin(), baseLocations_.end());
}

}  // namespace tavik
