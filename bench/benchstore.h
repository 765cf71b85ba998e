// The generated certificate stores that the benchmarks read, and the bare
// OpenSSL work that the cache's operations are compared with.
//
// The store of N certificates lies in STORES/store-N. Its cache directory,
// STORES/store-N/user, holds userNNNNNN.crt (an end-entity certificate signed
// by a bench authority, RSA 1024, emailAddress and an rfc822Name) and
// userNNNNNN.key (its key, Triple-DES encrypted under kStorePassword, as the
// cache writes keys). The certificates share four subject keys, each encrypted
// once, so that making 100,000 takes minutes.
#ifndef TAVIK_BENCH_BENCHSTORE_H_
#define TAVIK_BENCH_BENCHSTORE_H_

#include <cstddef>
#include <filesystem>
#include <string>

namespace tavik {
namespace bench {

extern const char kStorePassword[];

std::string storeRoot(const std::string& storesDir, std::size_t count);
// File base name and e-mail identifier of certificate `i` of a store.
std::string certificateBaseName(std::size_t i);
std::string certificateEmail(std::size_t i);

// True when the store of `count` certificates was completed.
bool storeExists(const std::string& storesDir, std::size_t count);
// Makes that store unless it is complete; a half-made one is made again.
bool generateStore(const std::string& storesDir, std::size_t count, std::string& error);

// Whether the .key file beside a .crt exists, asked with one stat() as the cache does.
bool keyFileExists(std::filesystem::path certFile);
// Opening a store with OpenSSL alone: list `dir`, read each .crt with
// PEM_read_bio_X509, take its emailAddress, check that its .key exists, index
// it by address. Returns the number indexed.
std::size_t bareOpenSslLoad(const std::string& dir);
// A lookup's OpenSSL work alone: read `base`.crt, and `base`.key under the password.
bool bareReadCertificateAndKey(const std::string& base);

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_BENCHSTORE_H_
