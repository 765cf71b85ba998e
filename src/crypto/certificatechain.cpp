// The chain's statements are its own (an issuer passed over, a loop, a path
// cut off): they name this file and go through a handle of its own.
#define TAVIK_LOG_SOURCE_FILE "src/crypto/certificatechain.cpp"

#include "crypto/certificatechain.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <functional>
#include <set>

#include "base/certificatefilter.h"
#include "base/certificatelayout.h"
#include "base/directorylisting.h"
#include "base/filecontents.h"
#include "base/filename.h"
#include "log/log.h"

namespace tavik {

namespace {

LogHandle logHandle(nullptr, 0, 2);
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

// The subject hash of a certificate's DER, from its subject alone: the index
// decodes no public key until a path needs the certificate.
unsigned long subjectHash(const std::string& der) {
  CertificateLayout layout;
  if (!parseCertificateLayout(reinterpret_cast<const unsigned char*>(der.data()), der.size(),
                              layout)) {
    return 0;
  }
  const unsigned char* at = layout.subject;
  ERR_set_mark();
  X509NamePtr subject(d2i_X509_NAME(nullptr, &at, static_cast<long>(layout.subjectLength)));
  ERR_pop_to_mark();
  return subject ? OpenSSLUtil::nameHash(subject.get()) : 0;
}

std::string subjectText(const X509* certificate) {
  return OpenSSLUtil::nameText(X509_get_subject_name(certificate));
}

bool validNow(const X509* certificate) {
  return X509_cmp_time(X509_get0_notBefore(certificate), nullptr) < 0 &&
         X509_cmp_time(X509_get0_notAfter(certificate), nullptr) > 0;
}

// Whether `issuer` names, identifies and signed `certificate`. What OpenSSL
// says on its way is taken off its queue again: a candidate that does not fit
// is no error of the caller's.
bool issued(X509* issuer, X509* certificate) {
  ERR_set_mark();
  const bool fits = X509_check_issued(issuer, certificate) == X509_V_OK &&
                    X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
  ERR_pop_to_mark();
  return fits;
}

bool selfSigned(X509* certificate) {
  ERR_set_mark();
  const bool self = X509_self_signed(certificate, 1) == 1;
  ERR_pop_to_mark();
  return self;
}

bool hasCertExtension(std::string_view name) {
  return name.size() > 4 && name[name.size() - 4] == '.' &&
         to_lowercase(std::string(name.substr(name.size() - 3))) == "crt";
}

}  // namespace

X509StackPtr ChainedCredential::authorityStack() const {
  X509StackPtr stack(sk_X509_new_null());
  for (const std::shared_ptr<Certificate>& authority : authorities) {
    if (!stack || sk_X509_push(stack.get(), authority->getX509()) <= 0) return nullptr;
    X509_up_ref(authority->getX509());
  }
  return stack;
}

CertificateChain::CertificateChain(CertificateStore& store) {
  std::vector<std::string> locations;
  store.getBaseLocations(locations);
  AuthorityCertificateFilter filter;
  std::string buffer;
  for (const std::string& location : locations) {
    const std::string directory = cacheDirectory(location, filter.subdirectory()).string();
    const DirectoryListing listing(directory);
    for (std::size_t i = 0; listing.isOpen() && i < listing.size(); ++i) {
      const std::string name(listing.name(i));
      std::size_t length = 0;
      if (!hasCertExtension(name) ||
          readSmallFileAt(listing.fd(), name.c_str(), kMaxCredentialFileSize, buffer, length) !=
              ReadAtResult::kRead) {
        continue;
      }
      std::shared_ptr<Certificate> certificate =
          Certificate::createFromContents(std::string_view(buffer.data(), length), false);
      if (!certificate || holds(certificate->der())) continue;
      const unsigned long hash = subjectHash(certificate->der());
      if (hash == 0) continue;
      const bool accepted = filter.acceptsCertificate(certificate);
      bySubject_.emplace(hash, authorities_.size());
      byDer_.emplace(std::hash<std::string>()(certificate->der()), authorities_.size());
      authorities_.push_back({std::move(certificate), directory + "/" + name, accepted});
    }
  }
  TAVIK_LOG_DEBUG(logHandle) << "Found " << std::to_string(authorities_.size())
                             << " certificate(s) for chains in " << std::to_string(locations.size())
                             << " location(s)";
}

std::vector<const CertificateChain::Authority*> CertificateChain::named(
    const X509_NAME* name) const {
  std::vector<std::size_t> found;
  const auto range = bySubject_.equal_range(OpenSSLUtil::nameHash(name));
  for (auto it = range.first; it != range.second; ++it) found.push_back(it->second);
  std::sort(found.begin(), found.end());  // search order
  std::vector<const Authority*> authorities;
  for (const std::size_t i : found) {
    X509* certificate = authorities_[i].certificate->getX509();
    if (certificate != nullptr && X509_NAME_cmp(X509_get_subject_name(certificate), name) == 0) {
      authorities.push_back(&authorities_[i]);
    }
  }
  return authorities;
}

const CertificateChain::Authority* CertificateChain::issuerOf(
    X509* certificate, const std::vector<std::shared_ptr<Certificate>>& path) const {
  const Authority* chosen = nullptr;
  const Authority* looped = nullptr;
  std::vector<const Authority*> outdated;
  for (const Authority* candidate : named(X509_get_issuer_name(certificate))) {
    X509* issuer = candidate->certificate->getX509();
    if (!issued(issuer, certificate)) continue;  // another key under the same name
    if (!candidate->accepted) {
      TAVIK_LOG_WARNING(logHandle)
          << "Passed over " << boost::filesystem::path(candidate->path) << " as the issuer of "
          << subjectText(certificate) << ": not an authority";
      continue;
    }
    const bool onPath = std::any_of(path.begin(), path.end(), [&](const auto& step) {
      return step->der() == candidate->certificate->der();
    });
    if (onPath) {
      looped = candidate;
    } else if (!validNow(issuer)) {
      outdated.push_back(candidate);
    } else if (chosen == nullptr) {
      chosen = candidate;
    }
  }
  // One that is not valid now serves only when there is nothing better.
  if (chosen == nullptr && !outdated.empty()) {
    chosen = outdated.front();
    outdated.erase(outdated.begin());
  }
  for (const Authority* passed : outdated) {
    TAVIK_LOG_INFO(logHandle) << "Passed over " << boost::filesystem::path(passed->path)
                              << " as the issuer of " << subjectText(certificate)
                              << ": not valid now";
  }
  if (chosen == nullptr && looped != nullptr) {
    TAVIK_LOG_WARNING(logHandle) << "The chain of " << subjectText(path.front()->getX509())
                                 << " loops back to " << boost::filesystem::path(looped->path);
  }
  return chosen;
}

std::vector<std::shared_ptr<Certificate>> CertificateChain::build(
    const std::shared_ptr<Certificate>& leaf) const {
  if (!leaf) return {};
  std::vector<std::shared_ptr<Certificate>> path = {leaf};
  for (int steps = 0;; ++steps) {
    X509* current = path.back()->getX509();
    if (current == nullptr || selfSigned(current)) break;
    const Authority* issuer = issuerOf(current, path);
    if (issuer == nullptr) break;
    if (steps == kMaxSteps) {
      TAVIK_LOG_WARNING(logHandle) << "The chain of " << subjectText(leaf->getX509())
                                   << " is cut off after " << std::to_string(kMaxSteps) << " steps";
      break;
    }
    path.push_back(issuer->certificate);
  }
  return path;
}

bool CertificateChain::isComplete(const std::vector<std::shared_ptr<Certificate>>& path) {
  X509* last = path.empty() ? nullptr : path.back()->getX509();
  return last != nullptr && selfSigned(last);
}

std::vector<std::shared_ptr<Certificate>> CertificateChain::candidates(
    const std::shared_ptr<Certificate>& leaf) const {
  std::vector<std::shared_ptr<Certificate>> found;
  std::set<const Authority*> taken;
  std::vector<X509*> pending = {leaf ? leaf->getX509() : nullptr};
  while (!pending.empty()) {
    X509* certificate = pending.back();
    pending.pop_back();
    if (certificate == nullptr) continue;
    for (const Authority* candidate : named(X509_get_issuer_name(certificate))) {
      if (!candidate->accepted || !taken.insert(candidate).second) continue;
      found.push_back(candidate->certificate);
      pending.push_back(candidate->certificate->getX509());
    }
  }
  return found;
}

std::vector<std::shared_ptr<Certificate>> CertificateChain::authorities() const {
  std::vector<std::shared_ptr<Certificate>> all;
  for (const Authority& authority : authorities_) {
    if (authority.accepted) all.push_back(authority.certificate);
  }
  return all;
}

bool CertificateChain::holds(const std::string& der) const {
  const auto range = byDer_.equal_range(std::hash<std::string>()(der));
  return std::any_of(range.first, range.second, [&](const auto& entry) {
    return authorities_[entry.second].certificate->der() == der;
  });
}

std::vector<std::shared_ptr<Certificate>> CertificateChain::authoritiesNamed(
    const X509_NAME* name) const {
  std::vector<std::shared_ptr<Certificate>> found;
  for (const Authority* authority : named(name)) {
    if (authority->accepted) found.push_back(authority->certificate);
  }
  return found;
}

ChainedCredential CertificateChain::getCredential(const CertFileCache& cache, const std::string& id,
                                                  const std::string& password,
                                                  int& errorCode) const {
  ChainedCredential credential;
  credential.certificate = cache.getCertificate(id, password, errorCode, true);
  if (!credential.certificate) return credential;
  std::vector<std::shared_ptr<Certificate>> path = build(credential.certificate);
  credential.complete = isComplete(path);
  credential.authorities.assign(path.begin() + 1, path.end());
  return credential;
}

}  // namespace tavik
