#define TAVIK_LOG_SOURCE_FILE "tools/certcache/secretmemory.cpp"

#include "secretmemory.h"

#include <openssl/crypto.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cstring>
#include <string>

#include "cleansingallocator.h"
#include "log/log.h"

namespace tavik {
namespace cli {

namespace {

LogHandle logHandle(nullptr, 0, 2);
LogRegister logRegister(logHandle, TAVIK_LOG_SOURCE_FILE, __LINE__, 8);

// Every operation of the tool on the largest key it handles (making, signing
// with, reading and writing an RSA 4096 key) runs in a heap of 4 KiB and fails
// in one of 2 KiB; OpenSSL does not fall back to the ordinary heap when this
// one is full, hence sixteen times that. It still fits the smallest limit of
// locked memory that systems set for a user (RLIMIT_MEMLOCK, 64 KiB). A power
// of two, as OpenSSL requires.
constexpr std::size_t kSecureHeapBytes = std::size_t{64} * 1024;
// The smallest block of the secure heap: a power of two too.
constexpr std::size_t kSecureHeapSmallest = 16;
// The tool's deepest calls into OpenSSL (making, reading and writing RSA 4096
// keys, PKCS#12 both ways, check) reach under 10 KiB below main(); a page
// more of stack than that costs a page fault to scrub.
constexpr std::size_t kStackScrubBytes = std::size_t{32} * 1024;

// What protectProcessMemory could do, for tellProtection.
bool undumpable = false;
bool noCore = false;
enum class Cleansing { kNotAsked, kInstalled, kRefused } cleansing = Cleansing::kNotAsked;
bool secureHeapTried = false;

}  // namespace

void protectProcessMemory() {
  undumpable = ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
  const rlimit none{0, 0};
  noCore = ::setrlimit(RLIMIT_CORE, &none) == 0;
}

void cleanseOpenSSLMemory() {
  cleansing = installCleansingAllocator() ? Cleansing::kInstalled : Cleansing::kRefused;
}

void tellProtection() {
  TAVIK_LOG_DEBUG(logHandle)
      << (undumpable ? "not dumpable" : "still dumpable (prctl refused)") << ", "
      << (noCore ? "no core file" : "core size limit unchanged (setrlimit refused)") << ", "
      << (cleansing == Cleansing::kInstalled ? "OpenSSL's freed memory cleansed"
          : cleansing == Cleansing::kRefused
              ? "OpenSSL's freed memory not cleansed (OpenSSL had allocated already)"
              : "OpenSSL's allocator left as it is (no password in this run)");
}

void startSecureHeap() {
  if (secureHeapTried) return;
  secureHeapTried = true;
  const int started = CRYPTO_secure_malloc_init(kSecureHeapBytes, kSecureHeapSmallest);
  TAVIK_LOG_DEBUG(logHandle)
      << (started == 1
              ? "secure heap of " + std::to_string(kSecureHeapBytes / 1024) + " KiB started, locked"
          : started == 2 ? "secure heap started, not locked: the system refuses locked memory "
                           "(RLIMIT_MEMLOCK), so its pages may be swapped out"
                         : "no secure heap: the system refuses it; private key numbers are on "
                           "the ordinary heap");
}

// Not inlined, so that its frame lies below the caller's; the empty asm
// statement may read the area, so the memset is not dropped.
__attribute__((noinline)) void scrubStack() {
  // A run without a password handed OpenSSL no secret.
  if (cleansing == Cleansing::kNotAsked) return;
  unsigned char area[kStackScrubBytes];
  std::memset(area, 0, sizeof area);
  __asm__ __volatile__("" : : "r"(area) : "memory");
}

}  // namespace cli
}  // namespace tavik
