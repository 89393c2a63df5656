// wait.cpp - waiting until a receive would not block.
//
// The part of a message that has arrived is kept in the sock's read-ahead buffer, from which
// every read is served first. Only here does that buffer grow beyond its usual size: to a
// whole message, which is at most two mebibytes of payload and the headers of a million
// frames. The next wait that finds it empty frees it.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>

#include "jcxxsock.h"
#include "message_scan.h"
#include "reason.h"

namespace {

constexpr std::size_t kUsualBuffer = 16384;

// The end of a wait, on the monotonic clock.
class Deadline {
 public:
  // A negative number of milliseconds means no limit.
  explicit Deadline(int milliseconds) {
    if (milliseconds >= 0) {
      end_ = Clock::now() + std::chrono::milliseconds(milliseconds);
    }
  }

  // For poll(), rounded up so that it never ends early.
  int MillisecondsLeft() const {
    if (!end_) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end_ - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
  }

 private:
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> end_;
};

void SetBuffer(JCXXSock& sock, unsigned char* buffer, std::size_t size) {
  delete[] sock.read_buffer;
  sock.read_buffer = buffer;
  sock.read_buffer_pos = buffer;
  sock.read_buffer_size = size;
}

// Makes room after the bytes that are held. Throws std::bad_alloc, with nothing changed.
void MakeRoom(JCXXSock& sock) {
  const std::size_t held = sock.read_buffer_avail;
  if (sock.read_buffer == nullptr || held == sock.read_buffer_size) {
    const std::size_t size = std::max(kUsualBuffer, 2 * sock.read_buffer_size);
    auto larger = std::make_unique<unsigned char[]>(size);
    if (held > 0) {
      std::memcpy(larger.get(), sock.read_buffer_pos, held);
    }
    SetBuffer(sock, larger.release(), size);
  } else if (held == 0) {
    sock.read_buffer_pos = sock.read_buffer;
  } else if (sock.read_buffer_pos != sock.read_buffer) {
    std::memmove(sock.read_buffer, sock.read_buffer_pos, held);
    sock.read_buffer_pos = sock.read_buffer;
  }
}

// Takes some of the `pending` bytes off the descriptor. Result: false when that fails, as
// the next read will too.
bool Fill(JCXXSock& sock, int fd, std::size_t pending) {
  MakeRoom(sock);
  const std::size_t room = sock.read_buffer_size - sock.read_buffer_avail;
  const ssize_t count =
      ::read(fd, sock.read_buffer_pos + sock.read_buffer_avail, std::min(pending, room));
  if (count > 0) {
    sock.read_buffer_avail += static_cast<std::size_t>(count);
  }
  return count > 0 || (count < 0 && (errno == EINTR || errno == EAGAIN));
}

}  // namespace

int JCXXSock::WaitForMessage(int milliseconds) {
  int fd = -1;
  if (GetReadFD(fd) != 0 || fd < 0) {
    return reason::Fail(EBADF);
  }
  const Deadline deadline(milliseconds);
  if (read_buffer_avail == 0 && read_buffer_size > kUsualBuffer) {
    SetBuffer(*this, nullptr, 0);
  }
  MessageScan scan;
  bool said_ready = false;
  while (scan.Look(read_buffer_pos, read_buffer_avail) == MessageScan::Verdict::kPartial) {
    std::size_t pending = 0;
    if (AvailableToRead(pending) == 0 && pending > 0) {
      said_ready = false;
      if (!Fill(*this, fd, pending)) {
        return 1;
      }
    } else if (said_ready) {
      return 1;  // the end of the stream
    } else {
      const int left = deadline.MillisecondsLeft();
      pollfd waiting = {fd, POLLIN, 0};
      const int ready = ::poll(&waiting, 1, left);
      if (ready < 0) {
        return reason::Fail(errno);
      }
      if (ready == 0 && deadline.MillisecondsLeft() == 0) {
        return 0;
      }
      said_ready = ready > 0;
    }
  }
  return 1;
}
