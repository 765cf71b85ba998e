// How the benchmark program's parts meet: the options that name the stores,
// and one registration function per group of benchmarks.
#ifndef TAVIK_BENCH_BENCHREGISTRY_H_
#define TAVIK_BENCH_BENCHREGISTRY_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tavik {
namespace bench {

struct BenchOptions {
  std::string storesDir;           // where the generated stores lie
  std::vector<std::size_t> sizes;  // the store sizes to measure; each store must exist
  std::string scratchDir;          // where creation benchmarks write their files
  int creationIterations = 200;    // runs of each creation benchmark, the same for each side
};

// Construction of a key-holding cache against the bare OpenSSL loop, Botan 2
// and GnuTLS over the same files.
void registerLoadingBenchmarks(const BenchOptions& options);
// getCertificate with key against bare PEM reads, listIds and a miss.
void registerLookupBenchmarks(const BenchOptions& options);
// createSelfSignedKeyPair and createCsr against the bare OpenSSL steps.
void registerCreationBenchmarks(const BenchOptions& options);

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_BENCHREGISTRY_H_
