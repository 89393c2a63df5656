// thread_storm_test.cpp - many threads at once. Made for ThreadSanitizer, and run without
// it too.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "jactor.hpp"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "jlog.h"
#include "wrapper/common.h"

extern "C" void jlog_printf(int, int, const char*, ...) {}

namespace {

using jactor::Actor;
using jactor::Message;

constexpr int kThreads = 8;

// Runs `body(number)` on eight threads that start together. Under ctest each test is a
// process of its own: they are the first to use the library.
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

}  // namespace
