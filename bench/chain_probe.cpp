// The chain's figures, every line key=value:
//   tavik_chain_probe DIR AUTHORITIES CALLS
// makes in DIR a store whose `ca` directory holds AUTHORITIES authorities
// (a root, the intermediate it signed, and unrelated self-signed ones), and a
// leaf issued by the intermediate; then indexes the authorities once (the CPU
// time of CertificateChain's construction) and builds the leaf's chain of 3
// CALLS times (the median and the 99th percentile of one call).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "crypto/certificatechain.h"
#include "support/certbuilder.h"

namespace {

using namespace tavik;

double cpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

void write(const std::filesystem::path& file, X509* certificate) {
  std::ofstream(file) << test::toPem(certificate);
}

X509Ptr authority(const std::string& name, EVP_PKEY* key, EVP_PKEY* signer, X509* issuer) {
  return test::makeCertificate(
      {{{"CN", name}}, {{NID_basic_constraints, "CA:TRUE"}}, key, 365, signer, issuer});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: tavik_chain_probe DIR AUTHORITIES CALLS\n");
    return 64;
  }
  const std::filesystem::path root = argv[1], ca = root / "ca";
  const long count = std::atol(argv[2]), calls = std::atol(argv[3]);
  std::filesystem::create_directories(ca);
  const X509Ptr top = authority("Bench Root", test::testKey(0), nullptr, nullptr);
  const X509Ptr middle =
      authority("Bench Intermediate", test::testKey(1), test::testKey(0), top.get());
  write(ca / "root.crt", top.get());
  write(ca / "intermediate.crt", middle.get());
  for (long i = 2; i < count; ++i) {
    const std::string name = "Bench Authority " + std::to_string(i);
    write(ca / (std::to_string(i) + ".crt"),
          authority(name, test::testKey(2 + i % 2), nullptr, nullptr).get());
  }
  test::CertRecipe recipe = test::userRecipe("leaf@bench.example");
  recipe.signer = test::testKey(1);
  recipe.issuer = middle.get();
  const std::shared_ptr<Certificate> leaf =
      Certificate::createFromContents(test::toPem(test::makeCertificate(recipe).get()), true);

  CertificateStore store(root.string(), {root.string()});
  const double before = cpuMs();
  const CertificateChain chain(store);
  const double indexed = cpuMs() - before;
  std::size_t length = 0;
  std::vector<double> micros;
  for (long i = 0; i < calls; ++i) {
    const auto start = std::chrono::steady_clock::now();
    length = chain.build(leaf).size();
    micros.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
            .count());
  }
  std::sort(micros.begin(), micros.end());
  std::printf(
      "authorities=%ld\ncalls=%ld\nindex_cpu_ms=%.1f\nchain_length=%zu\n"
      "build_median_us=%.1f\nbuild_p99_us=%.1f\n",
      count, calls, indexed, length, micros[micros.size() / 2], micros[micros.size() * 99 / 100]);
  return length == 3 ? 0 : 1;
}
