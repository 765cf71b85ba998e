// An allocator for OpenSSL that counts allocations and can make one of them
// fail, the way OpenSSL's own memory-failure tests work. It is installed with
// CRYPTO_set_mem_functions by a constructor that runs before any other static
// initialisation of the program, so every OpenSSL allocation passes through it.
// Link it only into a test program of its own.
#ifndef TAVIK_TESTS_SUPPORT_FAILINGALLOCATOR_H_
#define TAVIK_TESTS_SUPPORT_FAILINGALLOCATOR_H_

#include <string>

namespace tavik {
namespace test {
namespace failingallocator {

// True when the allocator was installed before OpenSSL allocated anything.
bool installed();

// Starts counting allocations (malloc and realloc) from zero; none fails.
void startCounting();
// Starts counting from zero and makes the `k`-th allocation (1-based) fail.
void failAllocation(long k);
// Stops counting and failing; returns the number of allocations counted.
long stop();
// True when the allocation chosen by failAllocation was reached and failed.
bool failureInjected();
// True when the chosen allocation was reached but not failed, because it lies
// in a known defect of libcrypto's own error handling (listed in the .cpp).
bool failureSpared();
// OpenSSL's source file and line of the chosen allocation, once reached.
const std::string& failureSite();

}  // namespace failingallocator
}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_SUPPORT_FAILINGALLOCATOR_H_
