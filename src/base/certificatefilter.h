// Decides which certificates a cache holds, where they live and what they are
// called. A cache asks its filter for the subdirectory of its kind, whether a
// certificate it read belongs to that kind, and the certificate's identifier.
//
// The cache calls acceptsCertificate and certificateId while it scans (its
// constructor and load()), certificateId in saveCert, and subdirectory() in
// every member that builds a path, the const lookups included. A filter
// shared by caches or lookups in several threads must answer subdirectory()
// without changing state; the library's filters hold no state at all. What a
// filter of the caller's own throws passes out of the cache's member that
// called it.
#ifndef TAVIK_BASE_CERTIFICATEFILTER_H_
#define TAVIK_BASE_CERTIFICATEFILTER_H_

#include <memory>
#include <string>

#include "base/certificate.h"

namespace tavik {

class CertificateFilter {
 public:
  virtual ~CertificateFilter();

  // True when the certificate is of the kind that the cache holds.
  virtual bool acceptsCertificate(std::shared_ptr<Certificate> certificate) = 0;
  // The certificate's identifier; "" when the certificate carries no identity.
  // The reference stays valid while the certificate is held.
  virtual const std::string& certificateId(std::shared_ptr<Certificate> certificate) = 0;
  // The subdirectory of every store location that holds this kind of certificate.
  virtual const char* subdirectory() = 0;
};

// End-entity certificates that carry an e-mail identity, in "user". The
// identifier is the e-mail address (subject emailAddress, else the first
// rfc822Name alternative name, else a common name holding "@"), so the cache's
// own self-signed pairs are listed under their address.
class UserCertificateFilter : public CertificateFilter {
 public:
  bool acceptsCertificate(std::shared_ptr<Certificate> certificate) override;
  const std::string& certificateId(std::shared_ptr<Certificate> certificate) override;
  const char* subdirectory() override;
};

// Authority certificates (basicConstraints cA TRUE), in "ca". The identifier is
// the subject's common name, else the subject in one-line form.
class AuthorityCertificateFilter : public CertificateFilter {
 public:
  bool acceptsCertificate(std::shared_ptr<Certificate> certificate) override;
  const std::string& certificateId(std::shared_ptr<Certificate> certificate) override;
  const char* subdirectory() override;
};

}  // namespace tavik

#endif  // TAVIK_BASE_CERTIFICATEFILTER_H_
