// errno_test.cpp - what errno says after each exported call: why it failed, or what it
// said before.
#include <czmq.h>

#include <cerrno>

#include "jactor.h"
#include "jcxxactor.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

constexpr int kBefore = 4711;

// What errno is after `call`.
int ErrnoAfter(const std::function<void()>& call) {
  errno = kBefore;
  call();
  return errno;
}

struct Row {
  const char* what;
  int error;
  std::function<void()> call;
};

class ErrnoTest : public PairTest {
 protected:
  ErrnoTest() { EXPECT_EQ(j_msg_addstr(&msg, "text"), 0); }

  void Expect(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      EXPECT_EQ(ErrnoAfter(row.call), row.error) << row.what;
    }
  }

  // Sends a message that stays.
  void Send(JCXXMsg* message) { EXPECT_NE(j_msg_send(&message, a.get()), 0); }

  JCXXMsg msg;
  const RunDirectory run;
};

void ReadyAtOnce(j_sock_t* sock, void*) { j_sock_signal(sock, 0); }

TEST_F(ErrnoTest, ACallThatSucceedsLeavesItAsItWas) {
  JCXXMsg* sent = nullptr;
  JCXXMsg* got = nullptr;
  JCXXFrame* frame = nullptr;
  JCXXSock* sock = nullptr;
  JCXXActor* actor = nullptr;
  Expect({
      {"new", kBefore, [&] { sent = j_msg_new(); }},
      {"addstr", kBefore, [&] { j_msg_addstr(sent, "a"); }},
      {"send after an interruption", kBefore,
       [&] {
         const Script script(Call::kWritev, {Cut(1), Fail(EINTR)});
         EXPECT_EQ(j_msg_send(&sent, a.get()), 0);
       }},
      {"a wait that is over", kBefore, [&] { EXPECT_EQ(j_sock_wait(b.get(), 0), 1); }},
      {"receive after an interruption", kBefore,
       [&] {
         const Script script({Call::kRead, Call::kReadv}, {Fail(EINTR)});
         EXPECT_NE(got = j_msg_recv(b.get()), nullptr);
       }},
      {"not a signal", kBefore, [&] { EXPECT_EQ(j_msg_signal(got), -1); }},
      {"pop", kBefore, [&] { frame = j_msg_pop(got); }},
      {"nothing to pop", kBefore, [&] { EXPECT_EQ(j_msg_pop(got), nullptr); }},
      {"frame", kBefore, [&] { j_frame_data(frame), j_frame_size(frame); }},
      {"destroy", kBefore, [&] { j_frame_destroy(&frame), j_msg_destroy(&got); }},
      {"nothing to destroy", kBefore, [&] { j_msg_destroy(&got), j_sock_destroy(nullptr); }},
      {"fd and buffered", kBefore, [&] { j_sock_fd(b.get()), j_sock_buffered(b.get()); }},
      {"a wait in vain", kBefore, [&] { EXPECT_EQ(j_sock_wait(b.get(), 0), 0); }},
      {"a new endpoint", kBefore, [&] { sock = j_pipe_new_pull("ipc://x"); }},
      {"close", kBefore, [&] { j_sock_destroy(&sock); }},
      {"an actor", kBefore, [&] { actor = j_actor_new(ReadyAtOnce, nullptr); }},
      {"its sock", kBefore, [&] { j_actor_sock(actor); }},
      {"its end", kBefore, [&] { j_actor_destroy(&actor); }},
  });
}

// A bad handle is told like that by every call: the test of the registry has them all. An
// end and damage are with the waits.
TEST_F(ErrnoTest, AMissingArgumentIsEinval) {
  Expect({
      {"text", EINVAL, [&] { j_msg_addstr(&msg, nullptr); }},
      {"message", EINVAL, [&] { j_msg_send(nullptr, a.get()); }},
      {"endpoint", EINVAL, [&] { j_pipe_new_pull(nullptr); }},
      {"function", EINVAL, [&] { j_actor_new(nullptr, nullptr); }},
      {"loop", EINVAL, [&] { hybrid_zloop_reader_end(nullptr, a.get()); }},
  });
}

TEST_F(ErrnoTest, AReceiveSaysWhatStoppedIt) {
  const auto receive = [this](std::initializer_list<Call> calls, int error) {
    const Script script(calls, {}, Fail(error), true);
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  };
  Feed("\1x");
  Expect({
      {"a failed read", EIO,
       [&] {
         receive({Call::kRead, Call::kReadv}, EIO);
       }},
      {"no memory", ENOMEM, [&] { receive({Call::kNew}, ENOMEM); }},
  });
}

TEST_F(ErrnoTest, ASendSaysWhatStoppedIt) {
  JCXXMsg large;
  JCXXMsg many;
  for (int i = 0; i < 600; ++i) {
    EXPECT_EQ(j_msg_addstr(&many, "x"), 0);
  }
  const std::string mebibyte(1048576, 'x');
  EXPECT_EQ(j_msg_addmem(&large, mebibyte.data(), mebibyte.size()), 0);
  EXPECT_EQ(j_msg_addstr(&large, "x"), 0);
  const auto failing = [this](Call call, std::vector<Step> steps) {
    return [this, call, steps] {
      const Script script(call, steps);
      Send(&msg);
    };
  };
  Expect({
      {"more than the limit", EMSGSIZE, [&] { Send(&large); }},
      {"a frame above the limit", EMSGSIZE,
       [&] { j_msg_addmem(&msg, mebibyte.data(), mebibyte.size() + 1); }},
      {"too many entries", EMSGSIZE, [&] { Send(&many); }},
      {"EPIPE", EPIPE, failing(Call::kWritev, {Fail(EPIPE)})},
      {"EINTR", EINTR, failing(Call::kWritev, {Fail(EINTR)})},
      {"EAGAIN", EAGAIN, failing(Call::kWritev, {Fail(EAGAIN)})},
      {"half of it", EIO, failing(Call::kWritev, {Cut(1), Fail(EPIPE)})},
      {"half of it, then no memory", EIO,
       [&] {
         const Script cut(Call::kWritev, {Cut(1)});
         const Script memory({Call::kNew}, {Pass()}, Fail(ENOMEM), true);  // the cut needs one
         Send(&msg);
       }},
      {"a signal", EPIPE,
       [&] {
         const Script script(Call::kWrite, {Fail(EPIPE)});
         j_sock_signal(a.get(), 1);
       }},
  });
  Drain();
}

TEST_F(ErrnoTest, AnEndpointOrAnActorSaysWhatTheSystemRefused) {
  const auto open = [](const char* name) { return [name] { j_pipe_new_push(name); }; };
  const auto failing = [](Call call, int error, std::function<void()> then) {
    return [=] {
      const Script script(call, {Fail(error)});
      then();
    };
  };
  const auto start = [] { j_actor_new(ReadyAtOnce, nullptr); };
  const std::string long_name = "ipc://" + std::string(300, 'x');
  Expect({
      {"not a name", EINVAL, open("ipc:/x")},
      {"two names", EINVAL, open("ipc://a,ipc://b")},
      {"another transport", EPROTONOSUPPORT, open("tcp://x")},
      {"no right to the directory", EACCES, failing(Call::kMkdir, EACCES, open("ipc://x"))},
      {"another was faster", EEXIST, failing(Call::kMkfifo, EEXIST, open("ipc://x"))},
      {"no room", ENOSPC, failing(Call::kMkfifo, ENOSPC, open("ipc://x"))},
      {"another user's", EPERM, failing(Call::kOpen, EPERM, open("ipc://x"))},
      {"no descriptor", EMFILE, failing(Call::kOpen, EMFILE, open("ipc://x"))},
      {"a long name", ENAMETOOLONG, open(long_name.c_str())},
      {"no status", EACCES, failing(Call::kStat, EACCES, open("ipc://x"))},
      {"no pipe", EMFILE, failing(Call::kPipe, EMFILE, start)},
      {"no thread", EAGAIN, failing(Call::kPthreadCreate, EAGAIN, start)},
  });
}

TEST_F(ErrnoTest, ASockWithoutADescriptorAndAMessageThatTakesNothing) {
  JCXXSock plain;
  JCXXMsg signal(7);
  auto* loop = reinterpret_cast<zloop_t*>(this);  // not looked at
  const auto handler = [](zloop_t*, j_sock_t*, void*) { return 0; };
  Expect({
      {"fd", EBADF, [&] { EXPECT_EQ(j_sock_fd(&plain), -1); }},
      {"wait", EBADF, [&] { EXPECT_EQ(j_sock_wait(&plain, 0), -1); }},
      {"loop", EBADF, [&] { EXPECT_EQ(hybrid_zloop_reader(loop, &plain, handler, nullptr), -1); }},
      {"the loop's end", EBADF, [&] { hybrid_zloop_reader_end(loop, &plain); }},
      {"receive", EBADF, [&] { EXPECT_EQ(j_msg_recv(&plain), nullptr); }},
      {"send", EBADF, [&] { EXPECT_EQ(j_sock_signal(&plain, 1), -1); }},
      {"a signal takes no frame", EINVAL, [&] { EXPECT_EQ(j_msg_addstr(&signal, "x"), -1); }},
      {"no memory for a frame", ENOMEM,
       [&] {
         const Script script({Call::kNew}, {}, Fail(ENOMEM), true);
         EXPECT_EQ(j_msg_addstr(&msg, "x"), -1);
       }},
  });
}

// The log is the program's, and may call the library.
TEST_F(ErrnoTest, ACallInsideTheCallsKeepsTheReasonApart) {
  Script script(Call::kWritev, {{[&] { EXPECT_EQ(j_msg_recv(nullptr), nullptr); }, -1, EPIPE}});
  EXPECT_EQ(ErrnoAfter([&] { Send(&msg); }), EPIPE);
}

}  // namespace
