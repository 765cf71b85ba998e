// Lookups on an open cache: a certificate with its key against the bare PEM
// reads of the same two files, the list of identifiers, and a miss.
#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bareopenssl.h"
#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "benchregistry.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"
#include "pairedrun.h"

namespace tavik {
namespace bench {

namespace {

// One open cache per store, made on first use and kept for the program's life,
// so that lookups are measured without the cost of opening the store.
struct OpenStore {
  explicit OpenStore(const std::string& root)
      : store(root, {root}), cache(store, boost::make_shared<UserCertificateFilter>(), true) {}
  CertificateStore store;
  CertFileCache cache;
};

OpenStore& openStore(const std::string& storesDir, std::size_t count) {
  static std::map<std::size_t, std::unique_ptr<OpenStore>> stores;
  std::unique_ptr<OpenStore>& open = stores[count];
  if (!open) open = std::make_unique<OpenStore>(storeRoot(storesDir, count));
  return *open;
}

// Walks the store's certificates in a scattered order, so that successive
// lookups do not read the same file.
class Rotation {
 public:
  explicit Rotation(std::size_t count) : count_(count) {}
  std::size_t next() {
    current_ = (current_ + kStride) % count_;
    return current_;
  }

 private:
  static constexpr std::size_t kStride = 7919;  // a prime: every index comes round
  std::size_t count_;
  std::size_t current_ = 0;
};

void getCertificateWithKey(benchmark::State& state, const std::string& storesDir,
                           std::size_t count) {
  const CertFileCache& cache = openStore(storesDir, count).cache;
  Rotation rotation(count);
  for (auto _ : state) {
    int errorCode = -1;
    std::shared_ptr<Certificate> certificate =
        cache.getCertificate(certificateEmail(rotation.next()), kStorePassword, errorCode, false);
    if (!certificate || certificate->getPrivateKey() == nullptr) {
      state.SkipWithError(("lookup failed with " + std::to_string(errorCode)).c_str());
      return;
    }
    benchmark::DoNotOptimize(certificate.get());
  }
}

// What that lookup needs from OpenSSL: read the certificate, read and decrypt the key.
void bareCertificateAndKey(benchmark::State& state, const std::string& storesDir,
                           std::size_t count) {
  const std::string dir = storeUserDir(storesDir, count);
  Rotation rotation(count);
  for (auto _ : state) {
    if (!bareReadCertificateAndKey(dir + "/" + certificateBaseName(rotation.next()))) {
      state.SkipWithError("bare read failed");
      return;
    }
  }
}

void listIds(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const CertFileCache& cache = openStore(storesDir, count).cache;
  std::vector<std::string> ids;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cache.listIds(ids));
  }
  if (ids.size() != count) state.SkipWithError("listIds gave the wrong count");
}

void lookupMiss(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const CertFileCache& cache = openStore(storesDir, count).cache;
  const std::string absent = certificateEmail(count + 1);
  for (auto _ : state) {
    int errorCode = -1;
    benchmark::DoNotOptimize(cache.getCertificate(absent, kStorePassword, errorCode, false));
    if (errorCode != CertFileCache::kNotInIndex) {
      state.SkipWithError("a miss did not give 1000100");
      return;
    }
  }
}

// getCertificate with key and the bare reads in alternation (see
// pairedrun.h), on the same files in each round.
void pairedLookup(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  constexpr int kRounds = 41;
  constexpr int kPerRound = 50;
  const CertFileCache& cache = openStore(storesDir, count).cache;
  const std::string dir = storeUserDir(storesDir, count);
  auto certificateOf = [count](int round, int k) {
    return (static_cast<std::size_t>(round) * kPerRound + static_cast<std::size_t>(k)) * 7919 %
           count;
  };
  PairedResult result;
  bool failed = false;
  for (auto _ : state) {
    result = runPaired(
        kRounds,
        [&](int round) {
          for (int k = 0; k < kPerRound; ++k) {
            int errorCode = -1;
            if (!cache.getCertificate(certificateEmail(certificateOf(round, k)), kStorePassword,
                                      errorCode, false)) {
              return false;
            }
          }
          return true;
        },
        [&](int round) {
          for (int k = 0; k < kPerRound; ++k) {
            if (!bareReadCertificateAndKey(dir + "/" +
                                           certificateBaseName(certificateOf(round, k)))) {
              return false;
            }
          }
          return true;
        },
        failed);
  }
  if (failed) {
    state.SkipWithError("a lookup failed");
    return;
  }
  reportPaired(state, result, kPerRound);
}

}  // namespace

void registerLookupBenchmarks(const BenchOptions& options) {
  using Function = void (*)(benchmark::State&, const std::string&, std::size_t);
  const std::pair<const char*, Function> groups[] = {
      {"Lookup/CacheWithKey", getCertificateWithKey},
      {"Lookup/OpenSSLWithKey", bareCertificateAndKey},
      {"Lookup/ListIds", listIds},
      {"Lookup/Miss", lookupMiss},
  };
  for (std::size_t count : options.sizes) {
    for (const auto& group : groups) {
      const std::string name = std::string(group.first) + "/" + std::to_string(count);
      benchmark::RegisterBenchmark(name.c_str(), group.second, options.storesDir, count)
          ->Unit(benchmark::kMicrosecond)
          ->UseRealTime();
    }
  }
  for (std::size_t count : options.sizes) {
    const std::string name = "Pair/Lookup/" + std::to_string(count);
    benchmark::RegisterBenchmark(name.c_str(), pairedLookup, options.storesDir, count)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1)
        ->Repetitions(1);
  }
}

}  // namespace bench
}  // namespace tavik
