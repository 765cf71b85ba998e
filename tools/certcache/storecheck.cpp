#include "storecheck.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cstdio>
#include <map>
#include <memory>

#include "base/certificate.h"
#include "base/filename.h"
#include "base/opensslutil.h"
#include "certificatedescription.h"
#include "keyfile.h"
#include "toolerror.h"

namespace tavik {
namespace cli {

namespace {

namespace fs = boost::filesystem;

constexpr std::time_t kDay = std::time_t{24} * 60 * 60;

// The credential files of one base name that a directory holds.
struct Credential {
  std::string certificate;  // paths; empty when absent
  std::string key;
  std::string pendingKey;
};

// A key file that anybody but its owner may read or change, or one that is
// empty (a request whose key could not be written leaves one, and installing
// its certificate would promote it).
void checkKeyFile(const std::string& path, const struct stat& status,
                  std::vector<Finding>& findings) {
  if ((status.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    findings.push_back(
        {"mode", path, std::string("mode ") + mode + ": group or others may read or change it"});
  }
  if (status.st_size == 0) {
    findings.push_back({"unreadable", path, "the key file is empty"});
    return;
  }
  const std::string weakness = keyFileWeakness(path);
  if (!weakness.empty()) findings.push_back({"weak", path, "key file " + weakness});
}

// What today's software refuses or an attacker can forge: an RSA key under
// 2048 bits, a signature over a SHA-1 or MD5 digest. Empty when neither.
std::string certificateWeakness(X509* certificate) {
  std::string weakness;
  const EVP_PKEY* key = X509_get0_pubkey(certificate);
  if (key != nullptr && (EVP_PKEY_is_a(key, "RSA") || EVP_PKEY_is_a(key, "RSA-PSS")) &&
      EVP_PKEY_get_bits(key) < 2048) {
    weakness = "RSA " + std::to_string(EVP_PKEY_get_bits(key)) + "-bit key";
  }
  // The signature information also knows the digest of an RSA-PSS signature;
  // for a certificate whose extensions OpenSSL refuses, the algorithm's name
  // alone tells it.
  int digest = NID_undef;
  if (X509_get_signature_info(certificate, &digest, nullptr, nullptr, nullptr) != 1) {
    OBJ_find_sigid_algs(X509_get_signature_nid(certificate), &digest, nullptr);
  }
  ERR_clear_error();
  const char* digestName = digest == NID_sha1 ? "SHA-1" : digest == NID_md5 ? "MD5" : nullptr;
  if (digestName != nullptr) {
    weakness += (weakness.empty() ? "signed with " : ", signed with ") + std::string(digestName);
  }
  return weakness;
}

// A certificate (the first of `chain`, from the file `path`) that its issuer's
// kept list revokes. The certificate alone is checked: whether an authority
// above it is revoked is for verify to say of the whole path.
void checkRevocation(const std::vector<std::shared_ptr<Certificate>>& chain,
                     const std::string& path, const CheckRules& rules,
                     std::vector<Finding>& findings) {
  if (rules.revocation == nullptr || rules.revocation->lists().empty()) return;
  const std::vector<RevocationStatus> statuses =
      rules.revocation->check(chain, RevocationScope::leaf);
  if (statuses.empty() || statuses.front().state != RevocationStatus::State::revoked) return;
  const RevocationStatus& status = statuses.front();
  findings.push_back({"revoked", path,
                      "revoked on " + formatTime(status.revokedAt) + " by the list of " +
                          OpenSSLUtil::nameText(X509_get_issuer_name(chain.front()->getX509())) +
                          " (" + status.reason + ")"});
}

// The lists kept in the location of `directory` (its crl/ beside it) that are
// past their nextUpdate: until a newer one is kept, the revocation of their
// issuers' certificates is unknown.
void checkListsBeside(const std::string& directory, const RevocationLists& lists, std::time_t now,
                      std::vector<Finding>& findings) {
  const fs::path location = fs::path(directory).parent_path();
  for (const KeptRevocationList& kept : lists.lists()) {
    if (!kept.list->isStale(now) || fs::path(kept.file).parent_path().parent_path() != location) {
      continue;
    }
    findings.push_back({"crl-stale", kept.file,
                        "the list of " + kept.list->issuer() + " is past its nextUpdate, " +
                            formatTime(kept.list->nextUpdate()) +
                            ": its certificates' revocation is unknown until a newer one is kept"});
  }
}

void checkCertificate(const Credential& files, CertificateFilter& filter, const CheckRules& rules,
                      std::vector<Finding>& findings) {
  const std::string& path = files.certificate;
  const std::shared_ptr<Certificate> certificate = Certificate::createFromFile(path, true);
  if (!certificate || certificate->getX509() == nullptr) {
    findings.push_back({"unreadable", path, "not a certificate the scan can read"});
    return;
  }
  if (!filter.acceptsCertificate(certificate)) {
    findings.push_back({"unreadable", path,
                        std::string("not a certificate of this kind; the ") +
                            filter.subdirectory() + " filter passes it over"});
    return;
  }
  const CertificateDescription description = describeCertificate(certificate->getX509(), rules.now);
  if (description.expired) {
    findings.push_back({"expired", path, "expired on " + description.notAfter});
  } else if (description.notAfterTime <= rules.now + rules.days * kDay) {
    findings.push_back({"due", path, "expires on " + description.notAfter});
  }
  const std::string weakness = certificateWeakness(certificate->getX509());
  if (!weakness.empty()) findings.push_back({"weak", path, weakness});
  if (rules.authorities != nullptr) {
    const std::vector<std::shared_ptr<Certificate>> chain = rules.authorities->build(certificate);
    if (chain.size() == 1 && !CertificateChain::isComplete(chain)) {
      findings.push_back(
          {"chain", path, "issued by " + description.issuer + ", which the store does not hold"});
    }
    checkRevocation(chain, path, rules, findings);
  }
  if (files.key.empty()) {
    if (rules.withKeys) findings.push_back({"no-key", path, "a certificate without its key"});
    return;
  }
  if (rules.password == nullptr) return;
  try {
    if (!isKeyOf(certificate->getX509(), readKeyFile(files.key, *rules.password).get())) {
      findings.push_back({"mismatch", files.key, "the key is not the certificate's"});
    }
  } catch (const ToolError& error) {
    findings.push_back({"mismatch", files.key, error.what()});
  }
}

}  // namespace

std::vector<Finding> checkDirectory(const std::string& directory, CertificateFilter& filter,
                                    const CheckRules& rules) {
  std::map<std::string, Credential> credentials;
  std::vector<Finding> findings;
  std::map<std::string, struct stat> statuses;
  boost::system::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    const fs::path& file = it->path();
    const std::string extension = file.extension().string();
    std::string Credential::*slot = to_lowercase(extension) == kCertExtension
                                        ? &Credential::certificate
                                    : extension == kKeyExtension     ? &Credential::key
                                    : extension == kTempKeyExtension ? &Credential::pendingKey
                                                                     : nullptr;
    if (slot == nullptr) continue;
    struct stat status;
    if (::stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      findings.push_back({"unreadable", file.string(), "not a regular file, which the scan skips"});
      continue;
    }
    credentials[file.stem().string()].*slot = file.string();
    statuses[file.string()] = status;
  }
  if (error && error != boost::system::errc::no_such_file_or_directory) {
    throw ToolError(kExitIoError, "cannot list " + directory + ": " + error.message());
  }

  for (const auto& entry : credentials) {
    const Credential& files = entry.second;
    if (!files.key.empty()) {
      checkKeyFile(files.key, statuses[files.key], findings);
      if (files.certificate.empty()) {
        findings.push_back({"orphan-key", files.key, "a key without its certificate"});
      }
    }
    if (!files.pendingKey.empty()) {
      const struct stat& status = statuses[files.pendingKey];
      checkKeyFile(files.pendingKey, status, findings);
      if (status.st_mtime < rules.now - rules.days * kDay) {
        findings.push_back({"stale-request", files.pendingKey,
                            "a request pending since " + formatTime(status.st_mtime)});
      }
    }
    if (files.certificate.empty()) continue;
    if (statuses[files.certificate].st_size == 0) {
      findings.push_back({"unreadable", files.certificate, "the certificate file is empty"});
      continue;
    }
    checkCertificate(files, filter, rules, findings);
  }
  if (rules.revocation != nullptr) {
    checkListsBeside(directory, *rules.revocation, rules.now, findings);
  }
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& a, const Finding& b) { return a.path < b.path; });
  return findings;
}

}  // namespace cli
}  // namespace tavik
