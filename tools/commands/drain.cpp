// drain.cpp - jpipe drain: throws away what lies in an endpoint, and tells what it
// was.
//
// It reads the FIFO itself: what a crash left may begin or end inside a message.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commands.h"
#include "decoder.h"
#include "endpoint.h"
#include "formats.h"
#include "output.h"
#include "report.h"

namespace jpipe {
namespace {

Descriptor Open(const std::string& endpoint) {
  const std::string fifo = FifoPath(endpoint);
  Descriptor fd = OpenToLook(fifo);
  if (fd) {
    return fd;
  }
  const std::string problem = "cannot drain " + endpoint + ": ";
  if (errno == ENOENT) {
    throw Failure(kFailed, problem + "nobody has ever opened it (there is no " + fifo +
                               "): jpipe list shows the endpoints");
  }
  if (errno == EINVAL || errno == ELOOP) {
    throw Failure(kFailed, problem + fifo + " is no FIFO: remove it");
  }
  throw Failure(kFailed, problem + fifo + ": " + std::strerror(errno));
}

// Reads what is there without waiting for more. A stop request ends a drain whose
// sender is faster.
std::size_t ReadWhatIsThere(int fd, char* bytes, std::size_t size, Patience& patience) {
  std::size_t done = 0;
  while (done < size) {
    if (patience.Wait(-1, 0, false, 0) != Outcome::kTick) {
      break;
    }
    const ssize_t count = ::read(fd, bytes + done, size - done);
    if (count > 0) {
      done += static_cast<std::size_t>(count);
    } else if (count == 0 || errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      throw Failure(kFailed, std::string("cannot read the endpoint: ") + std::strerror(errno));
    }
  }
  return done;
}

struct Tally {
  unsigned long long messages = 0;
  unsigned long long signals = 0;
  unsigned long long loose = 0;  // bytes that are no whole message
  unsigned long long bytes = 0;

  std::string Told(const std::string& endpoint) const {
    std::string text = endpoint + ": " + Counted(bytes, "byte") + " thrown away";
    if (bytes > 0) {
      text += ": " + Counted(messages, "message") + ", " + Counted(signals, "signal");
    }
    return loose == 0 ? text
                      : text + ", and " + Counted(loose, "byte") + " that are no whole message";
  }
};

// Takes the messages apart as far as they go, and everything behind a fault as
// loose bytes.
Tally DrainAll(int fd, const Formatter* formatter, Patience& patience) {
  WireReader reader(
      [&](char* bytes, std::size_t size) { return ReadWhatIsThere(fd, bytes, size, patience); });
  Tally tally;
  WireFrame frame;
  WireEvent event = WireEvent::kFrame;
  while ((event = reader.Next(frame)) == WireEvent::kFrame || event == WireEvent::kMessage) {
    if (event == WireEvent::kFrame) {
      continue;
    }
    Content content;
    content.signal = frame.kind == wire::Kind::kSignal ? static_cast<int>(frame.number) : -1;
    content.frames.assign(reader.frames().begin(), reader.frames().end());
    ++(content.signal >= 0 ? tally.signals : tally.messages);
    if (formatter != nullptr) {
      WriteOut(formatter->Shown(content), patience);
    }
  }
  tally.loose = reader.offset() - reader.whole();
  char rest[4096];
  while (const std::size_t count = ReadWhatIsThere(fd, rest, sizeof rest, patience)) {
    tally.loose += count;
  }
  tally.bytes = reader.whole() + tally.loose;
  return tally;
}

}  // namespace

int Drain(const Options& options) {
  RequireOutput();
  const std::string& endpoint = options.operands[0];
  const Descriptor fifo = Open(endpoint);
  Patience patience(std::nullopt);
  const Formatter formatter(options.format.value_or(Format::kQuoted), "\t",
                            ::isatty(STDOUT_FILENO) == 1);
  const Tally tally = DrainAll(fifo.get(), options.format ? &formatter : nullptr, patience);
  const Outcome ended = patience.cause().value_or(Outcome::kReady);
  if (ended != Outcome::kReady) {
    Note("stopped while bytes were still coming: stop the sender first, or drain again");
  }
  if (options.format) {
    Note(tally.Told(endpoint));
    return ExitFor(ended, false);
  }
  const Exit printed = Print(tally.Told(endpoint) + "\n");
  return ended != Outcome::kReady ? ExitFor(ended, false) : printed;
}

}  // namespace jpipe
