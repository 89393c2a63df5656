// counts_test.cpp - what a message costs, counted: system calls, allocations, and
// acquisitions of the registry's mutex. The bounds are what is used now: a change
// that needs more has to say so here. Acquisitions depend a little on where the
// objects happen to lie, so that their bounds have some room.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>

#include "jcxxactorapi.h"
#include "support.h"

namespace {

std::atomic<pthread_mutex_t*> watched{nullptr};
std::atomic<std::size_t> acquisitions{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) noexcept {
  static std::atomic<int (*)(pthread_mutex_t*)> real{nullptr};
  if (real.load() == nullptr) {
    real = reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  }
  if (mutex == watched.load()) {
    ++acquisitions;
  }
  return real.load()(mutex);
}

namespace {

using support::Call;
using support::Script;

// Per message, in the steady state.
struct Cost {
  double system_calls;
  double allocations;
  double locks;
};

class CountsTest : public support::PairTest {
 protected:
  static JCXXMsg* Build(int frames, std::size_t size) {
    static unsigned char payload[1024];
    JCXXMsg* msg = j_msg_new();
    for (int i = 0; i < frames; ++i) {
      EXPECT_EQ(j_msg_addmem(msg, payload, size), 0);
    }
    return msg;
  }

  static void TakeApart(JCXXMsg* msg, int frames) {
    for (int i = 0; i < frames; ++i) {
      JCXXFrame* frame = j_msg_pop(msg);
      EXPECT_NE(j_frame_data(frame), nullptr);
      EXPECT_NE(j_frame_size(frame), 0U);
      j_frame_destroy(&frame);
    }
    j_msg_destroy(&msg);
  }

  // Sends `burst` messages, then receives them.
  void Exchange(int frames, std::size_t size, int burst) {
    for (int i = 0; i < burst; ++i) {
      JCXXMsg* msg = Build(frames, size);
      EXPECT_EQ(j_msg_send(&msg, a.get()), 0);
    }
    for (int i = 0; i < burst; ++i) {
      TakeApart(j_msg_recv(b.get()), frames);
    }
  }

  // The cost of each of the `messages` messages of one call of `work`.
  static Cost Measure(int messages, const std::function<void()>& work) {
    constexpr int kRounds = 50;
    support::KeepLog(support::kErrors);
    for (int i = 0; i < kRounds; ++i) {
      work();
    }
    watched = JCXXActorAPI::GetInstance()->mutex.native_handle();
    acquisitions = 0;
    const Script calls{
        {Call::kRead, Call::kReadv, Call::kWrite, Call::kWritev, Call::kIoctl, Call::kFcntl}};
    const Script allocations(Call::kNew);
    for (int i = 0; i < kRounds; ++i) {
      work();
    }
    watched = nullptr;
    const double each = kRounds * messages;
    return {static_cast<double>(calls.count()) / each,
            static_cast<double>(allocations.count()) / each,
            static_cast<double>(acquisitions) / each};
  }

  static void ExpectAtMost(const char* path, Cost bound, Cost cost) {
    EXPECT_LE(cost.system_calls, bound.system_calls) << path;
    EXPECT_LE(cost.allocations, bound.allocations) << path;
    EXPECT_LE(cost.locks, bound.locks) << path;
  }
};

TEST_F(CountsTest, MessagesCostNoMoreThanBefore) {
  ExpectAtMost("32 B, one by one", {3, 10, 12}, Measure(1, [&] { Exchange(1, 32, 1); }));
  ExpectAtMost("32 B, in bursts of 10", {1.2, 9.1, 10}, Measure(10, [&] { Exchange(1, 32, 10); }));
  ExpectAtMost("1 KiB, one by one", {3, 10, 12}, Measure(1, [&] { Exchange(1, 1024, 1); }));
  ExpectAtMost("eight frames of 64 B", {3, 54, 54}, Measure(1, [&] { Exchange(8, 64, 1); }));
  ExpectAtMost("build and take apart 3 frames", {0, 10, 12},
               Measure(1, [] { TakeApart(Build(3, 32), 3); }));
  ExpectAtMost("signal", {3, 4, 12}, Measure(1, [&] {
                 EXPECT_EQ(j_sock_signal(a.get(), 7), 0);
                 JCXXMsg* msg = j_msg_recv(b.get());
                 EXPECT_EQ(j_msg_signal(msg), 7);
                 j_msg_destroy(&msg);
               }));
}

}  // namespace
