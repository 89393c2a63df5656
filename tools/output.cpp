// output.cpp - writing to standard output.
#include "output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "report.h"
#include "terminal.h"

namespace jpipe {
namespace {

[[noreturn]] void FailToWrite(int error) {
  throw Failure(kFailed, std::string("cannot write to standard output: ") +
                             (error == EBADF ? "it is closed" : std::strerror(error)));
}

}  // namespace

void OccupyStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      // The lowest free number is `fd`. It is opened for the wrong direction.
      ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

void RequireOutput() {
  // Writes no byte: that works on a pipe, a terminal or a file, not on a closed descriptor.
  if (::write(STDOUT_FILENO, "", 0) < 0 && errno != EAGAIN && errno != EINTR) {
    FailToWrite(errno);
  }
}

Outcome WriteOut(std::string_view bytes, Patience& patience) {
  if (!bytes.empty()) {
    GiveWay(bytes.back());
  }
  while (!bytes.empty()) {
    if (const Outcome outcome = patience.Wait(STDOUT_FILENO, POLLOUT, true);
        outcome != Outcome::kReady) {
      return outcome;
    }
    // A pipe that is ready takes this much without blocking.
    const std::size_t piece = std::min<std::size_t>(bytes.size(), PIPE_BUF);
    const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), piece);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EPIPE) {
      return Outcome::kOutputClosed;
    } else if (errno != EINTR && errno != EAGAIN) {
      FailToWrite(errno);
    }
  }
  return Outcome::kReady;
}

Exit Print(std::string_view bytes) {
  Patience patience(std::nullopt);
  return ExitFor(WriteOut(bytes, patience), false);
}

}  // namespace jpipe
