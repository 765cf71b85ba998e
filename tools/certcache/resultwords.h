// Words for the cache's result codes and lookup error codes, so that a failure
// of an operation can be told to a person in one line.
#ifndef TAVIK_TOOLS_CERTCACHE_RESULTWORDS_H_
#define TAVIK_TOOLS_CERTCACHE_RESULTWORDS_H_

#include <string>

namespace tavik {
namespace cli {

// What a result code (1 to 13) of a file or credential operation means.
std::string describeResult(int result);

// What a lookup error code (1000100 to 1000104) means for identifier `id`.
std::string describeLookupError(int errorCode, const std::string& id);

// The exit status of a lookup error code: 100 to 104.
int lookupExitStatus(int errorCode);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_RESULTWORDS_H_
