// errno_test.cpp - what errno says after an exported call: why it failed, or what it
// said before. The reasons that belong to a table of another test stand there.
#include <cerrno>

#include "jactor.h"
#include "jcxxactor.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

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

}  // namespace
