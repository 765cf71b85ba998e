#include "support/failingallocator.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tavik {
namespace test {
namespace failingallocator {

namespace {

// The harness is single-threaded; OpenSSL allocates on the caller's thread.
bool counting = false;
long counted = 0;
long failAt = 0;  // 0: never
bool injected = false;
bool spared = false;
std::string site;
bool installedFirst = false;

// Allocations that libcrypto itself cannot fail safely: OpenSSL 3.0's
// ASN1_item_sign_ctx decodes the signature algorithm into the certificate's
// or request's embedded X509_ALGOR, and when that decoding runs out of memory
// ASN1_item_d2i_ex frees the embedded structure, a pointer that malloc never
// gave (an invalid free, in X509_sign and X509_REQ_sign alike). A fault whose
// allocation has both functions on its stack is not injected.
struct KnownDefect {
  const char* inner;
  const char* outer;
};
constexpr KnownDefect kKnownDefects[] = {{"ASN1_item_d2i_ex", "ASN1_item_sign_ctx"}};

bool stackHolds(void* const* frames, int count, const char* function) {
  for (int i = 0; i < count; ++i) {
    Dl_info info{};
    if (::dladdr(frames[i], &info) != 0 && info.dli_sname != nullptr &&
        std::strcmp(info.dli_sname, function) == 0) {
      return true;
    }
  }
  return false;
}

bool inKnownDefect() {
  void* frames[64];
  const int count = ::backtrace(frames, 64);
  for (const KnownDefect& defect : kKnownDefects) {
    if (stackHolds(frames, count, defect.inner) && stackHolds(frames, count, defect.outer)) {
      return true;
    }
  }
  return false;
}

// True when this allocation is the one to fail.
bool countAndDecide(const char* file, int line) {
  if (!counting) return false;
  ++counted;
  if (counted != failAt) return false;
  site = std::string(file != nullptr ? file : "?") + ":" + std::to_string(line);
  if (inKnownDefect()) {
    spared = true;
    return false;
  }
  injected = true;
  if (std::getenv("TAVIK_FAULT_TRACE") != nullptr) {
    std::fprintf(stderr, "failing allocation %ld at %s\n", counted, site.c_str());
  }
  return true;
}

void* countingMalloc(size_t size, const char* file, int line) {
  return countAndDecide(file, line) ? nullptr : std::malloc(size);
}

// A failing realloc leaves the block as it was, as the C library's does.
void* countingRealloc(void* block, size_t size, const char* file, int line) {
  return countAndDecide(file, line) ? nullptr : std::realloc(block, size);
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
  spared = false;
  site.clear();
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

bool failureSpared() { return spared; }

const std::string& failureSite() { return site; }

}  // namespace failingallocator
}  // namespace test
}  // namespace tavik
