#include "deterministicrandom.h"

#include <openssl/rand.h>

namespace tavik {
namespace bench {

namespace {

// SplitMix64: fast, and ample for choosing prime candidates and salts.
std::uint64_t state = 0;

std::uint64_t nextWord() {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

int bytes(unsigned char* out, int count) {
  for (int i = 0; i < count; ++i) out[i] = static_cast<unsigned char>(nextWord() >> 56);
  return 1;
}

int seed(const void* /*buffer*/, int /*count*/) { return 1; }
int add(const void* /*buffer*/, int /*count*/, double /*entropy*/) { return 1; }
int status() { return 1; }

// OpenSSL 3.0 still routes every request for random bytes, those of its
// providers included, through a method installed this way; there is no
// other means of making its output repeatable.
const RAND_METHOD kMethod = {seed, bytes, nullptr, add, bytes, status};

}  // namespace

DeterministicRandom::DeterministicRandom() {
  reseed(0);
  RAND_set_rand_method(&kMethod);
}

DeterministicRandom::~DeterministicRandom() { RAND_set_rand_method(RAND_OpenSSL()); }

void DeterministicRandom::reseed(std::uint64_t seedValue) {
  state = seedValue * 0x2545F4914F6CDD1DULL;
}

}  // namespace bench
}  // namespace tavik
