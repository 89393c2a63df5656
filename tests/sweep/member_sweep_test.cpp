// member_sweep_test.cpp - every member behind the calls with every bad handle, on the
// instance and on an object of its own, and socks that break their word.
#include <gtest/gtest.h>

#include <thread>

#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

class MemberSweep : public support::Test {};

// Each expression is one refusal, told in one line.
#define REFUSES(expression)                                      \
  do {                                                           \
    support::ClearLog();                                         \
    EXPECT_TRUE(expression) << #expression;                      \
    EXPECT_EQ(support::LogLines().size(), lines) << #expression; \
  } while (false)

void RefuseEverywhere(JCXXActorAPI& api, void* handle, std::size_t lines) {
  auto* msg = static_cast<JCXXMsg*>(handle);
  auto* frame = static_cast<JCXXFrame*>(handle);
  auto* sock = static_cast<JCXXSock*>(handle);
  auto* actor = static_cast<JCXXActor*>(handle);
  JCXXMsg good;
  api.JCXXMsgPtrAdd(&good);
  JCXXMsg* live = &good;
  REFUSES(api.j_msg_addstr(msg, "x") == -1);
  REFUSES(api.j_msg_addmem(msg, "x", 1) == -1);
  REFUSES(api.j_msg_pop(msg) == nullptr);
  REFUSES(api.j_msg_popstr(msg) == nullptr);
  REFUSES(api.j_msg_signal(msg) == -1);
  REFUSES(api.j_frame_data(frame) == nullptr);
  REFUSES(api.j_frame_size(frame) == 0);
  REFUSES(api.j_actor_sock(actor) == nullptr);
  REFUSES(api.j_msg_send(&msg, sock) == -1);
  REFUSES(api.j_msg_send(&msg, actor) == -1);
  REFUSES(api.j_msg_send(&live, sock) == -1);
  REFUSES(api.j_msg_send(&live, actor) == -1);
  REFUSES(api.j_msg_recv(sock) == nullptr);
  REFUSES(api.j_msg_recv(actor) == nullptr);
  REFUSES(api.j_sock_signal(sock, 1) == -1);
  REFUSES(api.j_sock_signal(actor, 1) == -1);
  REFUSES(api.j_sock_fd(sock) == -1);
  REFUSES(api.j_sock_fd(actor) == -1);
  REFUSES(api.j_sock_buffered(sock) == 0);
  REFUSES(api.j_sock_buffered(actor) == 0);
  REFUSES((api.j_msg_destroy(&msg), true));
  REFUSES((api.j_frame_destroy(&frame), true));
  REFUSES((api.j_actor_destroy(&actor), true));
  REFUSES((api.j_sock_destroy(&sock), true));
  if (&api != JCXXActorAPI::GetInstance()) {
    api.JCXXMsgPtrRemove(&good);
  }
}

TEST_F(MemberSweep, EveryMemberRefusesEveryBadHandle) {
  JCXXActorAPI own;
  long foreign = 0;
  for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&foreign)}) {
    RefuseEverywhere(own, handle, 1);
    RefuseEverywhere(*JCXXActorAPI::GetInstance(), handle, 1);
  }
  JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  const std::size_t lines = 1;
  REFUSES(api.j_msg_send(nullptr, static_cast<JCXXSock*>(nullptr)) == -1);
  REFUSES(api.j_msg_send(nullptr, static_cast<JCXXActor*>(nullptr)) == -1);
  REFUSES((api.j_msg_destroy(nullptr), true));
  REFUSES((api.j_frame_destroy(nullptr), true));
  REFUSES((api.j_actor_destroy(nullptr), true));
  REFUSES((api.j_sock_destroy(nullptr), true));
}

// One family of a registry: an address enters once and leaves once.
template <class Object>
void OnceInAndOut(JCXXActorAPI& api, void (JCXXActorAPI::*add)(Object*),
                  bool (JCXXActorAPI::*valid)(Object*), void (JCXXActorAPI::*remove)(Object*)) {
  long places[2] = {};
  auto* p = reinterpret_cast<Object*>(&places[0]);
  auto* other = reinterpret_cast<Object*>(&places[1]);
  for (auto member : {add, remove}) {  // leaves two spare entries
    (api.*member)(p);
    (api.*member)(other);
  }
  for (const std::size_t lines : {std::size_t{0}, std::size_t{1}}) {
    REFUSES(((api.*add)(p), (api.*valid)(p)));
  }
  for (const std::size_t lines : {std::size_t{0}, std::size_t{1}}) {
    REFUSES(((api.*remove)(p), !(api.*valid)(p)));
  }
}

TEST_F(MemberSweep, ARegistryOfItsOwnHoldsEveryFamily) {
  JCXXActorAPI own;
  for (JCXXActorAPI* api : {&own, JCXXActorAPI::GetInstance()}) {
    OnceInAndOut(*api, &JCXXActorAPI::JCXXMsgPtrAdd, &JCXXActorAPI::JCXXMsgPtrIsValid,
                 &JCXXActorAPI::JCXXMsgPtrRemove);
    OnceInAndOut(*api, &JCXXActorAPI::JCXXFramePtrAdd, &JCXXActorAPI::JCXXFramePtrIsValid,
                 &JCXXActorAPI::JCXXFramePtrRemove);
    OnceInAndOut(*api, &JCXXActorAPI::JCXXSockPtrAdd, &JCXXActorAPI::JCXXSockPtrIsValid,
                 &JCXXActorAPI::JCXXSockPtrRemove);
    OnceInAndOut(*api, &JCXXActorAPI::JCXXActorPtrAdd, &JCXXActorAPI::JCXXActorPtrIsValid,
                 &JCXXActorAPI::JCXXActorPtrRemove);
  }
}

TEST_F(MemberSweep, AnAnswerOfOneThreadEndsWithAChangeByAnother) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  long place = 0;
  auto* p = reinterpret_cast<JCXXMsg*>(&place);
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(api->JCXXMsgPtrIsValid(p));
    std::thread([=] { api->JCXXMsgPtrAdd(p); }).join();
    EXPECT_TRUE(api->JCXXMsgPtrIsValid(p));
    std::thread([=] { api->JCXXMsgPtrRemove(p); }).join();
  }
}

TEST_F(MemberSweep, ALargeSizeIsWrittenMostSignificantByteFirst) {
  JCXXFrame frame;
  frame.SetSize(0x01020304);
  ASSERT_EQ(frame.BuildHeaderInFive(), 0);
  EXPECT_EQ(std::string(frame.header, frame.header + frame.header_len),
            std::string("\x30\x01\x02\x03\x04"));
}

// Says that all went well, and transfers nothing.
struct Liar : JCXXSock {
  int GetReadFD(int& fd) override { return fd = -1, 0; }
  int GetWriteFD(int& fd) override { return fd = -1, 0; }
  int ReadBlocking(unsigned char*, std::size_t, std::size_t& got) override { return got = 0, 0; }
  int WriteBlocking(unsigned char*, std::size_t, std::size_t& written) override {
    return written = 0, 0;
  }
  int WriteBlockingIOV(const iovec*, int, std::size_t& written) override { return written = 0, 0; }
};

TEST_F(MemberSweep, ASockThatLiesAboutItsCountsIsFoundOut) {
  Liar liar;
  unsigned char byte = 0;
  std::size_t count = 1;
  JCXXMsg msg;
  EXPECT_EQ(msg.WriteMessage(&liar), -1);
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(&liar, 1), -1);
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(&liar, 200), -1);
  EXPECT_EQ(JCXXFrame().WriteFrameToSock(&liar), -1);
  EXPECT_EQ(JCXXMsg::ReadMessage(&liar), nullptr);
  EXPECT_EQ(liar.JCXXSock::ReadBlocking(&byte, 1, count), -1);
  EXPECT_EQ(liar.JCXXSock::WriteBlocking(&byte, 1, count), -1);
  EXPECT_EQ(liar.AvailableToRead(count), -1);
  EXPECT_EQ(j_sock_fd(&liar), -1);
}

}  // namespace
