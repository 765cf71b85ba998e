// Makes the benchmark stores that are missing.
//   tavik_bench_generate STORES_DIR COUNT...
// Each store is made once; a complete store is left as it is.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "benchstore.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s STORES_DIR COUNT...\n", argv[0]);
    return 64;
  }
  const std::string storesDir = argv[1];
  for (int arg = 2; arg < argc; ++arg) {
    char* end = nullptr;
    const unsigned long long count = std::strtoull(argv[arg], &end, 10);
    if (end == argv[arg] || *end != '\0' || count == 0) {
      std::fprintf(stderr, "not a certificate count: %s\n", argv[arg]);
      return 64;
    }
    if (tavik::bench::storeExists(storesDir, count)) {
      std::printf("store of %llu certificates: present\n", count);
      continue;
    }
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    if (!tavik::bench::generateStore(storesDir, count, error)) {
      std::fprintf(stderr, "cannot make the store of %llu certificates: %s\n", count,
                   error.c_str());
      return 1;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::printf("store of %llu certificates: made in %.1f s\n", count, took.count());
  }
  return 0;
}
