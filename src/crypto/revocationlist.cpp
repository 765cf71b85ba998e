#include "crypto/revocationlist.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>

#include "base/derreader.h"
#include "base/pemblocks.h"

namespace tavik {

namespace {

const char kPemStart[] = "-----BEGIN ";
const char kNeither[] = "it is neither PEM nor DER of a revocation list";

bool toTime(const ASN1_TIME* time, std::time_t& seconds) {
  std::tm broken{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &broken) != 1) return false;
  seconds = ::timegm(&broken);
  return true;
}

// How many bytes the DER value at the front of `bytes` announces, header
// included; false when its front is no SEQUENCE header.
bool announcedSize(std::string_view bytes, std::uint64_t& total) {
  if (bytes.size() < 2 || static_cast<unsigned char>(bytes[0]) != der::kSequence) return false;
  const unsigned char first = static_cast<unsigned char>(bytes[1]);
  std::uint64_t length = first;
  std::size_t header = 2;
  if (first >= 0x80) {
    const std::size_t count = first & 0x7F;
    if (count == 0 || count > 8 || bytes.size() < 2 + count) return false;
    length = 0;
    for (std::size_t i = 0; i < count; ++i) {
      length = (length << 8) | static_cast<unsigned char>(bytes[2 + i]);
    }
    header += count;
  }
  total = length > std::numeric_limits<std::uint64_t>::max() - header
              ? std::numeric_limits<std::uint64_t>::max()
              : header + length;
  return true;
}

bool isCertificate(std::string_view der) {
  const auto* start = reinterpret_cast<const unsigned char*>(der.data());
  const unsigned char* next = start;
  const X509Ptr certificate(d2i_X509(nullptr, &next, static_cast<long>(der.size())));
  return certificate != nullptr && next == start + der.size();
}

// A PEM label as a message may quote it: printable ASCII, and not too long.
std::string quotedLabel(const std::string& label) {
  std::string text;
  for (std::size_t i = 0; i < label.size() && text.size() < 40; ++i) {
    text += std::isprint(static_cast<unsigned char>(label[i])) != 0 ? label[i] : '?';
  }
  return text;
}

}  // namespace

std::string RevocationList::readPem(std::string_view text,
                                    std::vector<std::shared_ptr<const RevocationList>>& lists) {
  std::vector<PemBlock> blocks;
  const bool ended = readPemBlocks(text, blocks);
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const std::string& label = blocks[i].label;
    if (label == "CERTIFICATE" || label == "X509 CERTIFICATE" || label == "TRUSTED CERTIFICATE") {
      return "it holds a certificate";
    }
    if (label != PEM_STRING_X509_CRL) return "it holds a PEM block labelled " + quotedLabel(label);
    const std::size_t before = lists.size();
    if (!readDer(blocks[i].der, lists).empty() || lists.size() != before + 1) {
      return "its PEM block " + std::to_string(i + 1) + " is cut short or damaged";
    }
  }
  if (!ended) return "it holds a PEM block that is broken or cut short";
  return lists.empty() ? "it holds no PEM block that can be read" : "";
}

RevocationList::RevocationList(X509CrlPtr crl, std::string der)
    : crl_(std::move(crl)), der_(std::move(der)) {}

std::shared_ptr<const RevocationList> RevocationList::fromDer(std::string der) {
  const auto* start = reinterpret_cast<const unsigned char*>(der.data());
  const unsigned char* next = start;
  X509CrlPtr crl(d2i_X509_CRL(nullptr, &next, static_cast<long>(der.size())));
  if (!crl || next != start + der.size()) return nullptr;
  std::shared_ptr<RevocationList> list(new RevocationList(std::move(crl), std::move(der)));
  X509_CRL* x509 = list->get();
  const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(x509);
  if (!toTime(X509_CRL_get0_lastUpdate(x509), list->thisUpdate_) ||
      (nextUpdate != nullptr && !toTime(nextUpdate, list->nextUpdate_))) {
    return nullptr;
  }
  list->issuer_ = OpenSSLUtil::nameText(X509_CRL_get_issuer(x509));
  list->number_.reset(
      static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(x509, NID_crl_number, nullptr, nullptr)));
  list->delta_ = X509_CRL_get_ext_by_NID(x509, NID_delta_crl, -1) >= 0;
  list->partial_ = X509_CRL_get_ext_by_NID(x509, NID_issuing_distribution_point, -1) >= 0;
  const OpenSSLPtr<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free> scope(
      static_cast<ISSUING_DIST_POINT*>(
          X509_CRL_get_ext_d2i(x509, NID_issuing_distribution_point, nullptr, nullptr)));
  list->indirect_ = scope && scope->indirectCRL > 0;
  // OpenSSL sorts a list's entries on the first lookup, under a lock; done
  // here, every later check finds them sorted and only searches.
  X509_REVOKED* entry = nullptr;
  const Asn1IntegerPtr zero(ASN1_INTEGER_new());
  if (zero) X509_CRL_get0_by_serial(x509, &entry, zero.get());
  return list;
}

std::string RevocationList::readDer(std::string_view der,
                                    std::vector<std::shared_ptr<const RevocationList>>& lists) {
  std::uint64_t announced = 0;
  if (!announcedSize(der, announced)) return kNeither;
  if (announced > der.size()) {
    return "it is cut short: it announces " + std::to_string(announced) + " bytes and holds " +
           std::to_string(der.size());
  }
  std::shared_ptr<const RevocationList> list = fromDer(std::string(der.substr(0, announced)));
  if (!list) {
    return isCertificate(der.substr(0, announced)) ? "it holds a certificate" : kNeither;
  }
  if (announced != der.size()) return "it holds bytes after the revocation list";
  lists.push_back(std::move(list));
  return "";
}

std::string RevocationList::read(std::string_view contents,
                                 std::vector<std::shared_ptr<const RevocationList>>& lists) {
  lists.clear();
  if (contents.find_first_not_of(" \t\r\n") == std::string_view::npos) return "it is empty";
  ERR_set_mark();
  std::string refusal = contents.find(kPemStart) != std::string_view::npos
                            ? readPem(contents, lists)
                            : readDer(contents, lists);
  ERR_pop_to_mark();
  if (!refusal.empty()) lists.clear();
  return refusal;
}

std::string RevocationList::pem() const {
  BioPtr bio(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  // The bytes as they came: OpenSSL's encoder may spell an odd but accepted
  // encoding differently, and the same list must stay the same bytes.
  ERR_set_mark();
  const bool written = bio && PEM_write_bio(bio.get(), PEM_STRING_X509_CRL, "",
                                            reinterpret_cast<const unsigned char*>(der_.data()),
                                            static_cast<long>(der_.size())) > 0;
  ERR_pop_to_mark();
  if (!written) return "";
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(std::max(length, 0L)));
}

std::size_t RevocationList::entries() const {
  const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl_.get());
  return revoked == nullptr ? 0 : static_cast<std::size_t>(sk_X509_REVOKED_num(revoked));
}

std::string RevocationList::unusedKind() const {
  if (delta_) return "a delta list, which holds only what changed since a base list";
  if (indirect_) return "an indirect list, which revokes certificates of other issuers";
  return "";
}

int RevocationList::compare(const RevocationList& a, const RevocationList& b) {
  if (a.number_ && b.number_) return ASN1_INTEGER_cmp(a.number_.get(), b.number_.get());
  return a.thisUpdate_ < b.thisUpdate_ ? -1 : a.thisUpdate_ > b.thisUpdate_ ? 1 : 0;
}

std::vector<std::shared_ptr<Certificate>> RevocationList::issuers(
    const CertificateChain& authorities, bool* named) const {
  const std::vector<std::shared_ptr<Certificate>> candidates =
      authorities.authoritiesNamed(X509_CRL_get_issuer(crl_.get()));
  if (named != nullptr) *named = !candidates.empty();
  std::vector<std::shared_ptr<Certificate>> found;
  ERR_set_mark();
  const AuthorityKeyIdPtr keyId(static_cast<AUTHORITY_KEYID*>(
      X509_CRL_get_ext_d2i(crl_.get(), NID_authority_key_identifier, nullptr, nullptr)));
  for (const std::shared_ptr<Certificate>& candidate : candidates) {
    X509* certificate = candidate->getX509();
    EVP_PKEY* key = certificate == nullptr ? nullptr : X509_get0_pubkey(certificate);
    if (key != nullptr && X509_check_akid(certificate, keyId.get()) == X509_V_OK &&
        X509_CRL_verify(crl_.get(), key) == 1) {
      found.push_back(candidate);
    }
  }
  ERR_pop_to_mark();
  return found;
}

}  // namespace tavik
