// The bare OpenSSL work that the cache's operations are measured against,
// shared by the benchmarks and the probe program that profilers run.
#ifndef TAVIK_BENCH_BAREOPENSSL_H_
#define TAVIK_BENCH_BAREOPENSSL_H_

#include <cstddef>
#include <string>

namespace tavik {
namespace bench {

// Opening a store with OpenSSL alone: list `dir`, read each .crt whole with
// BIO_new_file + PEM_read_bio_X509, take its emailAddress, check that its .key
// exists, index it by address, free it. Returns the number indexed.
std::size_t bareOpenSslLoad(const std::string& dir);

// A lookup's cryptography alone: read `base`.crt with PEM_read_bio_X509 and
// `base`.key with PEM_read_bio_PrivateKey under the store password.
bool bareReadCertificateAndKey(const std::string& base);

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_BAREOPENSSL_H_
