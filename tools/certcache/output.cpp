#include "output.h"

#include <nlohmann/json.hpp>

namespace tavik {
namespace cli {

namespace {

using Json = nlohmann::ordered_json;

// Identifiers and paths come from files and certificates and need not be
// UTF-8; such bytes are replaced rather than failing the whole output.
void writeJson(std::ostream& out, const Json& value) {
  out << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

const char* boolText(bool value) { return value ? "true" : "false"; }

std::string joined(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? "" : separator) + parts[i];
  return text;
}

}  // namespace

void printList(std::ostream& out, const std::vector<std::string>& ids,
               const std::function<std::string(const std::string&)>& baseNameOf, bool longForm,
               bool json) {
  if (json) {
    Json array = Json::array();
    for (const std::string& id : ids) {
      if (longForm) {
        array.push_back({{"id", id}, {"base_name", baseNameOf(id)}});
      } else {
        array.push_back(id);
      }
    }
    writeJson(out, array);
    return;
  }
  for (const std::string& id : ids) {
    out << id;
    if (longForm) out << '\t' << baseNameOf(id);
    out << '\n';
  }
}

void printShow(std::ostream& out, const ShowRecord& record, bool json) {
  const CertificateDescription& cert = record.certificate;
  if (json) {
    Json shown{{"id", record.id},
               {"base_name", record.baseName},
               {"subject", cert.subject},
               {"issuer", cert.issuer},
               {"serial", cert.serial},
               {"public_key", cert.publicKey},
               {"signature", cert.signature},
               {"crl_distribution_points", cert.crlDistributionPoints},
               {"not_before", cert.notBefore},
               {"not_after", cert.notAfter},
               {"expired", cert.expired},
               {"not_yet_valid", cert.notYetValid},
               {"sha256", cert.sha256},
               {"has_key", record.hasKey}};
    if (record.withChain) {
      std::vector<const CertificateDescription*> path = {&cert};
      for (const CertificateDescription& step : record.chain) path.push_back(&step);
      Json chain = Json::array();
      for (const CertificateDescription* step : path) {
        chain.push_back({{"subject", step->subject},
                         {"issuer", step->issuer},
                         {"serial", step->serial},
                         {"not_before", step->notBefore},
                         {"not_after", step->notAfter},
                         {"sha256", step->sha256}});
      }
      shown["chain"] = chain;
      shown["complete"] = record.missing.empty();
    }
    writeJson(out, shown);
    return;
  }
  out << "id: " << record.id << '\n'
      << "base_name: " << record.baseName << '\n'
      << "subject: " << cert.subject << '\n'
      << "issuer: " << cert.issuer << '\n'
      << "serial: " << cert.serial << '\n'
      << "public_key: " << cert.publicKey << '\n'
      << "signature: " << cert.signature << '\n'
      << "crl_distribution_points: " << joined(cert.crlDistributionPoints, ", ") << '\n'
      << "not_before: " << cert.notBefore << '\n'
      << "not_after: " << cert.notAfter << '\n'
      << "expired: " << boolText(cert.expired) << '\n'
      << "not_yet_valid: " << boolText(cert.notYetValid) << '\n'
      << "sha256: " << cert.sha256 << '\n'
      << "has_key: " << boolText(record.hasKey) << '\n';
  for (const CertificateDescription& step : record.chain) {
    out << "\nsubject: " << step.subject << "\nissuer: " << step.issuer
        << "\nnot_before: " << step.notBefore << "\nnot_after: " << step.notAfter
        << "\nsha256: " << step.sha256 << '\n';
  }
  if (!record.missing.empty()) out << "missing: " << record.missing << '\n';
}

void printFiles(std::ostream& out, const std::string& certFile, const std::string& keyFile,
                bool hasKey, bool json) {
  if (json) {
    writeJson(out,
              Json{{"certificate", certFile}, {"key", hasKey ? Json(keyFile) : Json(nullptr)}});
    return;
  }
  out << "certificate: " << certFile << '\n';
  if (hasKey) out << "key: " << keyFile << '\n';
}

void printExpiring(std::ostream& out, const std::vector<ExpiringEntry>& entries, bool json) {
  if (json) {
    Json array = Json::array();
    for (const ExpiringEntry& entry : entries) {
      array.push_back(
          {{"id", entry.id}, {"not_after", entry.notAfter}, {"expired", entry.expired}});
    }
    writeJson(out, array);
    return;
  }
  for (const ExpiringEntry& entry : entries) {
    out << entry.id << '\t' << entry.notAfter << '\t' << (entry.expired ? "expired" : "due")
        << '\n';
  }
}

void printPending(std::ostream& out, const std::vector<PendingRequest>& requests, bool json) {
  if (json) {
    Json array = Json::array();
    for (const PendingRequest& request : requests) {
      array.push_back({{"base_name", request.baseName}, {"since", formatTime(request.since)}});
    }
    writeJson(out, array);
    return;
  }
  for (const PendingRequest& request : requests) {
    out << request.baseName << '\t' << formatTime(request.since) << '\n';
  }
}

void printFindings(std::ostream& out, const std::vector<Finding>& findings, bool json) {
  if (json) {
    Json array = Json::array();
    for (const Finding& finding : findings) {
      array.push_back({{"kind", finding.kind}, {"path", finding.path}, {"what", finding.what}});
    }
    writeJson(out, array);
    return;
  }
  for (const Finding& finding : findings) {
    out << finding.kind << '\t' << finding.path << '\t' << finding.what << '\n';
  }
}

void printVerification(std::ostream& out, const VerificationRecord& record, bool json) {
  const std::string& reason = record.reason;
  if (json) {
    const std::string detailed =
        record.detail.empty() ? reason : reason + " (" + record.detail + ")";
    Json verified{{"id", record.id},
                  {"ok", reason.empty()},
                  {"reason", reason.empty() ? Json(nullptr) : Json(detailed)}};
    if (!record.revocation.empty()) verified["revocation"] = record.revocation;
    if (!record.revokedAt.empty()) verified["revoked_at"] = record.revokedAt;
    writeJson(out, verified);
    return;
  }
  out << record.id << (reason.empty() ? ": OK" : ": FAILED: " + reason) << '\n';
}

}  // namespace cli
}  // namespace tavik
