// reader_fuzz.cpp - arbitrary bytes through a pipe, in pieces of arbitrary sizes: the
// reader must return the same messages and refusals as the model.
//
// The first eight bytes are the sizes of the pieces, used in turn; the rest is the
// stream.
#include <unistd.h>

#include "jcxxsock.h"
#include "require.h"
#include "support.h"
#include "sweep/wire_model.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kSizes = 8;
  if (size < kSizes) {
    return 0;
  }
  support::KeepLog(0);
  const std::string stream(data + kSizes, data + size);
  int ends[2];
  Require(::pipe(ends) == 0);
  SockFromPipes sock(ends[0], -1);
  SockFromPipes feeder(-1, ends[1]);
  std::size_t fed = 0;
  std::size_t pieces = 0;
  const auto waiting = [&] {
    std::size_t count = 0;
    Require(sock.AvailableToRead(count) == 0);
    return count;
  };
  // Puts the next piece into the pipe when the reader is about to look at it: if the pipe
  // is empty, and a piece of odd size even if it is not.
  const auto feed = [&] {
    const std::size_t next = data[pieces % kSizes];
    if (waiting() == 0 || (next % 2 != 0 && waiting() <= 16384)) {
      ++pieces;
      const std::string bytes = stream.substr(fed, next * 5 + 1);
      const auto written = ::write(feeder.write_fd, bytes.data(), bytes.size());
      Require(written == static_cast<ssize_t>(bytes.size()) || feeder.write_fd < 0);
      fed += bytes.size();
      if (bytes.empty()) {
        feeder = SockFromPipes();  // closes
      }
    }
  };
  const auto read = [&] {
    using support::Call;
    const support::Script script({Call::kIoctl, Call::kRead, Call::kReadv}, {},
                                 support::Pass(feed));
    return wire::Read(&sock);
  };
  for (std::size_t at = 0; at < stream.size();) {
    const wire::Message expected = wire::DecodeMessage(stream, at);
    Require(read() == expected);
    Require(fed - waiting() - sock.BufferedToRead() == at);
  }
  return 0;
}
