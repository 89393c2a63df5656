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
  calls::Rest rest = {&msg, a.get(), reinterpret_cast<zloop_t*>(&foreign), "x", 1};
  for (const calls::Call& call : calls::kCalls) {
    const std::string name = call.name;
    ClearLog();
    EXPECT_TRUE(call.fails(nullptr, nullptr, rest)) << name;
    EXPECT_EQ(Log(kAll), "") << name;
    for (const auto& [kind, handle] : kHandles) {
      if (!calls::Fits(call.takes, kind)) {
        ClearLog();
        EXPECT_TRUE(call.fails(nullptr, handle, rest)) << name << " of " << kind;
        EXPECT_EQ(Log(), "invalid pointer passed to " + name);
        EXPECT_EQ(LogLines().back().function, name);
        EXPECT_EQ(rest.left, name.ends_with("_destroy") ? nullptr : handle);
      }
    }
  }
  EXPECT_EQ(rest.msg, &msg);
}

TEST_F(ApiTest, EveryMemberRefusesNullAndForeignHandlesInALine) {
  JCXXActorAPI own;
  JCXXMsg msg;
  own.JCXXMsgPtrAdd(&msg);
  calls::Rest rest = {&msg, a.get(), reinterpret_cast<zloop_t*>(&own), "x", 1};
  for (JCXXActorAPI* api : {&own, JCXXActorAPI::GetInstance()}) {
    for (const calls::Call& call : calls::kCalls) {
      const std::string name = call.name;
      ClearLog();
      EXPECT_TRUE(call.fails(api, nullptr, rest)) << name;
      EXPECT_EQ(Log(), "NULL pointer passed to " + name + (name == "j_actor_destroy" ? " 2" : ""));
      ClearLog();
      EXPECT_TRUE(call.fails(api, &own, rest)) << name;
      EXPECT_EQ(Log(), "invalid pointer passed to " + name);
    }
  }
}

TEST_F(ApiTest, NullInsteadOfAPointerToAHandleOrOfBytesIsRefused) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg msg;
  j_msg_destroy(nullptr);
  j_frame_destroy(nullptr);
  j_sock_destroy(nullptr);
  j_actor_destroy(nullptr);
  EXPECT_EQ(j_msg_send(nullptr, a.get()), -1);
  EXPECT_EQ(Log(kAll), "");
  EXPECT_EQ(j_msg_addstr(&msg, nullptr), -1);
  EXPECT_EQ(j_msg_addmem(&msg, nullptr, 0), -1);
  EXPECT_EQ(api->j_msg_send(nullptr, a.get()), -1);
  EXPECT_EQ(api->j_msg_send(nullptr, static_cast<JCXXActor*>(nullptr)), -1);
  api->j_msg_destroy(nullptr);
  api->j_frame_destroy(nullptr);
  api->j_sock_destroy(nullptr);
  api->j_actor_destroy(nullptr);
  EXPECT_EQ(LogLines().size(), 8U);
  for (const LogLine& line : LogLines()) {
    EXPECT_EQ(line.text, "NULL pointer passed to " + line.function);
  }
}

// One family of a registry: an address enters once and leaves once. Another thread
// does it: what this one remembers of the address must not outlast that.
template <class Object>
void OnceInAndOut(const std::string& name, JCXXActorAPI& api, bool (JCXXActorAPI::*valid)(Object*),
                  void (JCXXActorAPI::*add)(Object*), void (JCXXActorAPI::*remove)(Object*)) {
  { Object first, second; }  // leave spare entries
  long place = 0;
  auto* p = reinterpret_cast<Object*>(&place);  // an address is enough
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

}  // namespace
