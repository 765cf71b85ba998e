// A repeatable random stream for OpenSSL, so that two ways of creating a
// credential can be compared on the very same keys.
//
// RSA key generation dominates creation and its time varies widely from key to
// key. Reseeded with the same value before each run, the cache's operation and
// the bare OpenSSL steps generate identical keys and spend identical time on
// them; what remains is the difference between the two. Only for benchmarks:
// keys made this way are predictable.
#ifndef TAVIK_BENCH_DETERMINISTICRANDOM_H_
#define TAVIK_BENCH_DETERMINISTICRANDOM_H_

#include <cstdint>

namespace tavik {
namespace bench {

// While an object lives, OpenSSL's random bytes (key generation, salts, IVs,
// blinding) come from a seeded stream; its destruction restores OpenSSL's own
// generator. One at a time.
class DeterministicRandom {
 public:
  DeterministicRandom();
  ~DeterministicRandom();
  DeterministicRandom(const DeterministicRandom&) = delete;
  DeterministicRandom& operator=(const DeterministicRandom&) = delete;

  // Restarts the stream at `seed`.
  void reseed(std::uint64_t seed);
};

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_DETERMINISTICRANDOM_H_
