// bridge_test.cpp - socks in a CZMQ event loop.
#include <czmq.h>
#include <dlfcn.h>

#include <cerrno>

#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

bool loop_refuses = false;
zloop_fn* callback = nullptr;  // of the last registration, and what it is called with
void* record = nullptr;

}  // namespace

extern "C" __attribute__((visibility("default"))) int zloop_poller(zloop_t* loop,
                                                                   zmq_pollitem_t* item,
                                                                   zloop_fn handler, void* arg) {
  static const auto real =
      reinterpret_cast<decltype(&::zloop_poller)>(::dlsym(RTLD_NEXT, "zloop_poller"));
  callback = handler;
  record = arg;
  return loop_refuses ? 5 : real(loop, item, handler, arg);
}

namespace {

using namespace support;

class BridgeTest : public PairTest {
 protected:
  ~BridgeTest() override { zloop_destroy(&loop); }

  int Register(JCXXSock* sock) { return hybrid_zloop_reader(loop, sock, Handle, this); }

  // Receives one message and ends the loop.
  static int Handle(zloop_t* running, j_sock_t* sock, void* arg) {
    auto* test = static_cast<BridgeTest*>(arg);
    EXPECT_EQ(running, test->loop);
    test->handled.push_back(sock);
    const std::unique_ptr<JCXXMsg> msg(j_msg_recv(sock));
    EXPECT_NE(msg, nullptr);
    return -1;
  }

  zloop_t* loop = zloop_new();
  std::vector<JCXXSock*> handled;
};

TEST_F(BridgeTest, OneEndDropsEveryRegistrationOfADescriptor) {
  for (JCXXSock* sock : {a.get(), a.get(), b.get()}) {
    EXPECT_EQ(Register(sock), 0);
  }
  for (int i = 0; i < 2; ++i) {
    hybrid_zloop_reader_end(loop, a.get());
    EXPECT_EQ(JCXXActorAPI::GetInstance()->pollers.size(), 1U);
  }
  EXPECT_EQ(j_sock_signal(b.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  zloop_start(loop);
  EXPECT_EQ(handled, std::vector<JCXXSock*>{b.get()});
  hybrid_zloop_reader_end(loop, b.get());
  EXPECT_EQ(Log(), "");
}

TEST_F(BridgeTest, ARefusedRegistrationLeavesNothing) {
  JCXXSock plain;
  EXPECT_EQ(Register(&plain), -1);
  EXPECT_EQ(errno, EBADF);
  hybrid_zloop_reader_end(loop, &plain);
  loop_refuses = true;
  EXPECT_EQ(Register(a.get()), -1);
  EXPECT_EQ(errno, ENOMEM);
  loop_refuses = false;
  EXPECT_EQ(Log(), "");
}

TEST_F(BridgeTest, AnEventWithoutItsLoopItemOrRecordIsRefused) {
  zmq_pollitem_t item = {};
  EXPECT_EQ(Register(b.get()), 0);
  EXPECT_EQ(callback(nullptr, &item, record), -1);
  EXPECT_EQ(callback(loop, nullptr, record), -1);
  EXPECT_EQ(callback(loop, &item, nullptr), -1);
  EXPECT_TRUE(handled.empty());
  hybrid_zloop_reader_end(loop, b.get());
}

// The loop has the sock by then, and keeps its record.
TEST_F(BridgeTest, ALockThatFailsDoesSoOnceTheLoopHasAccepted) {
  EXPECT_TRUE(JCXXActorAPI::GetInstance()->JCXXSockPtrIsValid(b.get()));  // known from now on
  {
    const Script locks(Call::kMutexLock, {Fail(EINVAL)});
    EXPECT_EQ(Register(b.get()), -1);
  }
  EXPECT_EQ(Log(), "Invalid argument");
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  zloop_start(loop);
  EXPECT_EQ(handled.size(), 1U);
  hybrid_zloop_reader_end(loop, b.get());
  delete static_cast<hybrid_poller_info*>(record);
}

}  // namespace
