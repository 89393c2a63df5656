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

TEST_F(ErrnoTest, ACallThatSucceedsLeavesItAsItWas) {
  const RunDirectory run;
  const auto expect_unchanged = [](const char* what) {
    EXPECT_EQ(errno, kBefore) << what;
    errno = kBefore;
  };
  JCXXMsg* got = nullptr;
  errno = kBefore;
  JCXXMsg* sent = j_msg_new();
  j_msg_addstr(sent, "a");
  expect_unchanged("new and addstr");
  {
    const Script script({Call::kWritev, Call::kReadv}, {Cut(1), Fail(EINTR), Pass(), Fail(EINTR)});
    j_msg_send(&sent, a.get());
    expect_unchanged("an interrupted send");
    got = j_msg_recv(b.get());
    expect_unchanged("an interrupted receive");
  }
  EXPECT_EQ(j_msg_signal(got), -1);
  JCXXFrame* frame = j_msg_pop(got);
  EXPECT_EQ(j_msg_pop(got), nullptr);
  expect_unchanged("what a message has not");
  j_frame_destroy(&frame);
  j_msg_destroy(&got);
  j_msg_destroy(&got);
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

TEST_F(ErrnoTest, ACallThatFailsSaysWhy) {
  const auto add = [&] { EXPECT_EQ(j_msg_addstr(&msg, "x"), -1); };
  const auto signal = [&] { EXPECT_EQ(j_sock_signal(a.get(), 1), -1); };
  const auto receive = [&] { EXPECT_EQ(j_msg_recv(b.get()), nullptr); };
  const auto start = [] { EXPECT_EQ(j_actor_new(ReadyAtOnce, nullptr), nullptr); };
  const auto open = [] { EXPECT_EQ(j_pipe_new_pull("ipc://x"), nullptr); };
  Feed("\1x");
  const struct {
    const char* what;
    int error;
    Call fails;
    std::function<void()> call;
  } kFailures[] = {
      {"a failed read", EIO, Call::kReadv, receive},
      {"no memory for a message", ENOMEM, Call::kNew, receive},
      {"no memory for a frame", ENOMEM, Call::kNew, add},
      {"a signal to nobody", EPIPE, Call::kWrite, signal},
      {"no pipe", EMFILE, Call::kPipe, start},
      {"no thread", EAGAIN, Call::kPthreadCreate, start},
      {"no status", EACCES, Call::kStat, open},
  };
  for (const auto& failure : kFailures) {
    const Script script({failure.fails}, {}, Fail(failure.error), true);
    errno = kBefore;
    failure.call();
    EXPECT_EQ(errno, failure.error) << failure.what;
  }
}

TEST_F(ErrnoTest, HalfAMessageThatIsSentIsEioWhateverFollows) {
  const Script cut(Call::kWritev, {Cut(1)});
  const Script memory({Call::kNew}, {Pass()}, Fail(ENOMEM), true);  // the cut needs one
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
