// descriptor.h - owners of descriptors, from the line after they are made.
#ifndef JACTOR_DESCRIPTOR_H
#define JACTOR_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "reason.h"

// Closes `fd` unless it is negative, and makes it -1.
inline void CloseDescriptor(int& fd) {
  if (fd >= 0) {
    ::close(fd);
    fd = -1;
  }
}

// Owns one descriptor, or none. Closes it when destroyed.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { CloseDescriptor(fd_); }

  int get() const { return fd_; }  // negative when there is none
  explicit operator bool() const { return fd_ >= 0; }

  // Gives the descriptor to the caller.
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// The two ends of a new pipe.
struct Pipe {
  // Throws std::bad_alloc when the pipe cannot be made.
  Pipe() {
    int ends[2];
    if (::pipe(ends) != 0) {
      reason::Fail(errno);
      throw std::bad_alloc();
    }
    read_end = Descriptor(ends[0]);
    write_end = Descriptor(ends[1]);
  }

  void SetCloseOnExec() const {
    ::fcntl(read_end.get(), F_SETFD, FD_CLOEXEC);
    ::fcntl(write_end.get(), F_SETFD, FD_CLOEXEC);
  }

  Descriptor read_end;
  Descriptor write_end;
};

#endif
