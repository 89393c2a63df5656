// counts_test.cpp - what a message costs, counted: system calls, allocations, and
// acquisitions of a mutex, of which there is only the registry's. The bounds are what is
// used now: a change that needs more has to say so here. Acquisitions depend a little on
// where the objects happen to lie, so that their bounds have some room.
#include "messages.h"
#include "support.h"

namespace {

using namespace support;

class CountsTest : public PairTest {
 protected:
  // Sends so many messages, then receives them.
  void Exchange(int messages, std::size_t frames, std::size_t size) {
    for (int i = 0; i < messages; ++i) {
      JCXXMsg* msg = messages::BuildEqual(frames, size);
      EXPECT_EQ(j_msg_send(&msg, a.get()), 0);
    }
    for (int i = 0; i < messages; ++i) {
      EXPECT_TRUE(messages::TakeApartEqual(j_msg_recv(b.get()), frames, size));
    }
  }

  void ExchangeSignal() {
    EXPECT_EQ(j_sock_signal(a.get(), 7), 0);
    EXPECT_TRUE(messages::TakeApartEqual(j_msg_recv(b.get()), 0, 0));
  }
};

// Per message, in the steady state.
TEST_F(CountsTest, MessagesCostNoMoreThanBefore) {
  const struct {
    const char* what;
    double system_calls, allocations, locks;
    std::function<void()> work;
    int messages = 1;  // that are worked on
  } kMost[] = {
      {"32 B, one by one", 3, 10, 9, [&] { Exchange(1, 1, 32); }},
      {"32 B, in bursts of 400", 1.01, 9.1, 7, [&] { Exchange(400, 1, 32); }, 400},
      {"1 KiB, one by one", 3, 10, 9, [&] { Exchange(1, 1, 1024); }},
      {"eight frames of 64 B", 3, 54, 32, [&] { Exchange(1, 8, 64); }},
      {"build and take apart 3 frames", 0, 10, 12,
       [] { EXPECT_TRUE(messages::TakeApartEqual(messages::BuildEqual(3, 32), 3, 32)); }},
      {"signal", 3, 4, 5, [&] { ExchangeSignal(); }},
  };
  constexpr int kRounds = 50;
  KeepLog(kErrors);
  for (const auto& most : kMost) {
    SCOPED_TRACE(most.what);
    const auto work_often = [&] {
      for (int i = 0; i < kRounds; ++i) {
        most.work();
      }
    };
    work_often();
    const Script calls(
        {Call::kRead, Call::kReadv, Call::kWrite, Call::kWritev, Call::kIoctl, Call::kFcntl});
    const Script locks(Call::kMutexLock);
    const Script allocations(Call::kNew);  // the last one: a script allocates too
    work_often();
    const double messages = kRounds * most.messages;
    EXPECT_LE(static_cast<double>(calls.count()), most.system_calls * messages);
    EXPECT_LE(static_cast<double>(allocations.count()), most.allocations * messages);
    EXPECT_LE(static_cast<double>(locks.count()), most.locks * messages);
  }
}

}  // namespace
