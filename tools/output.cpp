// output.cpp - writing to standard output.
#include "output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "report.h"

namespace jpipe {

Outcome WriteOut(std::string_view bytes, Patience& patience) {
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
      throw Failure(kFailed,
                    std::string("cannot write to standard output: ") + std::strerror(errno));
    }
  }
  return Outcome::kReady;
}

Exit Print(std::string_view bytes) {
  Patience patience(std::nullopt);
  return ExitFor(WriteOut(bytes, patience), false);
}

}  // namespace jpipe
