// reader_fuzz.cpp - the reader on arbitrary bytes, through a pipe, in pieces of
// arbitrary sizes: the same messages and refusals as the model's.
//
// The first eight bytes are the sizes of the pieces, over and over; the rest is the
// stream.
#include <unistd.h>

#include "fuzz/check.h"
#include "jcxxsock.h"
#include "support.h"
#include "sweep/wire_model.h"

namespace {

using support::Call;
constexpr std::size_t kSizes = 8;

// Puts the next piece into the pipe when the reader is about to look at it.
class Feeder {
 public:
  Feeder(int fd, const std::string& stream, const std::uint8_t* sizes)
      : fd_(fd), stream_(stream), sizes_(sizes) {}
  Feeder(Feeder const&) = delete;
  Feeder& operator=(Feeder const&) = delete;
  ~Feeder() { End(); }

  // An odd size comes also when the pipe still holds something.
  void Feed(std::size_t waiting) {
    const std::size_t size = sizes_[piece_ % kSizes];
    if (waiting > 0 && (size % 2 == 0 || waiting > 16384)) {
      return;
    }
    ++piece_;
    const std::string bytes = stream_.substr(fed_, size * 5 + 1);
    fed_ += bytes.size();
    if (bytes.empty()) {
      End();
    } else {
      CHECK(::write(fd_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    }
  }

  std::size_t fed() const { return fed_; }

 private:
  void End() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = -1;
  }

  int fd_;
  const std::string& stream_;
  const std::uint8_t* sizes_;
  std::size_t fed_ = 0;
  std::size_t piece_ = 0;
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kSizes) {
    return 0;
  }
  const std::string stream(reinterpret_cast<const char*>(data) + kSizes, size - kSizes);
  int ends[2];
  CHECK(::pipe(ends) == 0);
  SockFromPipes sock(ends[0], -1);
  Feeder feeder(ends[1], stream, data);
  const auto waiting = [&] {
    std::size_t count = 0;
    CHECK(sock.AvailableToRead(count) == 0);
    return count;
  };
  support::ClearLog();
  support::KeepLog(0);
  for (std::size_t at = 0; at < stream.size();) {
    const wire::Message expected = wire::DecodeMessage(stream, at);
    {
      const support::Script script({Call::kIoctl, Call::kRead, Call::kReadv}, {},
                                   support::Pass([&] { feeder.Feed(waiting()); }));
      CHECK(wire::TakeApart(JCXXMsg::ReadMessage(&sock)) == expected);
    }
    CHECK(feeder.fed() - waiting() - sock.BufferedToRead() == at);
  }
  return 0;
}
