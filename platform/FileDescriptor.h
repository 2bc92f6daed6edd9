// An owned file descriptor, closed with the object.
#pragma once

#include <unistd.h>
#include <utility>

namespace parlova {

class FileDescriptor {
public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor &operator=(FileDescriptor &&other) noexcept {
    reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  FileDescriptor(const FileDescriptor &) = delete;
  FileDescriptor &operator=(const FileDescriptor &) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset() {
    if (fd_ >= 0)
      close(fd_);
    fd_ = -1;
  }

private:
  int fd_ = -1;
};

} // namespace parlova
