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

// The layouts, up to 64 bytes on the wire: three frames with an empty one at every
// place, frames of every small size, single frames, no frames.
std::vector<Frames> Layouts() {
  const Frames base = {"ab", std::string(17, 'x'), "c"};
  std::vector<Frames> layouts = {base, {std::string(62, 'y')}, {"z"}, {""}, {}};
  for (std::ptrdiff_t place = 0; place <= 3; ++place) {
    layouts.push_back(base);
    layouts.back().insert(layouts.back().begin() + place, "");
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
    if (piece != 0 && error != 0 && (first || !steps.empty())) {
      steps.push_back(support::Fail(error));
    }
    if (piece != 0) {
      steps.push_back(support::Cut(piece));
    }
  }
  return steps;
}

class CutSweep : public support::PairTest {
 protected:
  // Sends `msg` in the given steps; returns what came out.
  std::string Send(JCXXMsg& msg, std::vector<Step> steps, int expected = 0) {
    const support::Script script({Call::kWrite, Call::kWritev}, std::move(steps));
    EXPECT_EQ(msg.WriteMessage(a.get()), expected);
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

  // Every pair of places, every error. Returns how many transfers that was.
  unsigned Sweep(JCXXMsg& msg) {
    support::KeepLog(0);
    unsigned transfers = 0;
    const std::string wire = Send(msg, {});
    EXPECT_LE(wire.size(), 64U);
    for (const int error : {0, EINTR, EAGAIN}) {
      for (std::size_t i = 1; i <= wire.size(); ++i) {
        for (std::size_t j = i; j <= wire.size() && !HasFailure(); ++j, transfers += 2) {
          SCOPED_TRACE(std::to_string(i) + " " + std::to_string(j) + " " + std::to_string(error));
          EXPECT_EQ(Send(msg, Cuts(i, j, error, msg.IsSignalMsg())), wire);
          Receive(wire, Cuts(i, j, error, true));
        }
      }
    }
    return transfers;
  }
};

TEST_F(CutSweep, EveryMessageAtEveryPairOfPlaces) {
  unsigned transfers = 0;
  for (const Frames& frames : Layouts()) {
    SCOPED_TRACE(::testing::PrintToString(frames));
    JCXXMsg msg;
    for (const std::string& frame : frames) {
      EXPECT_EQ(msg.AddMem(frame.data(), frame.size()), 0);
    }
    transfers += Sweep(msg);
    for (const int error : {EINTR, EAGAIN}) {  // of the first write: final
      EXPECT_EQ(Send(msg, {support::Fail(error)}, -1), "");
      EXPECT_EQ(msg.GetFrameList().size(), frames.size());
    }
  }
  std::printf("cut sweep: %u transfers\n", transfers);
  for (const int value : {0, 63, 64, 255}) {
    JCXXMsg signal(static_cast<unsigned char>(value));
    Sweep(signal);
  }
}

}  // namespace
