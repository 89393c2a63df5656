// counts_test.cpp - what a message costs, counted: system calls, allocations, and
// acquisitions of the registry's mutex. The bounds are what is used now: a change
// that needs more has to say so here. Acquisitions depend a little on where the
// objects happen to lie, so that their bounds have some room.
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>

#include "jcxxactorapi.h"
#include "messages.h"
#include "support.h"

namespace {

std::atomic<pthread_mutex_t*> watched{nullptr};
std::atomic<std::size_t> acquisitions{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&::pthread_mutex_lock)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  acquisitions += mutex == watched ? 1 : 0;
  return real(mutex);
}

namespace {

using support::Call;
using support::Script;

class CountsTest : public support::PairTest {
 protected:
  // A signal has no frames.
  static void Take(JCXXMsg* msg, std::size_t frames, std::size_t size) {
    EXPECT_EQ(j_msg_signal(msg), frames == 0 ? 7 : -1);
    EXPECT_TRUE(messages::TakeApartEqual(msg, frames, size));
  }

  // Sends `burst` messages, or signals when they have no frames, then receives them.
  // A burst of 0 is one message that stays.
  void Work(std::size_t frames, std::size_t size, int burst) {
    if (burst == 0) {
      Take(messages::BuildEqual(frames, size), frames, size);
    }
    for (int i = 0; i < burst; ++i) {
      JCXXMsg* msg = frames == 0 ? nullptr : messages::BuildEqual(frames, size);
      EXPECT_EQ(frames == 0 ? j_sock_signal(a.get(), 7) : j_msg_send(&msg, a.get()), 0);
    }
    for (int i = 0; i < burst; ++i) {
      Take(j_msg_recv(b.get()), frames, size);
    }
  }
};

// Per message, in the steady state.
TEST_F(CountsTest, MessagesCostNoMoreThanBefore) {
  const struct {
    const char* what;
    std::size_t frames;
    std::size_t size;
    int burst;
    double system_calls, allocations, locks;
  } kMost[] = {
      {"32 B, one by one", 1, 32, 1, 3, 10, 9},
      {"32 B, in bursts of 400", 1, 32, 400, 1.01, 9.1, 7},
      {"1 KiB, one by one", 1, 1024, 1, 3, 10, 9},
      {"eight frames of 64 B", 8, 64, 1, 3, 54, 32},
      {"build and take apart 3 frames", 3, 32, 0, 0, 10, 12},
      {"signal", 0, 0, 1, 3, 4, 5},
  };
  constexpr int kRounds = 50;
  support::KeepLog(support::kErrors);
  watched = JCXXActorAPI::GetInstance()->mutex.native_handle();
  for (const auto& most : kMost) {
    for (int i = 0; i < kRounds; ++i) {
      Work(most.frames, most.size, most.burst);
    }
    acquisitions = 0;
    const Script calls{
        {Call::kRead, Call::kReadv, Call::kWrite, Call::kWritev, Call::kIoctl, Call::kFcntl}};
    const Script allocations(Call::kNew);
    for (int i = 0; i < kRounds; ++i) {
      Work(most.frames, most.size, most.burst);
    }
    const double messages = kRounds * std::max(most.burst, 1);
    EXPECT_LE(static_cast<double>(calls.count()) / messages, most.system_calls) << most.what;
    EXPECT_LE(static_cast<double>(allocations.count()) / messages, most.allocations) << most.what;
    EXPECT_LE(static_cast<double>(acquisitions) / messages, most.locks) << most.what;
  }
}

}  // namespace
