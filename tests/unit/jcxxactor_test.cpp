// jcxxactor_test.cpp - starting actors, talking to them, stopping them.
#include "jcxxactor.h"

#include <atomic>
#include <cerrno>
#include <exception>

#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

class ActorTest : public support::Test {};

// Signals with the value at `args` and returns.
void SignalOnly(j_sock_t* sock, void* args) {
  EXPECT_EQ(j_sock_signal(sock, *static_cast<unsigned char*>(args)), 0);
}

// Says something before it is ready, then sends back what it gets until the end.
void Echo(j_sock_t* sock, void* args) {
  JCXXMsg* msg = j_msg_new();
  EXPECT_EQ(j_msg_send(&msg, sock), 0);
  EXPECT_EQ(j_sock_signal(sock, 0), 0);
  while ((msg = j_msg_recv(sock)) != nullptr) {
    EXPECT_EQ(j_msg_send(&msg, sock), 0);
  }
  ++*static_cast<std::atomic<int>*>(args);
}

TEST_F(ActorTest, AnActorAnswersUntilItIsDestroyed) {
  std::atomic<int> stopped{0};
  JCXXActor* actor = j_actor_new(Echo, &stopped);
  ASSERT_NE(actor, nullptr);
  for (void* end : {static_cast<void*>(actor), static_cast<void*>(j_actor_sock(actor))}) {
    EXPECT_EQ(j_sock_signal(end, 255), 0);
    JCXXMsg* msg = j_msg_recv(end);
    EXPECT_EQ(j_msg_signal(msg), 255);
    j_msg_destroy(&msg);
  }
  EXPECT_EQ(stopped, 0);
  j_actor_destroy(&actor);
  EXPECT_EQ(stopped, 1);
  EXPECT_EQ(actor, nullptr);
  EXPECT_EQ(Log(), "irv=-1") << "the end of the actor's stream";
}

TEST_F(ActorTest, AnySignalStartsAnActorThatMayEndAtOnce) {
  for (unsigned char value : std::initializer_list<unsigned char>{0, 64, 255}) {
    JCXXActor actor(SignalOnly, &value);
    EXPECT_NE(actor.GetSock(), nullptr);
  }
  EXPECT_EQ(Log(kAll, "the_wrapper_function").substr(0, 23), "before client function;");
  EXPECT_EQ(Log(), "");
}

TEST_F(ActorTest, SignallingAnActorTellsFourLines) {
  unsigned char value = 0;
  JCXXActor actor(SignalOnly, &value);
  ClearLog();
  EXPECT_EQ(j_sock_signal(&actor, 9), 0);
  EXPECT_EQ(Log(kAll, "j_sock_signal"),
            "before actor; j_sock_signal sock, rc=0; j_sock_signal actor, rc=0; after actor");
  const Script script(Call::kWrite, {Fail(EPIPE)});
  ClearLog();
  EXPECT_EQ(j_sock_signal(&actor, 9), -1);
  EXPECT_EQ(Log(kAll, "j_sock_signal"),
            "before actor; j_sock_signal sock, rc=-1; j_sock_signal actor, rc=-1; after actor");
}

TEST_F(ActorTest, AFailedStartIsALineOrAnException) {
  unsigned char value = 0;
  const std::pair<Call, const char*> kFaults[] = {
      {Call::kPipe, "std::bad_alloc"}, {Call::kPthreadCreate, "Resource temporarily unavailable"}};
  for (const auto& [call, line] : kFaults) {
    // One failure at a time: a sanitizer makes pipes too when it looks at an exception.
    for (const bool through_the_call : {true, false}) {
      const Script script(call, {Fail(EAGAIN)});
      if (through_the_call) {
        EXPECT_EQ(j_actor_new(SignalOnly, &value), nullptr);
        EXPECT_EQ(Log(), line);
      } else {
        EXPECT_THROW(JCXXActor(SignalOnly, &value), std::exception);
      }
    }
    ClearLog();
  }
}

TEST_F(ActorTest, AnActorWithoutASockFailsAsANullSock) {
  JCXXActor actor;
  JCXXMsg* msg = j_msg_new();
  ClearLog();
  EXPECT_EQ(j_actor_sock(&actor), nullptr);
  EXPECT_EQ(j_msg_send(&msg, &actor), -1);
  EXPECT_EQ(j_msg_recv(&actor), nullptr);
  EXPECT_EQ(j_sock_signal(&actor, 1), -1);
  EXPECT_EQ(j_sock_fd(&actor), -1);
  EXPECT_EQ(j_sock_buffered(&actor), 0U);
  EXPECT_EQ(Log(),
            "NULL pointer passed to j_msg_send; NULL pointer passed to j_msg_recv; NULL pointer "
            "passed to j_sock_signal; NULL pointer passed to j_sock_fd; NULL pointer passed to "
            "j_sock_buffered");
  j_msg_destroy(&msg);
}

TEST_F(ActorTest, AThreadThatCannotBeJoinedIsLeftAlone) {
  std::thread never_started;
  JActorThreadWrapper wrapper;
  wrapper.thread = &never_started;
}

}  // namespace
