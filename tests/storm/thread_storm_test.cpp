// thread_storm_test.cpp - many threads at once, and the end of the process in the
// middle of it. Made for ThreadSanitizer, and run without it too.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jlog.h"

extern "C" void jlog_printf(int, int, const char*, ...) {}

// What outlives the registry at exit, an ended thread among it, is left alone by design.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_thread_leaks=0";
}

namespace {

constexpr int kThreads = 8;

// Runs `body(number)` on eight threads that start together.
template <class Body>
void Storm(Body body) {
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&start, &body, n] {
      start.arrive_and_wait();
      body(n);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (JCXXMsg* msg = j_msg_recv(sock)) {
    if (j_msg_send(&msg, sock) != 0) {
      j_msg_destroy(&msg);
    }
  }
}

bool RoundTrip(JCXXActor* actor, int value) {
  JCXXMsg* msg = j_msg_new();
  j_msg_addmem(msg, &value, sizeof value);
  j_msg_addstr(msg, "storm");
  EXPECT_EQ(j_msg_send(&msg, actor), 0);
  msg = j_msg_recv(actor);
  JCXXFrame* frame = j_msg_pop(msg);
  int back = 0;
  std::memcpy(&back, j_frame_data(frame), sizeof back);
  j_frame_destroy(&frame);
  j_msg_destroy(&msg);
  return back == value;
}

std::size_t Registered() {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  const std::lock_guard<std::mutex> lock(api->mutex);
  return api->socks.size() + api->actors.size() + api->frames.size() + api->msgs.size();
}

// First in the file: under ctest each test is a process of its own.
TEST(ThreadStorm, FirstUseFromEightThreads) {
  Storm([](int) {
    JCXXMsg* msg = j_msg_new();
    EXPECT_EQ(j_msg_addstr(msg, "first"), 0);
    j_msg_destroy(&msg);
  });
  EXPECT_EQ(Registered(), 0U);
}

TEST(ThreadStorm, ActorsComeAndGoWhileOthersTalk) {
  Storm([](int n) {
    JCXXActor* actor = j_actor_new(Echo, nullptr);
    for (int i = 0; i < 200; ++i) {
      ASSERT_TRUE(RoundTrip(actor, n * 1000 + i));
      if (n % 2 == 0) {
        j_actor_destroy(&actor);
        actor = j_actor_new(Echo, nullptr);
      }
    }
    j_actor_destroy(&actor);
  });
  EXPECT_EQ(Registered(), 0U);
}

// Every thread makes and destroys objects and asks for those of the others, alive
// or dead. One object outlives them all and must always be valid.
TEST(ThreadStorm, TheRegistryFromEightThreads) {
  JCXXMsg lasting;
  std::atomic<JCXXMsg*> shown[kThreads] = {};
  Storm([&](int n) {
    JCXXActorAPI* api = JCXXActorAPI::GetInstance();
    for (int i = 0; i < 3000; ++i) {
      JCXXMsg* msg = j_msg_new();
      shown[n].store(msg);
      ASSERT_TRUE(api->JCXXMsgPtrIsValid(msg) && api->JCXXMsgPtrIsValid(&lasting));
      ASSERT_FALSE(api->JCXXSockPtrIsValid(reinterpret_cast<JCXXSock*>(msg)));
      if (JCXXMsg* other = shown[(n + i) % kThreads].load(); other != nullptr) {
        api->JCXXMsgPtrIsValid(other);
      }
      j_msg_addmem(msg, &i, sizeof i);
      JCXXFrame* frame = j_msg_pop(msg);
      j_msg_destroy(&msg);
      ASSERT_EQ(j_frame_size(frame), sizeof i);
      j_frame_destroy(&frame);
    }
  });
  for (std::atomic<JCXXMsg*>& msg : shown) {
    EXPECT_FALSE(JCXXActorAPI::GetInstance()->JCXXMsgPtrIsValid(msg.load()));
  }
  EXPECT_EQ(Registered(), 1U);
}

void NeverIdle(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  for (;;) {
    JCXXMsg* msg = j_msg_new();
    j_msg_addstr(msg, "busy");
    j_msg_destroy(&msg);
  }
}

// Made before the library's first use, so that it goes after the library's own.
struct Late {
  JCXXMsg* msg = nullptr;
  JCXXActor* actor = nullptr;
  ~Late() {
    if (j_msg_addstr(msg, "late") != -1) {
      std::_Exit(3);  // this thread still took it for alive
    }
    j_msg_destroy(&msg);
    j_actor_destroy(&actor);
  }
};

TEST(ThreadStorm, TheProcessExitsWhileActorsRunAndStaticObjectsHoldHandles) {
  for (int round = 0; round < 5; ++round) {
    EXPECT_EXIT(
        {
          static Late late;
          late.msg = j_msg_new();
          for (int i = 0; i < 4; ++i) {
            late.actor = j_actor_new(i % 2 == 0 ? NeverIdle : Echo, nullptr);
          }
          std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
  }
}

}  // namespace
