#include "base/filecontents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/filedescriptor.h"

namespace tavik {

bool readSmallRegularFile(const std::string& path, std::size_t limit, std::string& contents,
                          unsigned* mode) {
  // O_NONBLOCK makes opening a FIFO return at once; fstat then refuses it.
  FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.get() < 0) return false;
  struct stat info {};
  if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  if (info.st_size < 0 || static_cast<unsigned long long>(info.st_size) > limit) return false;
  if (mode != nullptr) *mode = info.st_mode & 07777;

  // The size may change while we read; one byte more than the limit tells us so.
  const std::size_t size = static_cast<std::size_t>(info.st_size);
  contents.resize(size + 1);
  std::size_t filled = 0;
  for (;;) {
    if (filled == contents.size()) {
      if (contents.size() > limit) return false;
      contents.resize(limit + 1);
    }
    const ssize_t got = ::read(file.get(), &contents[filled], contents.size() - filled);
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
    // Fewer bytes than asked for, and exactly the size the file had when it was
    // opened: its end. Loading a store would otherwise spend a read per file
    // on being told so.
    if (filled == size && filled < contents.size()) break;
  }
  if (filled > limit) return false;
  contents.resize(filled);
  return true;
}

ReadAtResult readSmallFileAt(int directoryFd, const char* name, std::size_t limit,
                             std::string& buffer, std::size_t& length) {
  constexpr std::size_t kFirstBuffer = 16 * 1024;  // more than any certificate needs
  const FileDescriptor file(
      ::openat(directoryFd, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.isOpen()) return errno == ENOENT ? ReadAtResult::kGone : ReadAtResult::kFailed;
  if (buffer.size() < kFirstBuffer) buffer.resize(kFirstBuffer);
  length = 0;
  for (;;) {
    const ssize_t got = ::read(file.get(), &buffer[length], buffer.size() - length);
    if (got < 0) {
      if (errno == EINTR) continue;
      return ReadAtResult::kFailed;
    }
    length += static_cast<std::size_t>(got);
    if (length > limit) return ReadAtResult::kFailed;
    if (length < buffer.size()) return ReadAtResult::kRead;
    buffer.resize(std::min(2 * buffer.size(), limit + 1));
  }
}

bool writeWholeFile(const std::string& path, const std::string& contents, unsigned mode) {
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file.get() < 0) return false;
  std::size_t written = 0;
  while (written < contents.size()) {
    const ssize_t put = ::write(file.get(), contents.data() + written, contents.size() - written);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<std::size_t>(put);
  }
  // Only a file someone else owns refuses this, and such a file was not
  // created here: it still has the mode it had.
  ::fchmod(file.get(), static_cast<mode_t>(mode));
  return true;
}

}  // namespace tavik
