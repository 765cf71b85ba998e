// The synthetic certificate stores that the benchmarks read: where a store of a
// given size lives, what its certificates are called, and how to make one.
//
// A store of N certificates has one base location, its root, and in root/user
// the files userNNNNNN.crt (a CA-signed end-entity certificate with a 1024-bit
// RSA key, an emailAddress and an rfc822Name) and userNNNNNN.key (its key,
// Triple-DES encrypted under kStorePassword, as the cache writes keys). A few
// subject keys are shared by all certificates, each encrypted once, so that
// making 100,000 takes minutes.
#ifndef TAVIK_BENCH_BENCHSTORE_H_
#define TAVIK_BENCH_BENCHSTORE_H_

#include <cstddef>
#include <string>

namespace tavik {
namespace bench {

// The password of every key file of a generated store.
extern const char kStorePassword[];

// The root of the store of `count` certificates below `storesDir`.
std::string storeRoot(const std::string& storesDir, std::size_t count);
// The cache directory of that store: root/user.
std::string storeUserDir(const std::string& storesDir, std::size_t count);
// File base name and e-mail identifier of certificate `i` (0 <= i < count).
std::string certificateBaseName(std::size_t i);
std::string certificateEmail(std::size_t i);

// True when the store of `count` certificates below `storesDir` was completed.
bool storeExists(const std::string& storesDir, std::size_t count);

// Makes the store of `count` certificates below `storesDir` unless it is
// complete already. A half-made store (an interrupted run) is made again.
// Returns false with a reason in `error` when it cannot.
bool generateStore(const std::string& storesDir, std::size_t count, std::string& error);

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_BENCHSTORE_H_
