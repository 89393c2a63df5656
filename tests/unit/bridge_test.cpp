// bridge_test.cpp - socks in a CZMQ event loop.
#include <czmq.h>
#include <dlfcn.h>

#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

int poller_result = 0;
zloop_fn* captured = nullptr;
void* record = nullptr;
bool locks_fail = false;

}  // namespace

// Notes the library's callback, and fails when told to.
extern "C" __attribute__((visibility("default"))) int zloop_poller(zloop_t* loop,
                                                                   zmq_pollitem_t* item,
                                                                   zloop_fn handler, void* arg) {
  static const auto real =
      reinterpret_cast<decltype(&::zloop_poller)>(::dlsym(RTLD_NEXT, "zloop_poller"));
  captured = handler;
  record = arg;
  return poller_result != 0 ? poller_result : real(loop, item, handler, arg);
}

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&::pthread_mutex_lock)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  return locks_fail && mutex == JCXXActorAPI::GetInstance()->mutex.native_handle() ? EINVAL
                                                                                   : real(mutex);
}

namespace {

using namespace support;

class BridgeTest : public PairTest {
 protected:
  ~BridgeTest() override { zloop_destroy(&loop); }

  // Receives one message and ends the loop.
  static int Handle(zloop_t* running, j_sock_t* sock, void* arg) {
    auto* test = static_cast<BridgeTest*>(arg);
    EXPECT_EQ(running, test->loop);
    test->handled.push_back(sock);
    const std::unique_ptr<JCXXMsg> msg(j_msg_recv(sock));
    EXPECT_NE(msg, nullptr);
    return -1;
  }

  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  zloop_t* loop = zloop_new();
  std::vector<JCXXSock*> handled;
};

// One readiness for two signals: the second waits in the read-ahead buffer.
TEST_F(BridgeTest, OneEndDropsEveryRegistrationOfADescriptor) {
  for (JCXXSock* sock : {a.get(), a.get(), b.get()}) {
    EXPECT_EQ(hybrid_zloop_reader(loop, sock, Handle, this), 0);
  }
  for (int i = 0; i < 2; ++i) {
    hybrid_zloop_reader_end(loop, a.get());
    EXPECT_EQ(api->pollers.size(), 1U);
  }
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(j_sock_signal(b.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 2), 0);
  zloop_start(loop);
  EXPECT_EQ(handled, std::vector<JCXXSock*>{b.get()});
  EXPECT_EQ(j_sock_buffered(b.get()), 1U);
  hybrid_zloop_reader_end(loop, b.get());
}

TEST_F(BridgeTest, ARefusedRegistrationLeavesNothing) {
  JCXXSock plain;
  EXPECT_EQ(hybrid_zloop_reader(loop, &plain, Handle, nullptr), -1);
  hybrid_zloop_reader_end(loop, &plain);
  poller_result = 5;
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), Handle, nullptr), -1);
  poller_result = 0;
  EXPECT_EQ(Log(), "");
}

// The loop has the sock by then, and keeps its record.
TEST_F(BridgeTest, ALockThatFailsDoesSoOnceTheLoopHasAccepted) {
  EXPECT_TRUE(api->JCXXSockPtrIsValid(b.get()));
  locks_fail = true;
  EXPECT_EQ(hybrid_zloop_reader(loop, b.get(), Handle, this), -1);
  locks_fail = false;
  EXPECT_EQ(Log(), "Invalid argument");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  zloop_start(loop);
  EXPECT_EQ(handled.size(), 1U);
  hybrid_zloop_reader_end(loop, b.get());
  delete static_cast<hybrid_poller_info*>(record);
}

// The calls say nothing, the members behind them do.
TEST_F(BridgeTest, NullArgumentsTellTheirLine) {
  JCXXSock* sock = b.get();
  zmq_pollitem_t item = {};
  EXPECT_EQ(hybrid_zloop_reader(loop, sock, Handle, nullptr), 0);
  hybrid_zloop_reader_end(loop, sock);
  EXPECT_EQ(hybrid_zloop_reader(nullptr, sock, Handle, nullptr), -1);
  hybrid_zloop_reader_end(nullptr, sock);
  EXPECT_EQ(captured(nullptr, &item, &item), -1);
  EXPECT_EQ(captured(loop, nullptr, &item), -1);
  EXPECT_EQ(captured(loop, &item, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(nullptr, sock, Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, nullptr, Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, sock, nullptr, nullptr), -1);
  api->hybrid_zloop_reader_end(nullptr, sock);
  api->hybrid_zloop_reader_end(loop, nullptr);
  EXPECT_EQ(LogLines().size(), 8U);
  for (const LogLine& line : LogLines()) {
    EXPECT_EQ(line.text, "NULL pointer passed to " + line.function);
  }
}

}  // namespace
