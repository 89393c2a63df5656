// bridge_test.cpp - socks in a CZMQ event loop.
#include <czmq.h>
#include <dlfcn.h>

#include <cerrno>

#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

int poller_result = 0;
zloop_fn* captured = nullptr;

}  // namespace

// Notes the library's callback, and fails when told to.
extern "C" __attribute__((visibility("default"))) int zloop_poller(zloop_t* loop,
                                                                   zmq_pollitem_t* item,
                                                                   zloop_fn handler, void* arg) {
  static const auto real =
      reinterpret_cast<decltype(&::zloop_poller)>(::dlsym(RTLD_NEXT, "zloop_poller"));
  captured = handler;
  EXPECT_EQ(item->socket, nullptr);
  EXPECT_EQ(item->events, ZMQ_POLLIN);
  return poller_result != 0 ? poller_result : real(loop, item, handler, arg);
}

namespace {

using namespace support;

class BridgeTest : public PairTest {
 protected:
  void SetUp() override {
    PairTest::SetUp();
    loop = zloop_new();
  }
  void TearDown() override {
    zloop_destroy(&loop);
    PairTest::TearDown();
  }
  static std::size_t Registered() {
    JCXXActorAPI* api = JCXXActorAPI::GetInstance();
    const std::lock_guard<std::mutex> lock(api->mutex);
    return api->pollers.size();
  }
  zloop_t* loop = nullptr;
};

// What a handler saw.
struct Seen {
  zloop_t* loop = nullptr;
  std::vector<JCXXSock*> socks;
};

int Handle(zloop_t* loop, j_sock_t* sock, void* arg) {
  auto& seen = *static_cast<Seen*>(arg);
  seen.loop = loop;
  seen.socks.push_back(sock);
  const std::unique_ptr<JCXXMsg> msg(j_msg_recv(sock));
  EXPECT_NE(msg, nullptr);
  return -1;
}

// Two signals, one readiness: the second waits in the read-ahead buffer.
TEST_F(BridgeTest, ALoopCallsTheHandlerUntilItEnds) {
  Seen seen;
  EXPECT_EQ(hybrid_zloop_reader(loop, b.get(), Handle, &seen), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 2), 0);
  zloop_start(loop);
  EXPECT_EQ(seen.socks, std::vector<JCXXSock*>{b.get()});
  EXPECT_EQ(seen.loop, loop);
  EXPECT_EQ(Log(kAll, "hybrid_internal_handler"), "hybrid_internal_handler; irv=-1");
  EXPECT_EQ(j_sock_buffered(b.get()), 1U);
  hybrid_zloop_reader_end(loop, b.get());
}

TEST_F(BridgeTest, OneEndDropsEveryRegistrationOfADescriptor) {
  Seen seen;
  for (JCXXSock* sock : {a.get(), a.get(), b.get()}) {
    EXPECT_EQ(hybrid_zloop_reader(loop, sock, Handle, &seen), 0);
  }
  for (int i = 0; i < 2; ++i) {
    ClearLog();
    hybrid_zloop_reader_end(loop, a.get());
    EXPECT_EQ(Registered(), 1U);
    EXPECT_EQ(Log(kAll), "hybrid_zloop_reader_end");
  }
  EXPECT_EQ(j_sock_signal(b.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  zloop_start(loop);
  EXPECT_EQ(seen.socks, std::vector<JCXXSock*>{b.get()});
  hybrid_zloop_reader_end(loop, b.get());
  EXPECT_EQ(Registered(), 0U);
}

TEST_F(BridgeTest, ARefusedRegistrationLeavesNothing) {
  JCXXSock plain;
  EXPECT_EQ(hybrid_zloop_reader(loop, &plain, Handle, nullptr), -1);
  hybrid_zloop_reader_end(loop, &plain);
  poller_result = 5;
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), Handle, nullptr), -1);
  poller_result = 0;
  EXPECT_EQ(Registered(), 0U);
  EXPECT_EQ(Log(kAll), "hybrid_zloop_reader; hybrid_zloop_reader_end; hybrid_zloop_reader");
}

TEST_F(BridgeTest, NullArgumentsTellTheirLine) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  zmq_pollitem_t item = {};
  const auto expect_lines = [](std::size_t count, const std::string& function) {
    EXPECT_EQ(LogLines().size(), count);
    for (const LogLine& line : LogLines()) {
      EXPECT_EQ(line.text, "NULL pointer passed to " + function);
    }
    ClearLog();
  };
  EXPECT_EQ(hybrid_zloop_reader(nullptr, a.get(), Handle, nullptr), -1);
  hybrid_zloop_reader_end(nullptr, a.get());
  EXPECT_EQ(Log(kAll), "");
  EXPECT_EQ(api->hybrid_zloop_reader(nullptr, a.get(), Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, nullptr, Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, a.get(), nullptr, nullptr), -1);
  expect_lines(3, "hybrid_zloop_reader");
  api->hybrid_zloop_reader_end(nullptr, a.get());
  api->hybrid_zloop_reader_end(loop, nullptr);
  expect_lines(2, "hybrid_zloop_reader_end");
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), Handle, nullptr), 0);
  hybrid_zloop_reader_end(loop, a.get());
  EXPECT_EQ(captured(nullptr, &item, &item), -1);
  EXPECT_EQ(captured(loop, nullptr, &item), -1);
  EXPECT_EQ(captured(loop, &item, nullptr), -1);
  expect_lines(3, "hybrid_internal_handler");
}

}  // namespace
