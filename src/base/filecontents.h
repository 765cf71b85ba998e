// Reads the small files a certificate store holds, without trusting them, and
// writes them back.
#ifndef TAVIK_BASE_FILECONTENTS_H_
#define TAVIK_BASE_FILECONTENTS_H_

#include <cstddef>
#include <string>

namespace tavik {

// No certificate or key comes anywhere near this size.
constexpr std::size_t kMaxCredentialFileSize = 1024 * 1024;

// Reads the whole regular file at `path` into `contents` and returns true.
// Returns false, with `contents` unspecified, when the path cannot be opened,
// is not a regular file (a FIFO or device is never read, so it cannot block),
// or holds more than `limit` bytes; a larger file is not read whole.
bool readSmallRegularFile(const std::string& path, std::size_t limit, std::string& contents);

// Creates or truncates the file at `path` and writes `contents`; true when all
// of it was written.
bool writeWholeFile(const std::string& path, const std::string& contents);

}  // namespace tavik

#endif  // TAVIK_BASE_FILECONTENTS_H_
