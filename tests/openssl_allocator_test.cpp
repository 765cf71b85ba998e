// Installs a counting allocator with CRYPTO_set_mem_functions at the start of
// main(). OpenSSL refuses that once it has allocated anything, so this fails if
// the library's static initialisation allocated through OpenSSL.
#include <openssl/crypto.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>

#include "crypto/certificatefilecache.h"

namespace {

std::atomic<long> allocations{0};

void* countingMalloc(size_t size, const char*, int) {
  ++allocations;
  return std::malloc(size);
}
void* countingRealloc(void* block, size_t size, const char*, int) {
  ++allocations;
  return std::realloc(block, size);
}
void countingFree(void* block, const char*, int) { std::free(block); }

}  // namespace

int main() {
  if (CRYPTO_set_mem_functions(countingMalloc, countingRealloc, countingFree) != 1) {
    std::fprintf(stderr, "OpenSSL allocated before main()\n");
    return 1;
  }
  tavik::CertificateStore store("/nonexistent-store", {"/nonexistent-store"});
  tavik::CertFileCache cache(store, boost::make_shared<tavik::UserCertificateFilter>(), true);
  tavik::PkeyHandle key = tavik::OpenSSLUtil::generateRsaPkey(1024);
  if (!key || allocations.load() == 0) {
    std::fprintf(stderr, "the library did not allocate through the installed functions\n");
    return 1;
  }
  return 0;
}
