// The revocation check against a large list, in a process of its own.
//   tavik_revocation_probe STORE_ROOT ENTRIES CHECKS ec|rsa
//       makes a new store at STORE_ROOT: a root authority (EC P-256 or RSA 2048)
//       in ca/, its list of ENTRIES revoked serials in crl/ and, beside the
//       store, the same list as STORE_ROOT.crl (for timing `certcache crl add`),
//       then indexes the store once and checks a good and a revoked leaf CHECKS
//       times each; prints list_bytes, index_ms (reading and indexing the store
//       with its authorities), and the median microseconds of one check per
//       scope and leaf, each median of 15 rounds of CHECKS / 15 checks; last,
//       check_unverified_us: the good leaf against an index made without the
//       authorities, so that OpenSSL verifies the list's signature on each check.
#include <algorithm>
#include <boost/filesystem.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "base/configurationinit.h"
#include "crypto/certificatechain.h"
#include "crypto/revocationlists.h"
#include "support/certbuilder.h"

namespace tavik {
namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void write(const std::string& path, const std::string& contents) {
  boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
}

// Median microseconds of one check of `path`, over 15 rounds of `checks` / 15.
__attribute__((noinline)) double measuredChecks(
    const RevocationLists& lists, const std::vector<std::shared_ptr<Certificate>>& path,
    RevocationScope scope, long checks, RevocationStatus::State expected) {
  const long perRound = std::max(1L, checks / 15);
  std::vector<double> rounds;
  for (int round = 0; round < 15; ++round) {
    const Clock::time_point start = Clock::now();
    for (long i = 0; i < perRound; ++i) {
      if (lists.check(path, scope).front().state != expected) std::abort();
    }
    rounds.push_back(millisecondsSince(start) * 1000 / static_cast<double>(perRound));
  }
  std::nth_element(rounds.begin(), rounds.begin() + 7, rounds.end());
  return rounds[7];
}

// Makes the store and measures; the figures go to standard output.
int probe(const std::string& root, long entries, long checks, const std::string& key) {
  ConfigurationInit::ensure();
  const PkeyHandle rootKey =
      key == "rsa" ? OpenSSLUtil::generateRsaPkey(2048) : OpenSSLUtil::generateEcPkey("P-256");
  const PkeyHandle leafKey = OpenSSLUtil::generateEcPkey("P-256");
  const X509Ptr authority = test::makeCertificate(
      {{{"CN", "Bench Root"}}, {{NID_basic_constraints, "critical,CA:TRUE"}}, rootKey.get()});
  test::CrlRecipe recipe;
  recipe.issuer = X509_get_subject_name(authority.get());
  recipe.signer = rootKey.get();
  for (long i = 0; i < entries; ++i) recipe.revoked.emplace_back(1000003 + 7919 * i, i % 6);
  const std::string list = test::toDer(test::makeRevocationList(recipe).get());
  const auto leaf = [&](long serial) {
    return Certificate::createFromBase64(
        test::toPem(test::makeCertificate({{{"CN", "Leaf"}},
                                           {{NID_basic_constraints, "CA:FALSE"}},
                                           leafKey.get(),
                                           365,
                                           rootKey.get(),
                                           authority.get(),
                                           serial})
                        .get()));
  };
  boost::filesystem::remove_all(root);
  write(root + "/ca/root.crt", test::toPem(authority.get()));
  write(root + "/crl/root.crl", list);
  write(root + ".crl", list);

  CertificateStore store(root, {root});
  const Clock::time_point start = Clock::now();
  const CertificateChain chain(store);
  const RevocationLists lists(store, chain);
  const double indexMs = millisecondsSince(start);
  const std::vector<std::shared_ptr<Certificate>> good = chain.build(leaf(2)),
                                                  revoked = chain.build(leaf(1000003 + 7919 * 9));
  if (good.size() != 2 || lists.lists().size() != 1) return 1;
  CertificateStore none(root, {});
  const RevocationLists unverified(store, CertificateChain(none));
  using State = RevocationStatus::State;
  std::printf(
      "key=%s entries=%ld list_bytes=%zu index_ms=%.1f check_leaf_us=%.1f check_all_us=%.1f "
      "check_revoked_leaf_us=%.1f check_unverified_us=%.1f\n",
      key.c_str(), entries, list.size(), indexMs,
      measuredChecks(lists, good, RevocationScope::leaf, checks, State::good),
      measuredChecks(lists, good, RevocationScope::all, checks, State::good),
      measuredChecks(lists, revoked, RevocationScope::leaf, checks, State::revoked),
      measuredChecks(unverified, good, RevocationScope::leaf, std::max(15L, checks / 30),
                     State::good));
  return 0;
}

}  // namespace

}  // namespace bench
}  // namespace tavik

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s STORE_ROOT ENTRIES CHECKS ec|rsa\n", argv[0]);
    return 64;
  }
  try {
    return tavik::bench::probe(argv[1], std::strtol(argv[2], nullptr, 10),
                               std::strtol(argv[3], nullptr, 10), argv[4]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
