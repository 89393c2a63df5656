// jcxxactor_test.cpp - starting actors, talking to them, stopping them.
#include "jcxxactor.h"

#include <pthread.h>

#include <atomic>
#include <thread>

#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

using ActorTest = support::Test;

// Says something before it is ready, and waits for the end.
void WaitsForItsEnd(j_sock_t* sock, void* stopped) {
  JCXXMsg* msg = j_msg_new();
  EXPECT_EQ(j_msg_send(&msg, sock), 0);
  EXPECT_EQ(j_sock_signal(sock, 64), 0);
  EXPECT_EQ(j_msg_recv(sock), nullptr);
  ++*static_cast<std::atomic<int>*>(stopped);
}

// Both ends are lent, and whoever borrows one must not destroy it.
TEST_F(ActorTest, ASockThatTheBorrowerDestroyedIsALine) {
  std::atomic<int> stopped{0};
  JCXXActor* actor = j_actor_new(WaitsForItsEnd, &stopped);
  JCXXSock* callers_end = j_actor_sock(actor);
  j_sock_destroy(&callers_end);
  j_actor_destroy(&actor);
  EXPECT_EQ(stopped, 1);
  actor = j_actor_new(
      [](j_sock_t* sock, void*) {
        j_sock_signal(sock, 0);
        j_sock_destroy(&sock);
      },
      nullptr);
  j_actor_destroy(&actor);
  for (const char* function : {"~JCXXActor", "~JActorThreadWrapper"}) {
    EXPECT_EQ(Log(kErrors, function), "the actor's sock has been destroyed by somebody else");
  }
}

// The creator waits for ever then, so nobody does here but another thread: a signal that
// comes by another road ends the wait.
TEST_F(ActorTest, AFunctionThatReturnsBeforeItsSignalIsALine) {
  static std::atomic<j_sock_t*> actors_end;
  actors_end = nullptr;
  std::jthread creator([] {
    JCXXActor* actor = j_actor_new([](j_sock_t* sock, void*) { actors_end = sock; }, nullptr);
    j_actor_destroy(&actor);
  });
  while (Log(kErrors, "the_wrapper_function") !=
         "actor function returned before its first signal") {
    std::this_thread::yield();
  }
  EXPECT_EQ(j_sock_signal(actors_end, 0), 0);
}

TEST_F(ActorTest, DestroyingIsNotACancellationPoint) {
  std::atomic<int> stopped{0};
  JCXXActor* actor = j_actor_new(WaitsForItsEnd, &stopped);
  const RunDirectory run;
  JCXXSock* sock = j_pipe_new_pull("ipc://x");
  std::thread([&] {
    ::pthread_cancel(::pthread_self());
    j_sock_destroy(&sock);
    j_actor_destroy(&actor);
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  }).join();
  EXPECT_EQ(stopped, 1);
  EXPECT_EQ(Log(), "irv=-1") << "the end of the actor's stream";
}

TEST_F(ActorTest, AThreadThatCannotBeJoinedIsLeftAlone) {
  std::thread never_started;
  JActorThreadWrapper wrapper;
  wrapper.thread = &never_started;
}

}  // namespace
