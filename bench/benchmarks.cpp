// The benchmark program. Every figure is a paired run (pairedrun.h): one of the
// cache's operations against the bare OpenSSL steps that do the same job, or
// the cache's opening of a store against a peer library reading the same files,
// or lookups over profile key files against lookups over the original ones.
// Besides Google Benchmark's own flags it takes
//   --stores=DIR              where tavik_bench_generate made the stores (required)
//   --sizes=N,N,...           the store sizes to measure (default 1000,10000,100000)
//   --creation-iterations=N   creations per side in each creation pair (default 300)
#include <benchmark/benchmark.h>
#include <botan/certstor.h>
#include <botan/pkix_types.h>
#include <botan/x509cert.h>
#include <gnutls/x509.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/certificatefilter.h"
#include "base/certificatestore.h"
#include "base/opensslutil.h"
#include "benchstore.h"
#include "crypto/certificatefilecache.h"
#include "crypto/credentialprofile.h"
#include "deterministicrandom.h"
#include "pairedrun.h"

namespace tavik {
namespace bench {
namespace {

namespace fs = std::filesystem;
using Side = std::function<bool(int round)>;

struct Options {
  std::string storesDir;
  std::vector<std::size_t> sizes{1000, 10000, 100000};
  int creationIterations = 300;
};

// A key-holding cache with the user filter over a store, as a program opens one.
struct OpenCache {
  explicit OpenCache(const std::string& root)
      : store(root, {root}), cache(store, boost::make_shared<UserCertificateFilter>(), true) {}
  std::size_t entries() const {
    std::vector<std::string> ids;
    return cache.listIds(ids);
  }
  CertificateStore store;
  CertFileCache cache;
};

// One benchmark run of `rounds` paired rounds. `setup` runs only when the
// benchmark does, and returns the two sides, which own what they need.
void registerPair(const std::string& name, int rounds, int unitsPerRound,
                  std::function<std::pair<Side, Side>()> setup) {
  auto run = [=](benchmark::State& state) {
    const std::pair<Side, Side> sides = setup();
    PairedResult result;
    bool failed = false;
    for (auto _ : state) result = runPaired(rounds, sides.first, sides.second, failed);
    if (failed) {
      state.SkipWithError("a side failed");
    } else {
      reportPaired(state, result, unitsPerRound);
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->Iterations(1)
      ->Repetitions(1);
}

// A side that does `perRound` units of work a round, `unit(round, k)` each.
Side units(int perRound, std::function<bool(int round, int k)> unit) {
  return [=](int round) {
    for (int k = 0; k < perRound; ++k) {
      if (!unit(round, k)) return false;
    }
    return true;
  };
}

// ---- Opening a store

// Botan 2 doing the cache's job: the .crt files only, the address from the
// subject, the key file's existence.
std::size_t botanLoop(const std::string& dir) {
  std::map<std::string, std::string> index;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir)) {
    const fs::path& path = entry.path();
    if (path.extension() != ".crt") continue;
    const Botan::X509_Certificate cert(path.string());
    const std::string email = cert.subject_dn().get_first_attribute("PKCS9.EmailAddress");
    if (!email.empty() && keyFileExists(path)) index.emplace(email, path.stem().string());
  }
  return index.size();
}

// Botan 2's in-memory store over the directory; it also reads the key files,
// fails to parse them and skips them.
std::size_t botanStore(const std::string& dir) {
  return Botan::Certificate_Store_In_Memory(dir).all_subjects().size();
}

// GnuTLS's trust list over the directory, its hash table sized for the store;
// it too reads the key files and skips them.
std::size_t gnutlsTrustDir(const std::string& dir, std::size_t count) {
  gnutls_x509_trust_list_t list = nullptr;
  if (gnutls_x509_trust_list_init(&list, static_cast<unsigned>(count)) < 0) return 0;
  const int added =
      gnutls_x509_trust_list_add_trust_dir(list, dir.c_str(), nullptr, GNUTLS_X509_FMT_PEM, 0, 0);
  gnutls_x509_trust_list_deinit(list, 1);
  return added < 0 ? 0 : static_cast<std::size_t>(added);
}

// The cache's opening against the bare OpenSSL loop and each peer, per
// certificate. A round of the largest store takes seconds, hence fewer rounds.
void registerOpening(const Options& options, std::size_t count) {
  const std::string root = storeRoot(options.storesDir, count);
  const std::string dir = root + "/user";
  const int rounds = count >= 100000 ? 3 : count >= 10000 ? 9 : 21;
  const std::pair<std::string, Side> others[] = {
      {"Pair/Load/", [=](int) { return bareOpenSslLoad(dir) == count; }},
      {"Peer/BotanStore/", [=](int) { return botanStore(dir) == count; }},
      {"Peer/BotanLoop/", [=](int) { return botanLoop(dir) == count; }},
      {"Peer/GnuTLS/", [=](int) { return gnutlsTrustDir(dir, count) == count; }},
  };
  for (const auto& other : others) {
    registerPair(other.first + std::to_string(count), rounds, static_cast<int>(count), [=] {
      return std::make_pair(Side([=](int) { return OpenCache(root).entries() == count; }),
                            other.second);
    });
  }
}

// ---- Lookups

// getCertificate with key on an open cache against the bare reads of the same
// two files, 50 a round, scattered by a prime stride so that successive
// lookups read different files.
void registerLookup(const Options& options, std::size_t count) {
  constexpr int kPerRound = 50;
  const std::string root = storeRoot(options.storesDir, count);
  const auto certificateOf = [count](int round, int k) {
    return (static_cast<std::size_t>(round) * kPerRound + static_cast<std::size_t>(k)) * 7919 %
           count;
  };
  registerPair("Pair/Lookup/" + std::to_string(count), 41, kPerRound, [=] {
    const auto open = std::make_shared<OpenCache>(root);
    const Side ours = units(kPerRound, [=](int round, int k) {
      int errorCode = -1;
      return open->cache.getCertificate(certificateEmail(certificateOf(round, k)), kStorePassword,
                                        errorCode, false) != nullptr;
    });
    const Side theirs = units(kPerRound, [=](int round, int k) {
      return bareReadCertificateAndKey(root + "/user/" +
                                       certificateBaseName(certificateOf(round, k)));
    });
    return std::make_pair(ours, theirs);
  });
}

// ---- Creating credentials

constexpr char kEmail[] = "created@bench.example";
constexpr char kBaseName[] = "created_at_bench.example";  // the cache's file name for kEmail

// An empty store of its own, so that the measured stores stay as generated.
std::string scratchRoot(const Options& options, const std::string& name) {
  const fs::path root = fs::path(options.storesDir) / "scratch" / name;
  std::error_code ignored;
  fs::remove_all(root, ignored);
  fs::create_directories(root / "user", ignored);
  return root.string();
}

PkeyHandle generateKey() {
  EvpPkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
  EVP_PKEY* key = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 1024) <= 0 ||
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

// What a self-signed pair needs: a key; a version-1 certificate with CN = the
// address as subject and issuer, serial 1, the cache's fixed validity, signed
// over SHA-256; the encrypted key and the certificate written.
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

// What a request needs: a key; a version-1 request with the address as
// emailAddress, signed over SHA-1, as PEM text; the encrypted key written.
bool bareRequest(const std::string& base, std::string& csr) {
  PkeyHandle key = generateKey();
  X509ReqPtr request(X509_REQ_new());
  X509NamePtr name(X509_NAME_new());
  BioPtr buffer(BIO_new(BIO_s_mem()));
  if (!key || !request || !name || !buffer || X509_REQ_set_version(request.get(), 0) != 1 ||
      X509_NAME_add_entry_by_txt(name.get(), "emailAddress", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(kEmail), -1, -1, 0) != 1 ||
      X509_REQ_set_subject_name(request.get(), name.get()) != 1 ||
      X509_REQ_set_pubkey(request.get(), key.get()) != 1 ||
      X509_REQ_sign(request.get(), key.get(), EVP_sha1()) <= 0 ||
      PEM_write_bio_X509_REQ(buffer.get(), request.get()) != 1) {
    return false;
  }
  char* text = nullptr;
  const long length = BIO_get_mem_data(buffer.get(), &text);
  csr.assign(text, static_cast<std::size_t>(length));
  return writeKey(base + ".tpk", key.get());
}

// The cache's creation against the bare steps. RSA key generation dominates
// and its time varies widely from key to key, so in each round both sides go
// through the same seeds of a repeatable random stream: they make the same keys.
void registerCreation(const Options& options, bool request) {
  const int perRound = std::max(1, options.creationIterations / 30);
  const std::string name = request ? "csr" : "selfsigned";
  registerPair(request ? "Pair/Csr" : "Pair/SelfSigned", 31, perRound, [=] {
    const auto open = std::make_shared<OpenCache>(scratchRoot(options, name + "-cache"));
    const std::string bareBase = scratchRoot(options, name + "-bare") + "/user/" + kBaseName;
    const auto random = std::make_shared<DeterministicRandom>();
    const auto csr = std::make_shared<std::string>();
    const auto seed = [random, perRound](int round, int k) {
      random->reseed(static_cast<std::uint64_t>(round) * perRound + k + 1);
    };
    const int flags = CertFileCache::overwriteExisting;
    const Side ours = units(perRound, [=](int round, int k) {
      seed(round, k);
      return (request
                  ? open->cache.createCsr("", kEmail, kStorePassword, flags, *csr)
                  : open->cache.createSelfSignedKeyPair("", kEmail, kStorePassword, flags)) == 0;
    });
    const Side theirs = units(perRound, [=](int round, int k) {
      seed(round, k);
      return request ? bareRequest(bareBase, *csr) : bareSelfSignedPair(bareBase);
    });
    return std::make_pair(ours, theirs);
  });
}

// ---- Lookups with profile key files

// How many certificates of the smallest store the key-file stores hold: one
// for each of its subject keys, so that every lookup of a round decrypts a
// different key file.
constexpr int kKdfCertificates = 4;

// A scratch store holding the first kKdfCertificates certificates of the
// smallest store, their key files written anew by the cache: under `profile`
// (AES-256-CBC, PBKDF2-HMAC-SHA256 at its iterations) or, when null, as the
// original key files (Triple-DES, OpenSSL's default PBKDF2 iterations). The
// keys are the store's RSA 1024 keys. "" when a file cannot be made.
std::string keyFileStore(const Options& options, const std::string& name,
                         const CredentialProfile* profile) {
  const fs::path source = fs::path(storeRoot(options.storesDir, options.sizes.front())) / "user";
  const std::string root = scratchRoot(options, name);
  OpenCache writer(root);
  for (int i = 0; i < kKdfCertificates; ++i) {
    const std::string base = certificateBaseName(static_cast<std::size_t>(i));
    const fs::path target = fs::path(root) / "user" / base;
    std::error_code copyError;
    fs::copy_file(fs::path(source / base).concat(".crt"), fs::path(target).concat(".crt"),
                  fs::copy_options::overwrite_existing, copyError);
    BioPtr bio(BIO_new_file(fs::path(source / base).concat(".key").c_str(), "r"));
    PkeyHandle key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr,
                                                 const_cast<char*>(kStorePassword))
                       : nullptr);
    const std::string keyFile = fs::path(target).concat(".key").string();
    if (copyError || !key ||
        (profile != nullptr
             ? writer.cache.writePrivateKey(keyFile, kStorePassword, key.get(), *profile)
             : writer.cache.writePrivateKey(keyFile, kStorePassword, key.get())) != 0) {
      return "";
    }
  }
  return root;
}

// getCertificate with key over profile key files at `iterations` against the
// same lookups over the original key files of the same certificates: what a
// lookup costs an embedder who chooses the profile's kdfIterations. A lookup
// at 100,000 iterations takes some twenty milliseconds, hence few a round.
void registerProfileKeyLookup(const Options& options, int iterations) {
  constexpr int kPerRound = kKdfCertificates;
  registerPair("Pair/LookupKdf/" + std::to_string(iterations), 21, kPerRound, [=] {
    CredentialProfile profile;
    profile.kdfIterations = iterations;
    const std::string profileRoot =
        keyFileStore(options, "kdf-" + std::to_string(iterations), &profile);
    const std::string originalRoot = keyFileStore(options, "kdf-original", nullptr);
    if (profileRoot.empty() || originalRoot.empty()) {
      const Side failing = [](int) { return false; };
      return std::make_pair(failing, failing);
    }
    const auto profileCache = std::make_shared<OpenCache>(profileRoot);
    const auto originalCache = std::make_shared<OpenCache>(originalRoot);
    const auto lookups = [](std::shared_ptr<OpenCache> open) {
      return units(kPerRound, [open](int, int k) {
        int errorCode = -1;
        return open->cache.getCertificate(certificateEmail(static_cast<std::size_t>(k)),
                                          kStorePassword, errorCode, false) != nullptr;
      });
    };
    return std::make_pair(lookups(profileCache), lookups(originalCache));
  });
}

// ---- Options

bool takeOption(const std::string& arg, const std::string& name, std::string& value) {
  if (arg.compare(0, name.size() + 1, name + "=") != 0) return false;
  value = arg.substr(name.size() + 1);
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
}  // namespace bench
}  // namespace tavik

int main(int argc, char** argv) {
  using namespace tavik::bench;
  Options options;
  std::string value;
  int kept = 1;  // our options are taken out; the rest go to Google Benchmark
  for (int arg = 1; arg < argc; ++arg) {
    if (takeOption(argv[arg], "--stores", options.storesDir)) continue;
    if (takeOption(argv[arg], "--sizes", value)) {
      if (parseSizes(value, options.sizes)) continue;
      std::fprintf(stderr, "--sizes takes a comma-separated list of counts\n");
      return 64;
    }
    if (takeOption(argv[arg], "--creation-iterations", value)) {
      options.creationIterations = std::atoi(value.c_str());
      if (options.creationIterations > 0) continue;
      std::fprintf(stderr, "--creation-iterations takes a positive count\n");
      return 64;
    }
    argv[kept++] = argv[arg];
  }
  argc = kept;
  if (options.storesDir.empty()) {
    std::fprintf(stderr, "--stores=DIR is required\n");
    return 64;
  }
  for (std::size_t size : options.sizes) {
    if (!storeExists(options.storesDir, size)) {
      std::fprintf(stderr, "no store of %zu certificates in %s: run tavik_bench_generate first\n",
                   size, options.storesDir.c_str());
      return 66;
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 64;
  for (std::size_t size : options.sizes) registerOpening(options, size);
  for (std::size_t size : options.sizes) registerLookup(options, size);
  for (int iterations : {100000, 10000}) registerProfileKeyLookup(options, iterations);
  registerCreation(options, false);
  registerCreation(options, true);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
