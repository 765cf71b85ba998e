#include "base/certificatefilter.h"

namespace tavik {

CertificateFilter::~CertificateFilter() = default;

bool UserCertificateFilter::acceptsCertificate(std::shared_ptr<Certificate> certificate) {
  const CertificateIdentity& identity = certificate->identity();
  return !identity.authority && !identity.email.empty();
}

const std::string& UserCertificateFilter::certificateId(std::shared_ptr<Certificate> certificate) {
  return certificate->identity().email;
}

const char* UserCertificateFilter::subdirectory() { return "user"; }

bool AuthorityCertificateFilter::acceptsCertificate(std::shared_ptr<Certificate> certificate) {
  return certificate->identity().authority;
}

const std::string& AuthorityCertificateFilter::certificateId(
    std::shared_ptr<Certificate> certificate) {
  return certificate->identity().name;
}

const char* AuthorityCertificateFilter::subdirectory() { return "ca"; }

}  // namespace tavik
