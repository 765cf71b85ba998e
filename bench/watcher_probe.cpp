// The watcher's figures on a store of the generator, each mode in a process of
// its own; every line printed is key=value. Run it on a copy of a store: the
// modes add and rewrite pairs.
//   tavik_watcher_probe change STORE_ROOT CERTCACHE ROUNDS
//       a watcher over the store; ROUNDS times the tool adds one EC P-256 pair
//       (`self-signed`), and the time from the tool's exit to the listener's
//       call is taken (negative: published before the tool had exited), with the watcher thread's
//       CPU time between two publications (CLOCK_THREAD_CPUTIME_ID, read in the listener); then a
//       CertFileCache is built over the same store, its CPU time on this thread
//   tavik_watcher_probe rss watcher|cache STORE_ROOT
//       VmRSS before and after constructing one or the other
//   tavik_watcher_probe rotate STORE_ROOT ROUNDS READERS
//       one identity rewritten ROUNDS times by createSelfSignedKeyPair with
//       overwriteExisting while READERS threads call the watcher's
//       getCertificate with the right password: certificates returned beside a
//       key not their own, and each failure code, are counted
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"
#include "crypto/certstorewatcher.h"
#include "log/log.h"

namespace {

using namespace tavik;
using Clock = std::chrono::steady_clock;

double threadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

long vmRssKib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

boost::shared_ptr<CertificateFilter> users() { return boost::make_shared<UserCertificateFilter>(); }

int change(CertificateStore& store, const std::string& tool, int rounds) {
  CertStoreWatcher watcher(store, users(), true);
  std::mutex mutex;
  std::vector<std::pair<Clock::time_point, double>> publications;  // when, thread CPU ms
  watcher.setListener([&](const StoreChanges&) {
    const double cpu = threadCpuMs();
    std::lock_guard<std::mutex> lock(mutex);
    publications.emplace_back(Clock::now(), cpu);
  });
  std::vector<double> latencies, cpus;
  for (int i = 0; i <= rounds; ++i) {  // round 0 gives the first CPU reading
    const std::uint64_t generation = watcher.generation();
    const std::string command =
        "'" + tool + "' --store '" + store.getRoot() + "' --passin pass:" + bench::kStorePassword +
        " self-signed --key ec:P-256 --email new" + std::to_string(getpid()) + "-" +
        std::to_string(i) + "@x.example >/dev/null";
    if (std::system(command.c_str()) != 0) return 1;
    const Clock::time_point exited = Clock::now();
    if (!watcher.waitForNewer(generation, std::chrono::seconds(10))) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // late events of the tool
    std::lock_guard<std::mutex> lock(mutex);
    const std::size_t n = publications.size();
    if (i > 0) {
      latencies.push_back(
          std::chrono::duration<double, std::milli>(publications[n - 1].first - exited).count());
      cpus.push_back(publications[n - 1].second - publications[n - 2].second);
    }
  }
  const double start = threadCpuMs();
  CertFileCache cache(store, users(), true);
  const double scan = threadCpuMs() - start;
  std::vector<std::string> ids;
  std::printf("rounds=%d publications=%zu entries=%zu\n", rounds, cpus.size(), cache.listIds(ids));
  std::printf("latency_ms_median=%.2f latency_ms_max=%.2f rounds_over_50_ms=%ld\n",
              median(latencies), *std::max_element(latencies.begin(), latencies.end()),
              std::count_if(latencies.begin(), latencies.end(), [](double l) { return l > 50; }));
  std::printf("watcher_cpu_ms_median=%.3f watcher_cpu_ms_max=%.3f full_scan_cpu_ms=%.1f\n",
              median(cpus), *std::max_element(cpus.begin(), cpus.end()), scan);
  std::printf("cpu_ratio_median=%.5f\n", median(cpus) / scan);
  return 0;
}

int rss(CertificateStore& store, bool watcher) {
  const long before = vmRssKib();
  std::size_t entries = 0;
  std::vector<std::string> ids;
  if (watcher) {
    CertStoreWatcher w(store, users(), true);
    entries = w.current()->listIds(ids);
    std::printf("entries=%zu rss_before_kib=%ld rss_after_kib=%ld\n", entries, before, vmRssKib());
  } else {
    CertFileCache cache(store, users(), true);
    entries = cache.listIds(ids);
    std::printf("entries=%zu rss_before_kib=%ld rss_after_kib=%ld\n", entries, before, vmRssKib());
  }
  return 0;
}

int rotate(CertificateStore& store, int rounds, int readers) {
  const std::string id = "rotating@x.example", password = bench::kStorePassword;
  CredentialProfile profile;
  profile.key = CredentialProfile::Key::ecP256;
  profile.kdfIterations = 1000;  // many rotations and reads a second: more chances to meet a write
  CertFileCache writer(store, users(), true);
  if (writer.createSelfSignedKeyPair("", id, password, CertFileCache::overwriteExisting, profile)) {
    return 1;
  }
  CertStoreWatcher watcher(store, users(), true);
  std::atomic<bool> done{false};
  std::mutex mutex;
  std::map<int, long> codes;  // errorCode -> count
  long mismatched = 0;
  std::vector<std::thread> threads;
  for (int r = 0; r < readers; ++r) {
    threads.emplace_back([&] {
      std::map<int, long> mine;
      long wrong = 0;
      while (!done) {
        int code = -1;
        auto cert = watcher.getCertificate(id, password, code);
        ++mine[code];
        if (cert && X509_check_private_key(cert->getX509(), cert->getPrivateKey()) != 1) ++wrong;
      }
      std::lock_guard<std::mutex> lock(mutex);
      for (const auto& c : mine) codes[c.first] += c.second;
      mismatched += wrong;
    });
  }
  int failedWrites = 0;
  for (int i = 0; i < rounds; ++i) {
    if (writer.createSelfSignedKeyPair("", id, password, CertFileCache::overwriteExisting,
                                       profile)) {
      ++failedWrites;
    }
  }
  done = true;
  for (auto& t : threads) t.join();
  long reads = 0;
  for (const auto& c : codes) reads += c.second;
  std::printf("rotations=%d failed_writes=%d readers=%d reads=%ld mismatched_pairs=%ld\n", rounds,
              failedWrites, readers, reads, mismatched);
  for (const auto& c : codes) std::printf("code_%d=%ld\n", c.first, c.second);
  std::printf("wrong_password_1000103=%ld\n", codes[CertFileCache::kKeyUnreadable]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 2 ? argv[1] : "";
  if (!(what == "change" && argc == 5) && !(what == "rss" && argc == 4) &&
      !(what == "rotate" && argc == 5)) {
    std::fprintf(stderr,
                 "usage: %s change STORE_ROOT CERTCACHE ROUNDS\n"
                 "       %s rss watcher|cache STORE_ROOT\n"
                 "       %s rotate STORE_ROOT ROUNDS READERS\n",
                 argv[0], argv[0], argv[0]);
    return 64;
  }
  tavik::LogFacility::setLevels(0);  // the rotation's retried reads would warn
  const std::string root = what == "rss" ? argv[3] : argv[2];
  tavik::CertificateStore store(root, {root});
  if (what == "change") return change(store, argv[3], std::atoi(argv[4]));
  if (what == "rss") return rss(store, std::string(argv[2]) == "watcher");
  return rotate(store, std::atoi(argv[3]), std::atoi(argv[4]));
}
