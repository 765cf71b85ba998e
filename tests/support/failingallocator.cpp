#include "support/failingallocator.h"

#include <openssl/crypto.h>

#include <cstdlib>

namespace tavik {
namespace test {
namespace failingallocator {

namespace {

// The harness is single-threaded; OpenSSL allocates on the caller's thread.
bool counting = false;
long counted = 0;
long failAt = 0;  // 0: never
bool injected = false;
bool installedFirst = false;

// True when this allocation is the one to fail.
bool countAndDecide() {
  if (!counting) return false;
  ++counted;
  if (counted != failAt) return false;
  injected = true;
  return true;
}

void* countingMalloc(size_t size, const char* /*file*/, int /*line*/) {
  return countAndDecide() ? nullptr : std::malloc(size);
}

// A failing realloc leaves the block as it was, as the C library's does.
void* countingRealloc(void* block, size_t size, const char* /*file*/, int /*line*/) {
  return countAndDecide() ? nullptr : std::realloc(block, size);
}

void plainFree(void* block, const char* /*file*/, int /*line*/) { std::free(block); }

// Priority 101 runs before every constructor of default priority, that is
// before any static object of the library or of the test framework exists.
__attribute__((constructor(101))) void installAllocator() {
  installedFirst = CRYPTO_set_mem_functions(countingMalloc, countingRealloc, plainFree) == 1;
}

}  // namespace

bool installed() { return installedFirst; }

void startCounting() {
  counted = 0;
  failAt = 0;
  injected = false;
  counting = true;
}

void failAllocation(long k) {
  startCounting();
  failAt = k;
}

long stop() {
  counting = false;
  failAt = 0;
  return counted;
}

bool failureInjected() { return injected; }

}  // namespace failingallocator
}  // namespace test
}  // namespace tavik
