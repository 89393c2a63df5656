// thread_storm_test.cpp - many threads at once, and the end of the process in the
// middle of it. Made for ThreadSanitizer, and run without it too.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "jactor.hpp"
#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "jlog.h"
#include "wrapper/common.h"

extern "C" void jlog_printf(int, int, const char*, ...) {}

// What still lives at exit is left alone by design.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_thread_leaks=0";
}

namespace {

using jactor::Actor;
using jactor::Message;

constexpr int kThreads = 8;

// Runs `body(number)` on eight threads that start together.
template <class Body>
void Storm(Body body) {
  std::barrier start(kThreads);
  std::vector<std::jthread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([&start, &body, n] {
      start.arrive_and_wait();
      body(n);
    });
  }
}

std::size_t Registered() {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  const std::lock_guard<std::mutex> lock(api->mutex);
  return api->socks.size() + api->actors.size() + api->frames.size() + api->msgs.size();
}

// Under ctest each test is a process of its own.
TEST(ThreadStorm, FirstUseFromEightThreads) {
  Storm([](int) { const Message message{"first"}; });
  EXPECT_EQ(Registered(), 0U);
}

TEST(ThreadStorm, ActorsComeAndGoWhileOthersTalk) {
  Storm([&](int n) {
    Actor actor(wrapper::Echo);
    for (int i = 0; i < 200; ++i) {
      const std::string number = std::to_string(n * 1000 + i);
      actor.send(Message{number, "storm"});
      ASSERT_EQ(actor.receive()->pop_string(), number);
      if (n % 2 == 0) {
        actor = Actor(wrapper::Echo);
      }
    }
  });
  EXPECT_EQ(Registered(), 0U);
}

// Every thread makes and destroys objects and asks for those of the others, alive
// or dead. One object outlives them all and must always be valid.
TEST(ThreadStorm, TheRegistryFromEightThreads) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg lasting;
  std::atomic<JCXXMsg*> shown[kThreads] = {};
  Storm([&](int n) {
    for (int i = 0; i < 3000; ++i) {
      Message message{"storm"};
      JCXXMsg* msg = message.get();
      shown[n] = msg;
      ASSERT_TRUE(api->JCXXMsgPtrIsValid(msg) && api->JCXXMsgPtrIsValid(&lasting));
      ASSERT_FALSE(api->JCXXSockPtrIsValid(reinterpret_cast<JCXXSock*>(msg)));
      api->JCXXMsgPtrIsValid(shown[(n + i) % kThreads]);
      ASSERT_EQ(message.pop_string(), "storm");
    }
  });
  for (JCXXMsg* msg : shown) {
    EXPECT_FALSE(api->JCXXMsgPtrIsValid(msg));
  }
  EXPECT_EQ(Registered(), 1U);
}

void UseTheLibrary() {
  JCXXMsg* msg = j_msg_new();
  SockFromPipes sock;
  j_msg_addstr(msg, "late");
  j_msg_send(&msg, &sock);
  delete j_msg_pop(msg);
  j_msg_destroy(&msg);
}

void NeverIdle(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  for (;;) {
    UseTheLibrary();
  }
}

// Until it is asked to stop, which it must have been by the process's end.
void Echo(j_sock_t* sock, void* stopped) {
  j_sock_signal(sock, 0);
  while (const std::unique_ptr<JCXXMsg> msg{j_msg_recv(sock)}) {
    msg->WriteMessage(sock);
  }
  *static_cast<std::atomic<bool>*>(stopped) = true;
}
std::atomic<bool> echo_stopped{false};

// Made before the library's first use, and so destroyed after its own end, with what
// it holds.
struct Early {
  std::unique_ptr<JCXXMsg> msg;
  std::unique_ptr<JCXXActor> ended;
  JCXXActor* echo = nullptr;
  ~Early() {
    const bool sent =
        j_msg_addstr(msg.get(), "late") == 0 && msg->WriteMessage(j_actor_sock(echo)) == 0;
    const bool answered = sent && std::unique_ptr<JCXXMsg>(j_msg_recv(echo)) != nullptr;
    j_actor_destroy(&echo);
    if (!answered || !echo_stopped) {
      std::_Exit(3);
    }
    UseTheLibrary();
  }
};

[[noreturn]] void ExitWithLiveObjects() {
  static Early early;
  early.msg.reset(j_msg_new());
  early.ended.reset(j_actor_new([](j_sock_t* sock, void*) { j_sock_signal(sock, 0); }, nullptr));
  static const JCXXMsg late;
  early.echo = j_actor_new(Echo, &echo_stopped);
  for (int i = 0; i < 3; ++i) {
    j_actor_new(NeverIdle, nullptr);
  }
  std::exit(0);
}

// Of a name that has it run before the others, in one process with them.
TEST(ThreadStormDeathTest, TheProcessExitsWhileActorsRunAndStaticObjectsHoldHandles) {
  for (int round = 0; round < 5; ++round) {
    EXPECT_EXIT(ExitWithLiveObjects(), ::testing::ExitedWithCode(0), "");
  }
}

}  // namespace
