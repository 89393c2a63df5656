// jcxxactorapi_test.cpp - the registry, and what every exported call and every member
// behind it answers to what is not a handle.
#include "jcxxactorapi.h"

#include <cerrno>
#include <thread>

#include "calls.h"
#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

using ApiTest = PairTest;

// The line of a call, or of a member, about what is not a handle.
std::string RefusalOf(const std::string& call, bool exported, bool null) {
  if (!null) {
    return "invalid pointer passed to " + call;
  }
  return exported ? "" : "NULL pointer passed to " + call + (call == "j_actor_destroy" ? " 2" : "");
}

TEST_F(ApiTest, EveryCallRefusesNullStaleForeignAndWrongHandles) {
  JCXXMsg msg;
  JCXXFrame frame;
  JCXXActor actor;
  JCXXActorAPI own;
  own.JCXXMsgPtrAdd(&msg);
  auto* const dead = new JCXXMsg();
  void* volatile stale = dead;  // volatile: the compiler must not see that it dangles
  delete dead;
  const std::pair<char, void*> kHandles[] = {{'0', nullptr}, {'0', stale},  {'0', &own},
                                             {'m', &msg},    {'f', &frame}, {'s', a.get()},
                                             {'a', &actor}};
  calls::Rest rest = {&msg, a.get(), reinterpret_cast<zloop_t*>(&own), "x", 1};
  JCXXActorAPI* const kExported = nullptr;
  for (JCXXActorAPI* api : {kExported, &own, JCXXActorAPI::GetInstance()}) {
    for (const calls::Call& call : calls::kCalls) {
      for (const auto& [kind, handle] : kHandles) {
        if (calls::Fits(call.takes, kind)) {
          continue;
        }
        const std::string name = call.name;
        const bool nulls = api == kExported && name.ends_with("_destroy");
        SCOPED_TRACE(name + " of " + kind);
        ClearLog();
        errno = 0;
        EXPECT_TRUE(call.fails(api, handle, rest));
        EXPECT_TRUE(errno == EINVAL || api != kExported || (nulls && handle == nullptr));
        EXPECT_EQ(Log(kErrors, name), RefusalOf(name, api == kExported, handle == nullptr));
        EXPECT_EQ(rest.left, nulls ? nullptr : handle);
      }
    }
  }
  EXPECT_EQ(rest.msg, &msg);
}

// The exported calls say nothing of a null handle, the members behind them do.
TEST_F(ApiTest, AMissingArgumentIsRefused) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg msg;
  auto* loop = reinterpret_cast<zloop_t*>(&msg);  // not looked at
  errno = 0;
  EXPECT_EQ(j_pipe_new_pull(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(j_msg_send(nullptr, a.get()), -1);
  EXPECT_EQ(hybrid_zloop_reader(nullptr, a.get(), calls::EndsTheLoop, nullptr), -1);
  hybrid_zloop_reader_end(nullptr, a.get());
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(j_actor_new(nullptr, nullptr), nullptr);
  EXPECT_EQ(j_msg_addstr(&msg, nullptr), -1);
  EXPECT_EQ(j_msg_addmem(&msg, nullptr, 0), -1);
  EXPECT_EQ(hybrid_zloop_reader(loop, a.get(), nullptr, nullptr), -1);
  EXPECT_EQ(api->hybrid_zloop_reader(nullptr, a.get(), calls::EndsTheLoop, nullptr), -1);
  api->hybrid_zloop_reader_end(nullptr, a.get());
  EXPECT_EQ(api->j_msg_send(nullptr, a.get()), -1);
  EXPECT_EQ(api->j_msg_send(nullptr, static_cast<JCXXActor*>(nullptr)), -1);
  api->j_msg_destroy(nullptr);
  api->j_frame_destroy(nullptr);
  api->j_sock_destroy(nullptr);
  api->j_actor_destroy(nullptr);
  EXPECT_EQ(LogLines().size(), 12U);
  for (const LogLine& line : LogLines()) {
    EXPECT_EQ(line.text, "NULL pointer passed to " + line.function);
  }
}

TEST_F(ApiTest, AnActorWithoutASockFailsAsANullSock) {
  JCXXMsg msg;
  JCXXActor actor;
  calls::Rest rest = {&msg, nullptr, nullptr, "", 1};
  for (const calls::Call& call : calls::kCalls) {
    if (call.takes == 'e') {
      ClearLog();
      EXPECT_TRUE(call.fails(nullptr, &actor, rest));
      EXPECT_EQ(Log(), std::string("NULL pointer passed to ") + call.name);
    }
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

// The error lines of copying and of assigning.
template <class Object>
std::string LinesOfCopying() {
  Object source;
  ClearLog();
  Object copy(source);
  Object& itself = copy;
  copy = itself;
  EXPECT_EQ(Log(), "");
  copy = source;
  return Log();
}

TEST_F(ApiTest, ACopyIsAnEmptyObjectOfItsOwn) {
  EXPECT_EQ(LinesOfCopying<JCXXSock>(), "JCXXSock pointer already exists");
  EXPECT_EQ(LinesOfCopying<JCXXActor>(), "JCXXActor pointer already exists");
  EXPECT_EQ(LinesOfCopying<JCXXFrame>(), "JCXXFrame pointer already exists");
  EXPECT_EQ(LinesOfCopying<JCXXMsg>(), "JCXXMsg pointer already exists");
  EXPECT_EQ(LinesOfCopying<SockFromPipes>(), "");
  EXPECT_EQ(LinesOfCopying<SockFromNamedEndpoint>(), "");
  EXPECT_EQ(LinesOfCopying<JActorThreadWrapper>(), "");
}

}  // namespace
