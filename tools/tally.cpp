// tally.cpp - taking out the contents of an endpoint.
//
// It reads the FIFO itself: what a crash left may begin or end inside a message.
#include "tally.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "decoder.h"
#include "output.h"
#include "report.h"

namespace jpipe {
namespace {

// Reads what is there without waiting for more. If a sender is faster than the drain, a
// stop request ends it.
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

}  // namespace

std::string Tally::Told() const {
  std::string text = Counted(bytes, "byte") + " thrown away";
  if (bytes > 0) {
    text += ": " + Counted(messages, "message") + ", " + Counted(signals, "signal");
  }
  return loose == 0 ? text : text + ", and " + Counted(loose, "byte") + " outside a whole message";
}

Tally DrainAll(int fd, std::size_t most, const Formatter* formatter, Patience& patience) {
  const auto read = [&](char* bytes, std::size_t size) {
    const std::size_t count = ReadWhatIsThere(fd, bytes, std::min(size, most), patience);
    most -= count;
    return count;
  };
  WireReader reader(read);
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
  while (const std::size_t count = read(rest, sizeof rest)) {
    tally.loose += count;
  }
  tally.bytes = reader.whole() + tally.loose;
  return tally;
}

}  // namespace jpipe
