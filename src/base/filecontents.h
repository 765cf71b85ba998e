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
// Returns false, with `contents` holding anything, when the path cannot be opened,
// is not a regular file (a FIFO or device is never read, so it cannot block),
// or holds more than `limit` bytes; a larger file is not read whole. `mode`,
// when given, receives the file's permission bits.
bool readSmallRegularFile(const std::string& path, std::size_t limit, std::string& contents,
                          unsigned* mode = nullptr);

// How reading a file of a listed directory ended.
enum class ReadAtResult { kRead, kGone, kFailed };

// Reads the whole file `name` of the open directory `directoryFd` into the
// start of `buffer`, which grows as needed and is kept for the next file;
// `length` is how much of it the file filled. A file of more than `limit` bytes
// fails; one that is no longer there is kGone.
//
// Made for loading a store, where the listing said the entry is a regular
// file: it asks for no status, and takes a read that comes back short for the
// file's end, as it is for a regular file. A FIFO or device put there in the
// meantime does not block (it is opened non-blocking) and reads as nothing.
ReadAtResult readSmallFileAt(int directoryFd, const char* name, std::size_t limit,
                             std::string& buffer, std::size_t& length);

// Creates or truncates the file at `path`, writes `contents` and gives the file
// the permission bits `mode`, whatever the umask; true when all of `contents`
// was written.
bool writeWholeFile(const std::string& path, const std::string& contents, unsigned mode);

}  // namespace tavik

#endif  // TAVIK_BASE_FILECONTENTS_H_
