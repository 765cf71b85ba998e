// The benchmark program. Besides Google Benchmark's own flags it takes
//   --stores=DIR        where the generated stores lie (required)
//   --sizes=N,N,...     the store sizes to measure (default 1000,10000,100000)
//   --scratch=DIR       where creation benchmarks write (default DIR/scratch)
//   --creation-iterations=N   runs of each creation benchmark (default 200)
// Every named store must have been made by tavik_bench_generate.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "benchregistry.h"
#include "benchstore.h"

namespace {

bool takeOption(const char* arg, const char* name, std::string& value) {
  const std::size_t length = std::strlen(name);
  if (std::strncmp(arg, name, length) != 0 || arg[length] != '=') return false;
  value = arg + length + 1;
  return true;
}

bool parseSizes(const std::string& text, std::vector<std::size_t>& sizes) {
  sizes.clear();
  std::istringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    char* end = nullptr;
    const unsigned long long size = std::strtoull(item.c_str(), &end, 10);
    if (item.empty() || *end != '\0' || size == 0) return false;
    sizes.push_back(size);
  }
  return !sizes.empty();
}

}  // namespace

int main(int argc, char** argv) {
  tavik::bench::BenchOptions options;
  options.sizes = {1000, 10000, 100000};
  std::string sizes;
  // Our options are taken out; the rest goes to Google Benchmark.
  int kept = 1;
  for (int arg = 1; arg < argc; ++arg) {
    if (takeOption(argv[arg], "--stores", options.storesDir) ||
        takeOption(argv[arg], "--scratch", options.scratchDir)) {
      continue;
    }
    std::string iterations;
    if (takeOption(argv[arg], "--creation-iterations", iterations)) {
      options.creationIterations = std::atoi(iterations.c_str());
      if (options.creationIterations <= 0) {
        std::fprintf(stderr, "--creation-iterations takes a positive count\n");
        return 64;
      }
      continue;
    }
    if (takeOption(argv[arg], "--sizes", sizes)) {
      if (!parseSizes(sizes, options.sizes)) {
        std::fprintf(stderr, "--sizes takes a comma-separated list of counts\n");
        return 64;
      }
      continue;
    }
    argv[kept++] = argv[arg];
  }
  argc = kept;
  if (options.storesDir.empty()) {
    std::fprintf(stderr, "--stores=DIR is required\n");
    return 64;
  }
  if (options.scratchDir.empty()) options.scratchDir = options.storesDir + "/scratch";
  for (std::size_t size : options.sizes) {
    if (!tavik::bench::storeExists(options.storesDir, size)) {
      std::fprintf(stderr, "no store of %zu certificates in %s: run tavik_bench_generate first\n",
                   size, options.storesDir.c_str());
      return 66;
    }
  }

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 64;
  tavik::bench::registerLoadingBenchmarks(options);
  tavik::bench::registerLookupBenchmarks(options);
  tavik::bench::registerCreationBenchmarks(options);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
