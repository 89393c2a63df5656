// cut_sweep_test.cpp - messages cut at every pair of places, by short writes and by
// short reads, with and without interrupted calls between the pieces.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "jcxxsock.h"
#include "support.h"
#include "sweep/wire_model.h"

namespace {

using support::Call;
using support::Step;
using Frames = std::vector<std::string>;

// The layouts, up to 64 bytes on the wire: three frames with an empty one at every
// place, frames of every small size, single frames, no frames.
std::vector<Frames> Layouts() {
  const Frames base = {"ab", std::string(17, 'x'), "c"};
  std::vector<Frames> layouts = {base, {std::string(62, 'y')}, {"z"}, {""}, {}};
  for (std::size_t place = 0; place <= base.size(); ++place) {
    layouts.push_back(base);
    layouts.back().insert(layouts.back().begin() + static_cast<std::ptrdiff_t>(place), "");
  }
  layouts.push_back({"", "", "ab", "", "", std::string(16, 'x'), "", "c", "", ""});
  layouts.push_back({"1", "22", "333", "4444", "55555", "666666", "7777777", std::string(24, '8')});
  return layouts;
}

// The steps of one transfer: pieces up to `i`, up to `j` and to the end, each after
// the error, if there is one. `first`: also before the first piece.
std::vector<Step> Cuts(std::size_t i, std::size_t j, int error, bool first) {
  std::vector<Step> steps;
  for (const std::size_t piece : {i, j - i, SIZE_MAX / 2}) {
    if (piece == 0) {
      continue;
    }
    if (error != 0 && (first || !steps.empty())) {
      steps.push_back(support::Fail(error));
    }
    steps.push_back(support::Cut(piece));
  }
  return steps;
}

class CutSweep : public support::Test {
 protected:
  CutSweep() : sock_(nullptr) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    sock_ = std::make_unique<SockFromPipes>(ends[0], ends[1]);
  }

  // The bytes in the pipe.
  std::string Drain() {
    std::string bytes(256, '\0');
    std::size_t waiting = 0;
    sock_->AvailableToRead(waiting);
    bytes.resize(
        waiting == 0 ? 0 : static_cast<std::size_t>(::read(sock_->read_fd, bytes.data(), 256)));
    return bytes;
  }

  static std::unique_ptr<JCXXMsg> Build(const Frames& frames) {
    auto msg = std::make_unique<JCXXMsg>();
    for (const std::string& frame : frames) {
      EXPECT_EQ(msg->AddMem(frame.data(), frame.size()), 0);
    }
    return msg;
  }

  // Sends `msg` in the given steps; returns what came out.
  std::string Send(JCXXMsg& msg, std::vector<Step> steps, int expected = 0) {
    support::ClearLog();
    support::KeepLog(support::kErrors);
    {
      const support::Script script({Call::kWrite, Call::kWritev}, std::move(steps));
      EXPECT_EQ(msg.WriteMessage(sock_.get()), expected);
    }
    return Drain();
  }

  // Receives `wire` in the given steps, and compares with the model.
  void Receive(const std::string& wire, std::vector<Step> steps) {
    support::ClearLog();
    support::KeepLog(support::kErrors);
    ASSERT_EQ(::write(sock_->write_fd, wire.data(), wire.size()),
              static_cast<ssize_t>(wire.size()));
    const support::Script script({Call::kRead, Call::kReadv}, std::move(steps));
    for (std::size_t at = 0; at < wire.size();) {
      const wire::Message expected = wire::DecodeMessage(wire, at);
      ASSERT_TRUE(wire::TakeApart(JCXXMsg::ReadMessage(sock_.get())) == expected);
    }
    std::size_t waiting = 1;
    ASSERT_EQ(sock_->AvailableToRead(waiting), 0);
    ASSERT_EQ(waiting + sock_->BufferedToRead(), 0U);
  }

  // Every pair of places, every error. Returns how many transfers that was.
  unsigned Sweep(JCXXMsg& msg) {
    unsigned transfers = 0;
    const std::string wire = Send(msg, {});
    EXPECT_LE(wire.size(), 64U);
    for (const int error : {0, EINTR, EAGAIN}) {
      for (std::size_t i = 1; i <= wire.size(); ++i) {
        for (std::size_t j = i; j <= wire.size(); ++j, transfers += 2) {
          SCOPED_TRACE(std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(error));
          EXPECT_EQ(Send(msg, Cuts(i, j, error, msg.IsSignalMsg())), wire);
          Receive(wire, Cuts(i, j, error, true));
          if (HasFailure()) {
            return transfers;
          }
        }
      }
    }
    return transfers;
  }

  std::unique_ptr<SockFromPipes> sock_;
};

TEST_F(CutSweep, DataMessagesAtEveryPairOfPlaces) {
  unsigned transfers = 0;
  for (const Frames& frames : Layouts()) {
    SCOPED_TRACE(::testing::PrintToString(frames));
    const auto msg = Build(frames);
    transfers += Sweep(*msg);
    ASSERT_FALSE(HasFailure());
    for (const int error : {EINTR, EAGAIN}) {  // of the first write: final
      EXPECT_EQ(Send(*msg, {support::Fail(error)}, -1), "");
      EXPECT_EQ(msg->GetFrameList().size(), frames.size());
    }
  }
  std::printf("cut sweep: %u transfers\n", transfers);
}

TEST_F(CutSweep, SignalsAtEveryPlace) {
  for (const int value : {0, 63, 64, 255}) {
    JCXXMsg signal(static_cast<unsigned char>(value));
    Sweep(signal);
  }
}

}  // namespace
