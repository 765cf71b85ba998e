// What the tool refuses before it calls the cache, so that an operator cannot
// break a credential by accident: the cache itself writes what it is given and
// replaces what is there.
#ifndef TAVIK_TOOLS_CERTCACHE_SAFEGUARDS_H_
#define TAVIK_TOOLS_CERTCACHE_SAFEGUARDS_H_

#include <string>

namespace tavik {
namespace cli {

// An address has exactly one "@" with text on both sides and no space or
// control character. The cache would name files after anything, and a file
// named after no address is one that no `list` shows. Throws ToolError 64.
void checkEmailAddress(const std::string& email);

// A new request for `baseName` would replace the key that the authority's
// certificate is coming for. Throws ToolError 2 while one is pending in the
// cache directory `directory`.
void refusePendingRequest(const std::string& directory, const std::string& baseName);

// Renaming onto `newBaseName` would replace its files. Throws ToolError 2 when
// any of them (.crt, .key, .tpk) exists in `directory`.
void refuseExistingFiles(const std::string& directory, const std::string& newBaseName);

}  // namespace cli
}  // namespace tavik

#endif  // TAVIK_TOOLS_CERTCACHE_SAFEGUARDS_H_
