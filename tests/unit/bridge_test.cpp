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
  std::size_t until = 1;  // ends the loop after so many calls
};

int Handle(zloop_t* loop, j_sock_t* sock, void* arg) {
  auto& seen = *static_cast<Seen*>(arg);
  seen.loop = loop;
  seen.socks.push_back(sock);
  const std::unique_ptr<JCXXMsg> msg(j_msg_recv(sock));
  EXPECT_NE(msg, nullptr);
  return seen.socks.size() == seen.until ? -1 : 0;
}

TEST_F(BridgeTest, ALoopCallsTheHandlerUntilItEnds) {
  Seen seen;
  seen.until = 2;
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), Handle, &seen), 0);
  EXPECT_EQ(hybrid_zloop_reader(loop, b.get(), Handle, &seen), 0);
  EXPECT_EQ(Registered(), 2U);
  for (JCXXSock* sock : {a.get(), b.get()}) {
    seen.socks.clear();
    EXPECT_EQ(j_sock_signal(sock, 1), 0);
    EXPECT_EQ(j_sock_signal(sock, 2), 0);
    ClearLog();
    // Two signals, one readiness each: the handler takes the second out of the
    // read-ahead buffer only when more bytes come.
    seen.until = 1;
    zloop_start(loop);
    JCXXSock* other = sock == a.get() ? b.get() : a.get();
    EXPECT_EQ(seen.socks, std::vector<JCXXSock*>{other});
    EXPECT_EQ(seen.loop, loop);
    EXPECT_EQ(Log(kAll, "hybrid_internal_handler"), "hybrid_internal_handler; irv=-1");
    EXPECT_EQ(j_sock_buffered(other), 1U);
    EXPECT_EQ(JCXXMsg::WaitForSignal(other), 0);
  }
  hybrid_zloop_reader_end(loop, a.get());
  EXPECT_EQ(Registered(), 1U);
  hybrid_zloop_reader_end(loop, b.get());
}

TEST_F(BridgeTest, OneEndDropsEveryRegistrationOfADescriptor) {
  Seen seen;
  for (JCXXSock* sock : {a.get(), a.get(), b.get()}) {
    EXPECT_EQ(hybrid_zloop_reader(loop, sock, Handle, &seen), 0);
  }
  hybrid_zloop_reader_end(loop, a.get());
  EXPECT_EQ(Registered(), 1U);
  ClearLog();
  hybrid_zloop_reader_end(loop, a.get());
  EXPECT_EQ(Registered(), 1U);
  EXPECT_EQ(Log(kAll), "hybrid_zloop_reader_end");
  EXPECT_EQ(j_sock_signal(b.get(), 1), 0);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  zloop_start(loop);
  EXPECT_EQ(seen.socks, std::vector<JCXXSock*>{b.get()});
  hybrid_zloop_reader_end(loop, b.get());
  EXPECT_EQ(Registered(), 0U);
}

TEST_F(BridgeTest, ARefusedRegistrationLeavesNothing) {
  JCXXSock plain;
  JCXXMsg msg;
  auto* foreign = reinterpret_cast<JCXXSock*>(&msg);
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  ClearLog();
  EXPECT_EQ(hybrid_zloop_reader(nullptr, a.get(), Handle, nullptr), -1);
  EXPECT_EQ(hybrid_zloop_reader(loop, nullptr, Handle, nullptr), -1);
  hybrid_zloop_reader_end(nullptr, a.get());
  hybrid_zloop_reader_end(loop, nullptr);
  EXPECT_EQ(Log(kAll), "");
  EXPECT_EQ(hybrid_zloop_reader(loop, &plain, Handle, nullptr), -1);
  hybrid_zloop_reader_end(loop, &plain);
  poller_result = 5;
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), Handle, nullptr), -1);
  poller_result = 0;
  EXPECT_EQ(Log(kAll), "hybrid_zloop_reader; hybrid_zloop_reader_end; hybrid_zloop_reader");
  ClearLog();
  EXPECT_EQ(api->hybrid_zloop_reader(nullptr, a.get(), Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, nullptr, Handle, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, foreign, nullptr, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(loop, a.get(), nullptr, nullptr), -1);
  EXPECT_EQ(Log(kErrors, "hybrid_zloop_reader"),
            "NULL pointer passed to hybrid_zloop_reader; NULL pointer passed to "
            "hybrid_zloop_reader; invalid pointer passed to hybrid_zloop_reader; NULL pointer "
            "passed to hybrid_zloop_reader");
  api->hybrid_zloop_reader_end(nullptr, a.get());
  api->hybrid_zloop_reader_end(loop, nullptr);
  api->hybrid_zloop_reader_end(loop, foreign);
  EXPECT_EQ(Log(kErrors, "hybrid_zloop_reader_end"),
            "NULL pointer passed to hybrid_zloop_reader_end; NULL pointer passed to "
            "hybrid_zloop_reader_end; invalid pointer passed to hybrid_zloop_reader_end");
  zmq_pollitem_t item = {};
  EXPECT_EQ(captured(nullptr, &item, &item), -1);
  EXPECT_EQ(captured(loop, nullptr, &item), -1);
  EXPECT_EQ(captured(loop, &item, nullptr), -1);
  EXPECT_EQ(LogLines().size(), 10U);
  EXPECT_EQ(LogLines().back().text, "NULL pointer passed to hybrid_internal_handler");
}

}  // namespace
