// Credential creation against the bare OpenSSL steps it needs. Filled in once
// the cache's creating operations are there.
#include "benchregistry.h"

namespace tavik {
namespace bench {

void registerCreationBenchmarks(const BenchOptions& /*options*/) {}

}  // namespace bench
}  // namespace tavik
