// One measured operation in a process of its own, for what a benchmark loop
// cannot show: peak resident memory, the CPU time of a single opening, and
// profiles (callgrind, strace, perf).
//   tavik_bench_probe rss cache|none STORE_ROOT
//       opens a key-holding cache over the store ("none": everything but that);
//       prints entries=N baseline_kib=K peak_kib=P (baseline: the peak before)
//   tavik_bench_probe load cache|openssl STORE_ROOT
//       opens the store once with the cache or the bare OpenSSL loop;
//       prints entries=N user_ms=U system_ms=S wall_ms=W
//   tavik_bench_probe lookup cache|openssl STORE_ROOT COUNT LOOKUPS
//       reads LOOKUPS certificates with their keys; the cache is opened first
// The measured work runs in functions named measured*, so that callgrind can
// count it alone: --toggle-collect='tavik::bench::measured*'.
#include <sys/resource.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/configurationinit.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"

namespace tavik {
namespace bench {

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

int main(int argc, char** argv) {
  using namespace tavik;
  using namespace tavik::bench;
  const std::string what = argc > 1 ? argv[1] : "";
  const bool known = what == "rss" || what == "load" || what == "lookup";
  if (!known || argc != (what == "lookup" ? 6 : 4)) {
    std::fprintf(stderr,
                 "usage: %s rss cache|none STORE_ROOT\n"
                 "       %s load cache|openssl STORE_ROOT\n"
                 "       %s lookup cache|openssl STORE_ROOT COUNT LOOKUPS\n",
                 argv[0], argv[0], argv[0]);
    return 64;
  }
  const bool withCache = std::string(argv[2]) == "cache";
  const std::string root = argv[3];
  const std::string dir = root + "/user";
  ConfigurationInit::ensure();
  CertificateStore store(root, {root});
  rusage before{}, after{};

  if (what == "rss") {
    getrusage(RUSAGE_SELF, &before);
    const std::size_t entries = withCache ? measuredCacheLoad(store) : 0;
    getrusage(RUSAGE_SELF, &after);
    std::printf("entries=%zu baseline_kib=%ld peak_kib=%ld\n", entries, before.ru_maxrss,
                after.ru_maxrss);  // KiB on Linux
    return 0;
  }
  if (what == "load") {
    getrusage(RUSAGE_SELF, &before);
    const auto start = std::chrono::steady_clock::now();
    const std::size_t entries = withCache ? measuredCacheLoad(store) : measuredOpenSslLoad(dir);
    const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - start;
    getrusage(RUSAGE_SELF, &after);
    const auto ms = [](const timeval& a, const timeval& b) {
      return (b.tv_sec - a.tv_sec) * 1e3 + (b.tv_usec - a.tv_usec) / 1e3;
    };
    std::printf("entries=%zu user_ms=%.1f system_ms=%.1f wall_ms=%.1f\n", entries,
                ms(before.ru_utime, after.ru_utime), ms(before.ru_stime, after.ru_stime),
                wall.count());
    return 0;
  }
  if (what == "lookup") {
    const std::size_t count = std::strtoull(argv[4], nullptr, 10);
    const std::size_t lookups = std::strtoull(argv[5], nullptr, 10);
    if (count == 0) return 64;
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
  return 0;
}
