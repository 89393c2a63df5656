// jcxxactorapi_test.cpp - the registry, what every exported call and every member behind
// it answers to what is not a handle, what errno says, and socks in a CZMQ event loop.
#include "jcxxactorapi.h"

#include <czmq.h>
#include <dlfcn.h>

#include <cerrno>
#include <thread>

#include "calls.h"
#include "jcxxactor.h"
#include "jcxxframe.h"
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

// Handles and the registry

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
    const std::size_t errors = LogLines().size();
    std::thread([&] { (api.*member)(p); }).join();
    EXPECT_EQ(LogLines().size(), errors);
    EXPECT_EQ((api.*valid)(p), member == add);
    (api.*member)(p);
    EXPECT_EQ((api.*valid)(p), member == add);
    EXPECT_TRUE(LogLines().back().function.starts_with(name + "Ptr"));
  }
  EXPECT_EQ(Log(kAll), "NULL " + name + " pointer passed to interface; NULL " + name +
                           " pointer passed to add; " + name + " pointer already exists; NULL " +
                           name + " pointer passed to remove; " + name + " pointer does not exist");
  { Object first, second; }  // take them again
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

// errno

constexpr int kBefore = 4711;

class ErrnoTest : public PairTest {
 protected:
  ErrnoTest() { EXPECT_EQ(j_msg_addstr(&msg, "text"), 0); }

  // Sends a message that stays.
  void Send() {
    JCXXMsg* handle = &msg;
    EXPECT_EQ(j_msg_send(&handle, a.get()), -1);
  }

  JCXXMsg msg;
};

void ReadyAtOnce(j_sock_t* sock, void*) { j_sock_signal(sock, 0); }

// The calls on messages and frames are in the table of calls.h, which says so.
TEST_F(ErrnoTest, ACallThatSucceedsLeavesItAsItWas) {
  const RunDirectory run;
  const auto expect_unchanged = [](const char* what) {
    EXPECT_EQ(errno, kBefore) << what;
    errno = kBefore;
  };
  JCXXMsg* sent = j_msg_new();
  EXPECT_EQ(j_msg_addstr(sent, "a"), 0);
  errno = kBefore;
  {
    const Script script({Call::kWritev, Call::kReadv}, {Cut(1), Fail(EINTR), Pass(), Fail(EINTR)});
    j_msg_send(&sent, a.get());
    expect_unchanged("an interrupted send");
    sent = j_msg_recv(b.get());
    expect_unchanged("an interrupted receive");
  }
  j_msg_destroy(&sent);
  j_msg_destroy(&sent);
  expect_unchanged("destroy, also of nothing");
  EXPECT_EQ(j_sock_wait(b.get(), 0), 0);
  expect_unchanged("a wait in vain");
  JCXXSock* sock = j_pipe_new_pull("ipc://x");
  j_sock_destroy(&sock);
  expect_unchanged("an endpoint");
  JCXXActor* actor = j_actor_new(ReadyAtOnce, nullptr);
  j_actor_destroy(&actor);
  expect_unchanged("an actor");
}

TEST_F(ErrnoTest, ACallThatFailsSaysWhyInALine) {
  const auto add = [&] { EXPECT_EQ(j_msg_addstr(&msg, "x"), -1); };
  const auto signal = [&] { EXPECT_EQ(j_sock_signal(a.get(), 1), -1); };
  const auto receive = [&] { EXPECT_EQ(j_msg_recv(b.get()), nullptr); };
  const auto start = [] { EXPECT_EQ(j_actor_new(ReadyAtOnce, nullptr), nullptr); };
  Feed("\1x");
  const std::tuple<int, Call, std::function<void()>, int, const char*> kFailures[] = {
      {EIO, Call::kReadv, receive, 2, "read error, errno=5; irv=-1"},
      {ENOMEM, Call::kNew, receive, 1, "std::bad_alloc"},
      {ENOMEM, Call::kNew, add, 2, "std::bad_alloc"},
      {EPIPE, Call::kWrite, signal, 2, "WriteBlocking failed"},
      {EMFILE, Call::kPipe, start, 2, "std::bad_alloc"},
      {EAGAIN, Call::kPthreadCreate, start, 2, "Resource temporarily unavailable"},
  };
  for (const auto& [error, failing, call, level, log] : kFailures) {
    SCOPED_TRACE(error);
    ClearLog();
    {
      const Script script({failing}, {}, Fail(error));
      errno = kBefore;
      call();
      EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(Log(), log);
    EXPECT_EQ(LogLines().front().level, level);
  }
}

TEST_F(ErrnoTest, AMessageSentInPartIsEioWhateverFollows) {
  const Script cut(Call::kWritev, {Cut(1)});
  const Script memory({Call::kNew}, {Pass()}, Fail(ENOMEM));  // the cut needs one
  Send();
  EXPECT_EQ(errno, EIO);
  Drain();
}

// The log is the program's, and may call the library.
TEST_F(ErrnoTest, ACallInsideTheCallsKeepsTheReasonApart) {
  const Script script(Call::kWritev,
                      {{[] { EXPECT_EQ(j_msg_recv(nullptr), nullptr); }, -1, EPIPE}});
  Send();
  EXPECT_EQ(errno, EPIPE);
}

// The event loop

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
