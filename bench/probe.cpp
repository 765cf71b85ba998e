// Runs one measured operation in a process of its own, for what a benchmark
// loop cannot show: peak resident memory, and profiles (perf, callgrind).
//   tavik_bench_probe rss cache|none STORE_ROOT
//       constructs a key-holding cache with the user filter over the store
//       ("none": everything but that) and prints
//       entries=N baseline_kib=K peak_kib=P   (baseline: the peak before the cache)
//   tavik_bench_probe load cache|openssl STORE_ROOT
//       opens the store once, with the cache or with the bare OpenSSL loop, and
//       prints entries=N user_ms=U system_ms=S wall_ms=W
//   tavik_bench_probe lookup cache|openssl STORE_ROOT COUNT LOOKUPS
//       reads LOOKUPS certificates with their keys, through an open cache or
//       with bare OpenSSL (the cache is opened first, outside the function)
// The measured work runs in functions named measured*, so that callgrind can
// count it alone: --toggle-collect='tavik::bench::measured*'.
#include <sys/resource.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bareopenssl.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/configurationinit.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"

namespace tavik {
namespace bench {

long peakResidentKib() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // KiB on Linux
}

double milliseconds(const timeval& time) { return time.tv_sec * 1e3 + time.tv_usec / 1e3; }

// The process's user and system CPU time so far, in milliseconds.
void cpuMilliseconds(double& user, double& system) {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  user = milliseconds(usage.ru_utime);
  system = milliseconds(usage.ru_stime);
}

__attribute__((noinline)) std::size_t measuredCacheLoad(CertificateStore& store) {
  CertFileCache cache(store, boost::make_shared<UserCertificateFilter>(), true);
  std::vector<std::string> ids;
  return cache.listIds(ids);
}

__attribute__((noinline)) std::size_t measuredOpenSslLoad(const std::string& dir) {
  return bareOpenSslLoad(dir);
}

__attribute__((noinline)) std::size_t measuredCacheLookups(const CertFileCache& cache,
                                                           std::size_t count, std::size_t lookups) {
  std::size_t found = 0;
  for (std::size_t i = 0; i < lookups; ++i) {
    int errorCode = -1;
    if (cache.getCertificate(certificateEmail(i % count), kStorePassword, errorCode, false)) {
      ++found;
    }
  }
  return found;
}

__attribute__((noinline)) std::size_t measuredOpenSslLookups(const std::string& dir,
                                                             std::size_t count,
                                                             std::size_t lookups) {
  std::size_t found = 0;
  for (std::size_t i = 0; i < lookups; ++i) {
    if (bareReadCertificateAndKey(dir + "/" + certificateBaseName(i % count))) ++found;
  }
  return found;
}

}  // namespace bench
}  // namespace tavik

namespace {

int usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s rss cache|none STORE_ROOT\n"
               "       %s load cache|openssl STORE_ROOT\n"
               "       %s lookup cache|openssl STORE_ROOT COUNT LOOKUPS\n",
               program, program, program);
  return 64;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace tavik;
  using namespace tavik::bench;
  if (argc < 4) return usage(argv[0]);
  const std::string what = argv[1];
  const bool withCache = std::strcmp(argv[2], "cache") == 0;
  const std::string root = argv[3];
  const std::string dir = root + "/user";
  ConfigurationInit::ensure();
  CertificateStore store(root, {root});

  if (what == "rss" && argc == 4) {
    const long baseline = peakResidentKib();
    const std::size_t entries = withCache ? measuredCacheLoad(store) : 0;
    std::printf("entries=%zu baseline_kib=%ld peak_kib=%ld\n", entries, baseline,
                peakResidentKib());
    return 0;
  }
  if (what == "load" && argc == 4) {
    double user = 0;
    double system = 0;
    cpuMilliseconds(user, system);
    const auto start = std::chrono::steady_clock::now();
    const std::size_t entries = withCache ? measuredCacheLoad(store) : measuredOpenSslLoad(dir);
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    double userAfter = 0;
    double systemAfter = 0;
    cpuMilliseconds(userAfter, systemAfter);
    std::printf("entries=%zu user_ms=%.1f system_ms=%.1f wall_ms=%.1f\n", entries, userAfter - user,
                systemAfter - system, wall.count());
    return 0;
  }
  if (what == "lookup" && argc == 6) {
    const std::size_t count = std::strtoull(argv[4], nullptr, 10);
    const std::size_t lookups = std::strtoull(argv[5], nullptr, 10);
    if (count == 0) return usage(argv[0]);
    std::size_t found = 0;
    if (withCache) {
      CertFileCache cache(store, boost::make_shared<UserCertificateFilter>(), true);
      found = measuredCacheLookups(cache, count, lookups);
    } else {
      found = measuredOpenSslLookups(dir, count, lookups);
    }
    std::printf("found=%zu\n", found);
    return found == lookups ? 0 : 1;
  }
  return usage(argv[0]);
}
