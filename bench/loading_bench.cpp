// Opening a store: construction of a key-holding cache with the user filter,
// against the bare OpenSSL loop and two peer libraries reading the same files.
#include <benchmark/benchmark.h>
#include <botan/certstor.h>
#include <botan/pkix_types.h>
#include <botan/x509cert.h>
#include <gnutls/x509.h>
#include <sys/stat.h>

#include <boost/make_shared.hpp>
#include <filesystem>
#include <map>
#include <string>

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

namespace fs = std::filesystem;

void reportCount(benchmark::State& state, std::size_t found, std::size_t expected) {
  state.counters["certificates"] = static_cast<double>(found);
  if (found != expected) {
    state.SkipWithError(
        ("found " + std::to_string(found) + " certificates, expected " + std::to_string(expected))
            .c_str());
  }
}

bool keyFileExists(fs::path certFile) {
  certFile.replace_extension(".key");
  struct stat info {};
  return ::stat(certFile.c_str(), &info) == 0;
}

// The cache as a program opens it: default log levels, the user filter, keys.
void cacheConstruction(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string root = storeRoot(storesDir, count);
  CertificateStore store(root, {root});
  boost::shared_ptr<CertificateFilter> filter = boost::make_shared<UserCertificateFilter>();
  std::size_t found = 0;
  for (auto _ : state) {
    CertFileCache cache(store, filter, true);
    std::vector<std::string> ids;
    found = cache.listIds(ids);
    benchmark::DoNotOptimize(found);
  }
  reportCount(state, found, count);
}

// The same job with OpenSSL alone: list the directory, read each certificate
// whole, take its emailAddress, check that its key file exists, index it.
void opensslLoop(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string dir = storeUserDir(storesDir, count);
  std::size_t found = 0;
  for (auto _ : state) {
    found = bareOpenSslLoad(dir);
    benchmark::DoNotOptimize(found);
  }
  reportCount(state, found, count);
}

// Botan 2's in-memory store over the directory: it reads every file in it (the
// key files too, which it fails to parse and skips).
void botanStore(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string dir = storeUserDir(storesDir, count);
  std::size_t found = 0;
  for (auto _ : state) {
    Botan::Certificate_Store_In_Memory store(dir);
    found = store.all_subjects().size();
    benchmark::DoNotOptimize(found);
  }
  reportCount(state, found, count);
}

// Botan 2 doing exactly our job: only the .crt files, the e-mail address from
// the subject, the key file's existence.
void botanLoop(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string dir = storeUserDir(storesDir, count);
  std::size_t found = 0;
  for (auto _ : state) {
    std::map<std::string, std::string> index;
    for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
      const fs::path& path = entry.path();
      if (path.extension() != ".crt") continue;
      Botan::X509_Certificate cert(path.string());
      const std::string email = cert.subject_dn().get_first_attribute("PKCS9.EmailAddress");
      if (email.empty() || !keyFileExists(path)) continue;
      index.emplace(email, path.stem().string());
    }
    found = index.size();
    benchmark::DoNotOptimize(found);
  }
  reportCount(state, found, count);
}

// GnuTLS's trust list over the directory (it too reads the key files and
// skips them), with a hash table sized for the store.
void gnutlsTrustDir(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string dir = storeUserDir(storesDir, count);
  std::size_t found = 0;
  for (auto _ : state) {
    gnutls_x509_trust_list_t list = nullptr;
    if (gnutls_x509_trust_list_init(&list, static_cast<unsigned>(count)) < 0) {
      state.SkipWithError("gnutls_x509_trust_list_init failed");
      return;
    }
    const int added =
        gnutls_x509_trust_list_add_trust_dir(list, dir.c_str(), nullptr, GNUTLS_X509_FMT_PEM, 0, 0);
    gnutls_x509_trust_list_deinit(list, 1);
    found = added < 0 ? 0 : static_cast<std::size_t>(added);
    benchmark::DoNotOptimize(found);
  }
  reportCount(state, found, count);
}

// The cache and the bare OpenSSL loop in alternation (see pairedrun.h): the
// figure that decides the tenfold target.
void pairedLoad(benchmark::State& state, const std::string& storesDir, std::size_t count) {
  const std::string root = storeRoot(storesDir, count);
  const std::string dir = storeUserDir(storesDir, count);
  CertificateStore store(root, {root});
  boost::shared_ptr<CertificateFilter> filter = boost::make_shared<UserCertificateFilter>();
  const int rounds = count >= 100000 ? 3 : count >= 10000 ? 9 : 21;
  PairedResult result;
  bool failed = false;
  for (auto _ : state) {
    result = runPaired(
        rounds,
        [&](int) {
          CertFileCache cache(store, filter, true);
          std::vector<std::string> ids;
          return cache.listIds(ids) == count;
        },
        [&](int) { return bareOpenSslLoad(dir) == count; }, failed);
  }
  if (failed) {
    state.SkipWithError("a side did not find every certificate");
    return;
  }
  reportPaired(state, result, static_cast<int>(count));
}

}  // namespace

void registerLoadingBenchmarks(const BenchOptions& options) {
  using Function = void (*)(benchmark::State&, const std::string&, std::size_t);
  const std::pair<const char*, Function> groups[] = {
      {"Load/Cache", cacheConstruction}, {"Load/OpenSSL", opensslLoop},
      {"Load/BotanStore", botanStore},   {"Load/BotanLoop", botanLoop},
      {"Load/GnuTLS", gnutlsTrustDir},
  };
  for (std::size_t count : options.sizes) {
    for (const auto& group : groups) {
      const std::string name = std::string(group.first) + "/" + std::to_string(count);
      benchmark::RegisterBenchmark(name.c_str(), group.second, options.storesDir, count)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    }
  }
  for (std::size_t count : options.sizes) {
    const std::string name = "Pair/Load/" + std::to_string(count);
    benchmark::RegisterBenchmark(name.c_str(), pairedLoad, options.storesDir, count)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(1)
        ->Repetitions(1);
  }
}

}  // namespace bench
}  // namespace tavik
