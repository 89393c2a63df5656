// jcxxactorapi_test.cpp - the registry, and what every exported call answers to
// handles that are none.
#include "jcxxactorapi.h"

#include <functional>

#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

class ApiTest : public support::Test {};

int Handle(zloop_t*, j_sock_t*, void*) { return 0; }

template <class To>
To* As(void* handle) {
  return static_cast<To*>(handle);
}

// Destroys through a variable of its own, which must be null afterwards.
template <class To>
bool Destroys(void (*destroy)(To**), void* handle) {
  To* p = As<To>(handle);
  destroy(nullptr);
  destroy(&p);
  return p == nullptr;
}

// Every call that takes a handle: whether it failed as it should for a bad one,
// and which kind of object it would take.
struct CallOn {
  const char* name;
  char takes;  // m, f, s, a, or e for a sock or an actor
  bool (*fails)(void* handle);
};
JCXXMsg* live_msg = nullptr;
JCXXSock* live_sock = nullptr;
zloop_t* const kLoop = reinterpret_cast<zloop_t*>(&live_msg);  // never looked at
const CallOn kCalls[] = {
    {"j_msg_destroy", 'm', [](void* p) { return Destroys(j_msg_destroy, p); }},
    {"j_msg_addstr", 'm', [](void* p) { return j_msg_addstr(As<JCXXMsg>(p), "x") == -1; }},
    {"j_msg_addmem", 'm', [](void* p) { return j_msg_addmem(As<JCXXMsg>(p), "x", 1) == -1; }},
    {"j_msg_pop", 'm', [](void* p) { return j_msg_pop(As<JCXXMsg>(p)) == nullptr; }},
    {"j_msg_popstr", 'm', [](void* p) { return j_msg_popstr(As<JCXXMsg>(p)) == nullptr; }},
    {"j_msg_signal", 'm', [](void* p) { return j_msg_signal(As<JCXXMsg>(p)) == -1; }},
    {"j_msg_send", 'm',
     [](void* p) {
       auto* msg = As<JCXXMsg>(p);
       return j_msg_send(nullptr, live_sock) == -1 && j_msg_send(&msg, live_sock) == -1 && msg == p;
     }},
    {"j_frame_destroy", 'f', [](void* p) { return Destroys(j_frame_destroy, p); }},
    {"j_frame_data", 'f', [](void* p) { return j_frame_data(As<JCXXFrame>(p)) == nullptr; }},
    {"j_frame_size", 'f', [](void* p) { return j_frame_size(As<JCXXFrame>(p)) == 0; }},
    {"j_sock_destroy", 's', [](void* p) { return Destroys(j_sock_destroy, p); }},
    {"hybrid_zloop_reader", 's',
     [](void* p) { return hybrid_zloop_reader(kLoop, As<JCXXSock>(p), Handle, nullptr) == -1; }},
    {"hybrid_zloop_reader_end", 's',
     [](void* p) { return hybrid_zloop_reader_end(kLoop, As<JCXXSock>(p)), true; }},
    {"j_actor_destroy", 'a', [](void* p) { return Destroys(j_actor_destroy, p); }},
    {"j_actor_sock", 'a', [](void* p) { return j_actor_sock(As<JCXXActor>(p)) == nullptr; }},
    {"j_msg_send", 'e', [](void* p) { return j_msg_send(&live_msg, p) == -1 && live_msg; }},
    {"j_msg_recv", 'e', [](void* p) { return j_msg_recv(p) == nullptr; }},
    {"j_sock_signal", 'e', [](void* p) { return j_sock_signal(p, 1) == -1; }},
    {"j_sock_fd", 'e', [](void* p) { return j_sock_fd(p) == -1; }},
    {"j_sock_buffered", 'e', [](void* p) { return j_sock_buffered(p) == 0; }},
};

TEST_F(ApiTest, EveryCallRefusesNullStaleForeignAndWrongHandles) {
  JCXXMsg msg;
  JCXXFrame frame;
  SockFromPipes sock;
  JCXXActor actor;
  live_msg = &msg;
  live_sock = &sock;
  auto* const dead = new JCXXMsg();
  void* volatile stale = dead;  // volatile: the compiler must not see that it dangles
  delete dead;
  const std::unique_ptr<char[]> foreign(new char[1]);
  const std::pair<char, void*> kHandles[] = {{'0', stale},  {'0', foreign.get()}, {'m', &msg},
                                             {'f', &frame}, {'s', &sock},         {'a', &actor}};
  for (const CallOn& call : kCalls) {
    ClearLog();
    EXPECT_TRUE(call.fails(nullptr)) << call.name;
    EXPECT_EQ(Log(kAll), "") << call.name;
    for (const auto& [kind, handle] : kHandles) {
      const bool fits = call.takes == kind || (call.takes == 'e' && (kind == 's' || kind == 'a'));
      if (!fits) {
        ClearLog();
        EXPECT_TRUE(call.fails(handle)) << call.name << " of " << kind;
        EXPECT_EQ(Log(), std::string("invalid pointer passed to ") + call.name);
        EXPECT_EQ(LogLines().back().function, call.name);
      }
    }
  }
}

// The sweep of the members counts the lines of the others.
TEST_F(ApiTest, TheMembersTellANullArgument) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg msg;
  JCXXMsg* none = nullptr;
  JCXXMsg* some = &msg;
  JCXXActor* no_actor = nullptr;
  const std::pair<const char*, std::function<bool()>> kNulls[] = {
      {"j_msg_addstr",
       [&] { return j_msg_addstr(reinterpret_cast<JCXXMsg*>(&some), nullptr) == -1; }},
      {"j_msg_addmem", [&] { return j_msg_addmem(some, nullptr, 0) == -1; }},
      {"j_msg_pop", [&] { return api->j_msg_pop(none) == nullptr; }},
      {"j_actor_destroy", [&] { return api->j_actor_destroy(nullptr), true; }},
      {"j_actor_destroy 2", [&] { return api->j_actor_destroy(&no_actor), true; }},
      {"j_msg_send", [&] { return api->j_msg_send(&some, no_actor) == -1; }},
  };
  for (const auto& [name, fails] : kNulls) {
    ClearLog();
    EXPECT_TRUE(fails()) << name;
    EXPECT_EQ(Log(), std::string("NULL pointer passed to ") + name);
  }
}

TEST_F(ApiTest, TheRegistryHoldsAnAddressOnce) {
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  auto* p = reinterpret_cast<JCXXMsg*>(&live_msg);  // an address is enough
  EXPECT_FALSE(api->JCXXMsgPtrIsValid(nullptr));
  api->JCXXMsgPtrAdd(nullptr);
  api->JCXXMsgPtrAdd(p);
  api->JCXXMsgPtrAdd(p);
  EXPECT_TRUE(api->JCXXMsgPtrIsValid(p));
  api->JCXXMsgPtrRemove(p);
  api->JCXXMsgPtrRemove(p);
  api->JCXXMsgPtrRemove(nullptr);
  EXPECT_EQ(Log(kAll),
            "NULL JCXXMsg pointer passed to interface; NULL JCXXMsg pointer passed to add; JCXXMsg "
            "pointer already exists; JCXXMsg pointer does not exist; NULL JCXXMsg pointer passed "
            "to remove");
  EXPECT_EQ(LogLines().back().function, "JCXXMsgPtrRemove");
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
  auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
  const std::unique_ptr<JCXXSock> a(first);
  const std::unique_ptr<JCXXSock> b(second);
  EXPECT_EQ(j_sock_signal(a.get(), 1), 0);
  ClearLog();
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
