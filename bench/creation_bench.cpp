// Credential creation against the bare OpenSSL steps it needs, on identical
// keys: both sides run the same number of times from the same seeds of a
// repeatable random stream, so key generation costs them the same.
#include <benchmark/benchmark.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <filesystem>
#include <string>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/opensslutil.h"
#include "benchregistry.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"
#include "deterministicrandom.h"
#include "pairedrun.h"

namespace tavik {
namespace bench {

namespace {

namespace fs = std::filesystem;

constexpr char kEmail[] = "created@bench.example";
constexpr char kBaseName[] = "created_at_bench.example";  // the cache's name for kEmail
constexpr int kKeyBits = 1024;

// An empty store of its own for each benchmark, so that the measured stores
// stay as generated.
std::string scratchRoot(const BenchOptions& options, const char* name) {
  const fs::path root = fs::path(options.scratchDir) / name;
  std::error_code ignored;
  fs::remove_all(root, ignored);
  fs::create_directories(root / "user", ignored);
  return root.string();
}

PkeyHandle generateKey() {
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), kKeyBits) <= 0 ||
      EVP_PKEY_generate(context.get(), &key) <= 0) {
    return PkeyHandle();
  }
  return PkeyHandle(key);
}

bool writeKey(const std::string& path, EVP_PKEY* key) {
  BioPtr bio(BIO_new_file(path.c_str(), "w"));
  return bio &&
         PEM_write_bio_PrivateKey(bio.get(), key, EVP_des_ede3_cbc(), nullptr, 0, nullptr,
                                  const_cast<char*>(kStorePassword)) == 1 &&
         BIO_flush(bio.get()) == 1 && ::chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0;
}

// What a self-signed pair needs: a key, a version-1 certificate with CN = the
// address as subject and issuer, serial 1, fixed validity, signed over
// SHA-256; the encrypted key and the certificate written.
bool bareSelfSignedPair(const std::string& base) {
  PkeyHandle key = generateKey();
  X509Ptr cert(X509_new());
  if (!key || !cert) return false;
  X509_NAME* name = X509_get_subject_name(cert.get());
  if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(kEmail), -1, -1, 0) != 1 ||
      X509_set_issuer_name(cert.get(), name) != 1 || X509_set_pubkey(cert.get(), key.get()) != 1 ||
      ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) != 1 ||
      ASN1_TIME_set_string(X509_getm_notBefore(cert.get()), "20100101000000Z") != 1 ||
      ASN1_TIME_set_string(X509_getm_notAfter(cert.get()), "20370101000000Z") != 1 ||
      X509_sign(cert.get(), key.get(), EVP_sha256()) == 0 || !writeKey(base + ".key", key.get())) {
    return false;
  }
  BioPtr bio(BIO_new_file((base + ".crt").c_str(), "w"));
  return bio && PEM_write_bio_X509(bio.get(), cert.get()) == 1 && BIO_flush(bio.get()) == 1;
}

// What a request needs: a key, a version-1 request with the address as
// emailAddress, signed over SHA-1, as PEM text; the encrypted key written.
bool bareRequest(const std::string& base, std::string& csr) {
  PkeyHandle key = generateKey();
  X509ReqPtr request(X509_REQ_new());
  X509NamePtr name(X509_NAME_new());
  if (!key || !request || !name || X509_REQ_set_version(request.get(), 0) != 1 ||
      X509_NAME_add_entry_by_txt(name.get(), "emailAddress", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(kEmail), -1, -1, 0) != 1 ||
      X509_REQ_set_subject_name(request.get(), name.get()) != 1 ||
      X509_REQ_set_pubkey(request.get(), key.get()) != 1 ||
      X509_REQ_sign(request.get(), key.get(), EVP_sha1()) <= 0) {
    return false;
  }
  BioPtr buffer(BIO_new(BIO_s_mem()));
  if (!buffer || PEM_write_bio_X509_REQ(buffer.get(), request.get()) != 1) return false;
  char* text = nullptr;
  const long length = BIO_get_mem_data(buffer.get(), &text);
  csr.assign(text, static_cast<std::size_t>(length));
  return writeKey(base + ".tpk", key.get());
}

void cacheSelfSigned(benchmark::State& state, const BenchOptions& options) {
  const std::string root = scratchRoot(options, "self-signed-cache");
  CertificateStore store(root, {root});
  CertFileCache cache(store, boost::make_shared<UserCertificateFilter>(), true);
  DeterministicRandom random;
  std::uint64_t seed = 0;
  for (auto _ : state) {
    random.reseed(++seed);
    if (cache.createSelfSignedKeyPair("", kEmail, kStorePassword,
                                      CertFileCache::overwriteExisting) != 0) {
      state.SkipWithError("createSelfSignedKeyPair failed");
      return;
    }
  }
}

void bareSelfSigned(benchmark::State& state, const BenchOptions& options) {
  const std::string base = scratchRoot(options, "self-signed-bare") + "/user/" + kBaseName;
  DeterministicRandom random;
  std::uint64_t seed = 0;
  for (auto _ : state) {
    random.reseed(++seed);
    if (!bareSelfSignedPair(base)) {
      state.SkipWithError("the bare steps failed");
      return;
    }
  }
}

void cacheCsr(benchmark::State& state, const BenchOptions& options) {
  const std::string root = scratchRoot(options, "csr-cache");
  CertificateStore store(root, {root});
  CertFileCache cache(store, boost::make_shared<UserCertificateFilter>(), true);
  DeterministicRandom random;
  std::uint64_t seed = 0;
  std::string csr;
  for (auto _ : state) {
    random.reseed(++seed);
    if (cache.createCsr("", kEmail, kStorePassword, CertFileCache::overwriteExisting, csr) != 0) {
      state.SkipWithError("createCsr failed");
      return;
    }
  }
}

void bareCsr(benchmark::State& state, const BenchOptions& options) {
  const std::string base = scratchRoot(options, "csr-bare") + "/user/" + kBaseName;
  DeterministicRandom random;
  std::uint64_t seed = 0;
  std::string csr;
  for (auto _ : state) {
    random.reseed(++seed);
    if (!bareRequest(base, csr)) {
      state.SkipWithError("the bare steps failed");
      return;
    }
  }
}

// Both creations in alternation (see pairedrun.h); in each round both sides
// go through the same seeds, so they generate the same keys.
void pairedCreation(benchmark::State& state, const BenchOptions& options, bool request) {
  const int perRound = std::max(1, options.creationIterations / 30);
  constexpr int kRounds = 31;
  const std::string root = scratchRoot(options, request ? "csr-paired-cache" : "pair-cache");
  const std::string bareBase =
      scratchRoot(options, request ? "csr-paired-bare" : "pair-bare") + "/user/" + kBaseName;
  CertificateStore store(root, {root});
  CertFileCache cache(store, boost::make_shared<UserCertificateFilter>(), true);
  DeterministicRandom random;
  std::string csr;
  PairedResult result;
  bool failed = false;
  for (auto _ : state) {
    result = runPaired(
        kRounds,
        [&](int round) {
          for (int k = 0; k < perRound; ++k) {
            random.reseed(static_cast<std::uint64_t>(round) * static_cast<std::uint64_t>(perRound) +
                          static_cast<std::uint64_t>(k) + 1);
            const int made = request
                                 ? cache.createCsr("", kEmail, kStorePassword,
                                                   CertFileCache::overwriteExisting, csr)
                                 : cache.createSelfSignedKeyPair("", kEmail, kStorePassword,
                                                                 CertFileCache::overwriteExisting);
            if (made != 0) return false;
          }
          return true;
        },
        [&](int round) {
          for (int k = 0; k < perRound; ++k) {
            random.reseed(static_cast<std::uint64_t>(round) * static_cast<std::uint64_t>(perRound) +
                          static_cast<std::uint64_t>(k) + 1);
            if (!(request ? bareRequest(bareBase, csr) : bareSelfSignedPair(bareBase))) {
              return false;
            }
          }
          return true;
        },
        failed);
  }
  if (failed) {
    state.SkipWithError("a creation failed");
    return;
  }
  reportPaired(state, result, perRound);
}

}  // namespace

void registerCreationBenchmarks(const BenchOptions& options) {
  using Function = void (*)(benchmark::State&, const BenchOptions&);
  const std::pair<const char*, Function> benchmarks[] = {
      {"Create/SelfSigned/Cache", cacheSelfSigned},
      {"Create/SelfSigned/OpenSSL", bareSelfSigned},
      {"Create/Csr/Cache", cacheCsr},
      {"Create/Csr/OpenSSL", bareCsr},
  };
  for (const auto& entry : benchmarks) {
    // A fixed count, so that both sides of a pair go through the same seeds.
    benchmark::RegisterBenchmark(entry.first, entry.second, options)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(options.creationIterations);
  }
  benchmark::RegisterBenchmark("Pair/SelfSigned", pairedCreation, options, false)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1)
      ->Repetitions(1);
  benchmark::RegisterBenchmark("Pair/Csr", pairedCreation, options, true)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1)
      ->Repetitions(1);
}

}  // namespace bench
}  // namespace tavik
