// cut_sweep_test.cpp - messages cut at every pair of places, by short writes and by
// short reads, with and without interrupted calls between the pieces.
#include <cerrno>

#include "jcxxsock.h"
#include "support.h"
#include "sweep/wire_model.h"

namespace {

using support::Call;
using support::Step;
using Frames = std::vector<std::string>;

// Up to 64 bytes on the wire: three frames with an empty one at every place, frames of
// every small size, single frames, no frames.
const Frames kLayouts[] = {
    {},
    {""},
    {"z"},
    {std::string(62, 'y')},
    {"ab", std::string(17, 'x'), "c"},
    {"", "ab", std::string(17, 'x'), "c"},
    {"ab", "", std::string(17, 'x'), "c"},
    {"ab", std::string(17, 'x'), "", "c"},
    {"ab", std::string(17, 'x'), "c", ""},
    {"", "", "ab", "", "", std::string(16, 'x'), "", "c", "", ""},
    {"1", "22", "333", "4444", "55555", "666666", "7777777", std::string(24, '8')},
};

// Pieces up to `i`, up to `j` and to the end, each but the first after the error, if
// there is one.
std::vector<Step> Cuts(std::size_t i, std::size_t j, int error) {
  if (error == 0) {
    return {support::Cut(i), support::Cut(j - i)};
  }
  return {support::Cut(i), support::Fail(error), support::Cut(j - i), support::Fail(error)};
}

class CutSweep : public support::PairTest {
 protected:
  // Sends `msg` in the given steps; returns what came out.
  std::string Send(JCXXMsg& msg, std::vector<Step> steps) {
    const support::Script script({Call::kWrite, Call::kWritev}, std::move(steps));
    EXPECT_EQ(msg.WriteMessage(a.get()), 0);
    return Drain();
  }

  // Receives `wire` in the given steps, and compares with the model.
  void Receive(const std::string& wire, std::vector<Step> steps) {
    Feed(wire);
    const support::Script script({Call::kRead, Call::kReadv}, std::move(steps));
    for (std::size_t at = 0; at < wire.size();) {  // an empty frame at the end is a message
      const wire::Message expected = wire::DecodeMessage(wire, at);
      EXPECT_TRUE(wire::Read(b.get()) == expected);
    }
    EXPECT_EQ(Drain(), "");
  }

  // Every pair of places, every error.
  void Sweep(JCXXMsg& msg) {
    support::KeepLog(0);
    const std::string wire = Send(msg, {});
    for (const int error : {0, EINTR, EAGAIN}) {
      for (std::size_t i = 1; i < wire.size(); ++i) {
        for (std::size_t j = i + 1; j <= wire.size() && !HasFailure(); ++j, transfers_ += 2) {
          SCOPED_TRACE(std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(error));
          EXPECT_EQ(Send(msg, Cuts(i, j, error)), wire);
          Receive(wire, Cuts(i, j, error));
        }
      }
    }
  }

  unsigned transfers_ = 0;
};

TEST_F(CutSweep, EveryMessageAtEveryPairOfPlaces) {
  for (const Frames& frames : kLayouts) {
    SCOPED_TRACE(::testing::PrintToString(frames));
    JCXXMsg msg;
    for (const std::string& frame : frames) {
      EXPECT_EQ(msg.AddMem(frame.data(), frame.size()), 0);
    }
    Sweep(msg);
  }
  JCXXMsg signal(static_cast<unsigned char>(64));
  Sweep(signal);
  std::printf("cut sweep: %u transfers\n", transfers_);
}

}  // namespace
