// The owner of one open POSIX file descriptor: closed when the owner goes, on
// every way out of the code that opened it.
#ifndef TAVIK_BASE_FILEDESCRIPTOR_H_
#define TAVIK_BASE_FILEDESCRIPTOR_H_

#include <unistd.h>

namespace tavik {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  // Closes what it holds and takes `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

}  // namespace tavik

#endif  // TAVIK_BASE_FILEDESCRIPTOR_H_
