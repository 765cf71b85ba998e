// Opens one store once and reports the process's peak resident memory; also the
// program that profilers run.
//   tavik_bench_open_store cache|none STORE_ROOT
// "cache" constructs a key-holding cache with the user filter over the store;
// "none" does everything else the same (the process's own baseline). Prints
//   entries=N baseline_kib=K peak_kib=P
// baseline being the peak before the cache was made.
#include <sys/resource.h>

#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/configurationinit.h"
#include "crypto/certificatefilecache.h"

namespace {

long peakResidentKib() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // KiB on Linux
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || (std::strcmp(argv[1], "cache") != 0 && std::strcmp(argv[1], "none") != 0)) {
    std::fprintf(stderr, "usage: %s cache|none STORE_ROOT\n", argv[0]);
    return 64;
  }
  const std::string root = argv[2];
  tavik::ConfigurationInit::ensure();
  tavik::CertificateStore store(root, {root});
  boost::shared_ptr<tavik::CertificateFilter> filter =
      boost::make_shared<tavik::UserCertificateFilter>();
  const long baseline = peakResidentKib();
  std::size_t entries = 0;
  if (std::strcmp(argv[1], "cache") == 0) {
    tavik::CertFileCache cache(store, filter, true);
    std::vector<std::string> ids;
    entries = cache.listIds(ids);
  }
  std::printf("entries=%zu baseline_kib=%ld peak_kib=%ld\n", entries, baseline, peakResidentKib());
  return 0;
}
