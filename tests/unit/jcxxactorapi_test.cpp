// jcxxactorapi_test.cpp - the registry, and what every exported call and every member
// behind it answers to handles that are none.
#include "jcxxactorapi.h"

#include <thread>

#include "calls.h"
#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

using ApiTest = PairTest;

TEST_F(ApiTest, EveryCallRefusesNullStaleForeignAndWrongHandles) {
  JCXXMsg msg;
  JCXXFrame frame;
  JCXXActor actor;
  auto* const dead = new JCXXMsg();
  void* volatile stale = dead;  // volatile: the compiler must not see that it dangles
  delete dead;
  char foreign = 0;
  const std::pair<char, void*> kHandles[] = {{'0', stale},  {'0', &foreign}, {'m', &msg},
                                             {'f', &frame}, {'s', a.get()},  {'a', &actor}};
  for (const calls::Call& call : calls::kCalls) {
    void* other = call.takes == 'm' ? static_cast<void*>(a.get()) : &msg;
    calls::Rest rest = {other, reinterpret_cast<zloop_t*>(&foreign), "x", nullptr};
    ClearLog();
    EXPECT_TRUE(call.fails({nullptr}, rest)) << call.name;
    EXPECT_EQ(Log(kAll), "") << call.name;
    for (const auto& [kind, handle] : kHandles) {
      if (!calls::Fits(call.takes, kind)) {
        ClearLog();
        EXPECT_TRUE(call.fails({handle}, rest)) << call.name << " of " << kind;
        EXPECT_EQ(Log(), std::string("invalid pointer passed to ") + call.name);
        EXPECT_EQ(LogLines().back().function, call.name);
      }
    }
  }
}

// Each expression is one refusal, told in one line with the name of the call.
#define REFUSES(call, expression)                   \
  do {                                              \
    ClearLog();                                     \
    EXPECT_TRUE(expression) << #expression;         \
    EXPECT_EQ(Log(), line + (call)) << #expression; \
  } while (false)

void RefuseEverywhere(JCXXActorAPI& api, calls::Handle handle, const std::string& line) {
  JCXXMsg* msg = handle;
  JCXXFrame* frame = handle;
  JCXXSock* sock = handle;
  JCXXActor* actor = handle;
  JCXXMsg good;
  JCXXMsg* live = &good;
  if (&api != JCXXActorAPI::GetInstance()) {
    api.JCXXMsgPtrAdd(live);
  }
  REFUSES("j_msg_addstr", api.j_msg_addstr(msg, "x") == -1);
  REFUSES("j_msg_addmem", api.j_msg_addmem(msg, "x", 1) == -1);
  REFUSES("j_msg_pop", api.j_msg_pop(msg) == nullptr);
  REFUSES("j_msg_popstr", api.j_msg_popstr(msg) == nullptr);
  REFUSES("j_msg_signal", api.j_msg_signal(msg) == -1);
  REFUSES("j_frame_data", api.j_frame_data(frame) == nullptr);
  REFUSES("j_frame_size", api.j_frame_size(frame) == 0);
  REFUSES("j_actor_sock", api.j_actor_sock(actor) == nullptr);
  const auto refuse_end = [&](auto* end) {
    REFUSES("j_msg_send", api.j_msg_send(&msg, end) == -1);
    REFUSES("j_msg_send", api.j_msg_send(&live, end) == -1);
    REFUSES("j_msg_recv", api.j_msg_recv(end) == nullptr);
    REFUSES("j_sock_signal", api.j_sock_signal(end, 1) == -1);
    REFUSES("j_sock_fd", api.j_sock_fd(end) == -1);
    REFUSES("j_sock_buffered", api.j_sock_buffered(end) == 0);
  };
  refuse_end(sock);
  refuse_end(actor);
  REFUSES("j_msg_destroy", (api.j_msg_destroy(&msg), true));
  REFUSES("j_frame_destroy", (api.j_frame_destroy(&frame), true));
  REFUSES("j_sock_destroy", (api.j_sock_destroy(&sock), true));
  REFUSES(handle.p == nullptr ? "j_actor_destroy 2" : "j_actor_destroy",
          (api.j_actor_destroy(&actor), true));
}

TEST_F(ApiTest, EveryMemberRefusesEveryBadHandle) {
  const std::string line = "NULL pointer passed to ";
  JCXXActorAPI own;
  JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  for (JCXXActorAPI* each : {&own, &api}) {
    RefuseEverywhere(*each, {nullptr}, line);
    RefuseEverywhere(*each, {&own}, "invalid pointer passed to ");
  }
  JCXXMsg msg;
  REFUSES("j_msg_addstr", j_msg_addstr(&msg, nullptr) == -1);
  REFUSES("j_msg_addmem", j_msg_addmem(&msg, nullptr, 0) == -1);
  REFUSES("j_msg_send", api.j_msg_send(nullptr, a.get()) == -1);
  REFUSES("j_msg_send", api.j_msg_send(nullptr, static_cast<JCXXActor*>(nullptr)) == -1);
  REFUSES("j_msg_destroy", (api.j_msg_destroy(nullptr), true));
  REFUSES("j_frame_destroy", (api.j_frame_destroy(nullptr), true));
  REFUSES("j_sock_destroy", (api.j_sock_destroy(nullptr), true));
  REFUSES("j_actor_destroy", (api.j_actor_destroy(nullptr), true));
}

// One family of a registry: an address enters once and leaves once. Another thread
// does it: what this one remembers of the address must not outlast that.
template <class Object>
void OnceInAndOut(const std::string& name, JCXXActorAPI& api, bool (JCXXActorAPI::*valid)(Object*),
                  void (JCXXActorAPI::*add)(Object*), void (JCXXActorAPI::*remove)(Object*)) {
  long places[3] = {};  // an address is enough
  auto* p = reinterpret_cast<Object*>(&places[0]);
  for (auto member : {add, remove}) {  // leaves spare entries
    for (long& place : places) {
      (api.*member)(reinterpret_cast<Object*>(&place));
    }
  }
  ClearLog();
  EXPECT_FALSE((api.*valid)(nullptr));
  for (auto member : {add, remove}) {
    (api.*member)(nullptr);
    EXPECT_EQ((api.*valid)(p), member == remove);
    std::thread([&] { (api.*member)(p); }).join();
    EXPECT_EQ((api.*valid)(p), member == add);
    (api.*member)(p);
    EXPECT_EQ((api.*valid)(p), member == add);
    EXPECT_TRUE(LogLines().back().function.starts_with(name + "Ptr"));
  }
  EXPECT_EQ(Log(kAll), "NULL " + name + " pointer passed to interface; NULL " + name +
                           " pointer passed to add; " + name + " pointer already exists; NULL " +
                           name + " pointer passed to remove; " + name + " pointer does not exist");
}

TEST_F(ApiTest, ARegistryHoldsAnAddressOnce) {
  JCXXActorAPI own;
  for (JCXXActorAPI* api : {&own, JCXXActorAPI::GetInstance()}) {
#define FAMILY(Class)                                                                        \
  OnceInAndOut(#Class, *api, &JCXXActorAPI::Class##PtrIsValid, &JCXXActorAPI::Class##PtrAdd, \
               &JCXXActorAPI::Class##PtrRemove)
    FAMILY(JCXXMsg);
    FAMILY(JCXXFrame);
    FAMILY(JCXXSock);
    FAMILY(JCXXActor);
  }
}

// Copies and assigns: the lines, with the registry's where it is asked again.
template <class Object>
void ExpectCopyLines(const std::string& name, const std::string& on_assign = "",
                     const std::string& assignment = "operator") {
  Object source;
  ClearLog();
  Object copy(source);
  Object& itself = copy;
  copy = itself;
  copy = source;
  const std::string assigned = name + " copy assignment " + assignment;
  EXPECT_EQ(Log(kAll), name + " copy constructor; " + assigned + "; " + assigned + on_assign);
}

TEST_F(ApiTest, CopyingCopiesNothingAndTellsSo) {
  ExpectCopyLines<JCXXSock>("JCXXSock", "; JCXXSock pointer already exists");
  ExpectCopyLines<JCXXActor>("JCXXActor", "; JCXXActor pointer already exists");
  ExpectCopyLines<JCXXFrame>("JCXXFrame", "; JCXXFrame pointer already exists");
  ExpectCopyLines<JCXXMsg>("JCXXMsg", "; JCXXMsg pointer already exists");
  ExpectCopyLines<SockFromPipes>("SockFromPipes");
  ExpectCopyLines<SockFromNamedEndpoint>("SockFromNamedEndpoint");
  ExpectCopyLines<JActorThreadWrapper>("JActorThreadWrapper", "", "constructor");
}

TEST_F(ApiTest, AnExceptionBecomesALineOfTheCallsLevel) {
  Feed("\x81");
  {
    const Script script({Call::kNew}, {}, Fail(ENOMEM), true);
    EXPECT_EQ(j_msg_new(), nullptr);
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  }
  EXPECT_EQ(Log(), "std::bad_alloc; std::bad_alloc");
  EXPECT_EQ(LogLines()[0].level, 2);
  EXPECT_EQ(LogLines()[1].level, 1);
}

// Says that all went well, and transfers nothing.
struct Liar : JCXXSock {
  int GetReadFD(int& fd) override { return fd = -1, 0; }
  int GetWriteFD(int& fd) override { return fd = -1, 0; }
  int ReadBlocking(unsigned char*, std::size_t, std::size_t& got) override { return got = 0, 0; }
  int WriteBlockingIOV(const iovec*, int, std::size_t& written) override { return written = 0, 0; }
};

TEST_F(ApiTest, ASockThatLiesAboutItsCountsIsFoundOut) {
  Liar liar;
  unsigned char byte = 0;
  std::size_t count = 1;
  EXPECT_EQ(JCXXMsg().WriteMessage(&liar), -1);
  EXPECT_EQ(JCXXMsg::ReadMessage(&liar), nullptr);
  EXPECT_EQ(liar.JCXXSock::ReadBlocking(&byte, 1, count), -1);
  EXPECT_EQ(liar.WriteBlocking(&byte, 1, count), -1);
  EXPECT_EQ(liar.AvailableToRead(count), -1);
  EXPECT_EQ(j_sock_fd(&liar), -1);
}

}  // namespace
