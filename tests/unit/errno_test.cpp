// errno_test.cpp - what errno says after each exported call: why it failed, or what it
// said before.
#include <czmq.h>
#include <fcntl.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

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

  // What a receive says about these bytes.
  void Receive(const std::string& bytes) {
    Feed(bytes);
    errno = kBefore;
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
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

TEST_F(ErrnoTest, ABadHandleOrArgumentIsEinval) {
  JCXXMsg* message = &msg;
  auto* foreign = reinterpret_cast<JCXXSock*>(&msg);
  JCXXSock* bad = foreign;
  JCXXFrame* no_frame = reinterpret_cast<JCXXFrame*>(&msg);
  auto* loop = reinterpret_cast<zloop_t*>(this);
  Expect({
      {"addstr to null", EINVAL, [&] { j_msg_addstr(nullptr, "x"); }},
      {"addstr of null", EINVAL, [&] { j_msg_addstr(&msg, nullptr); }},
      {"send of null", EINVAL, [&] { j_msg_send(nullptr, a.get()); }},
      {"send to a message", EINVAL, [&] { j_msg_send(&message, foreign); }},
      {"receive from a message", EINVAL, [&] { j_msg_recv(foreign); }},
      {"signal to null", EINVAL, [&] { j_sock_signal(nullptr, 1); }},
      {"fd of a message", EINVAL, [&] { j_sock_fd(foreign); }},
      {"buffered of null", EINVAL, [&] { j_sock_buffered(nullptr); }},
      {"wait for a message", EINVAL, [&] { EXPECT_EQ(j_sock_wait(foreign, 0), -1); }},
      {"destroy a message as a sock", EINVAL, [&] { j_sock_destroy(&bad); }},
      {"data of a message", EINVAL, [&] { j_frame_data(no_frame); }},
      {"no endpoint", EINVAL, [&] { j_pipe_new_pull(nullptr); }},
      {"no function", EINVAL, [&] { j_actor_new(nullptr, nullptr); }},
      {"no loop", EINVAL, [&] { hybrid_zloop_reader_end(nullptr, a.get()); }},
      {"a loop without a sock", EINVAL,
       [&] { EXPECT_EQ(hybrid_zloop_reader(loop, foreign, nullptr, nullptr), -1); }},
  });
}

TEST_F(ErrnoTest, AReceiveTellsTheEndFromDamage) {
  JCXXSock plain;
  Expect({
      {"a signal inside a message", EBADMSG, [&] { Receive("\x45\x81"); }},
      {"too much data", EBADMSG, [&] { Receive("\x41\x02xx"); }},
      {"a size above the limit", EBADMSG,
       [&] {
         Receive({"\x30\0\x10\0\1", 5});
       }},
      {"a failed read", EIO,
       [&] {
         const Script script({Call::kRead, Call::kReadv}, {Fail(EIO)});
         Receive("");
       }},
      {"no memory", ENOMEM,
       [&] {
         const Script script({Call::kNew}, {}, Fail(ENOMEM), true);
         Receive("\1x");
       }},
      {"no descriptor", EBADF, [&] { j_msg_recv(&plain); }},
  });
  Drain();
  Feed("\x45\2xx");
  a.reset();
  EXPECT_EQ(ErrnoAfter([&] { j_msg_recv(b.get()); }), EBADMSG) << "an end inside a message";
  EXPECT_EQ(ErrnoAfter([&] { j_msg_recv(b.get()); }), 0) << "an end";
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
