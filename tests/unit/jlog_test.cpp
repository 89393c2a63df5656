// jlog_test.cpp - the stand-in for the platform's log library: thresholds, one
// write for each line, and the program's own sink.
#include "jlog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "jactor.h"
#include "jcxxactorapi.h"
#include "jcxxsock.h"
#include "messages.h"

namespace {

class JlogTest : public testing::Test {
 protected:
  JlogTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_), 0); }

  ~JlogTest() override {
    jlog_set_sink(nullptr, nullptr);
    jlog_set_level(2);
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  // From now on standard error is packets: what each write wrote. GoogleTest reports
  // on standard output.
  void CatchStandardError() { ASSERT_EQ(::dup2(ends_[0], STDERR_FILENO), STDERR_FILENO); }

  std::string Packet() {
    std::string bytes(100000, '\0');
    const ssize_t size = ::recv(ends_[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
    return bytes.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size));
  }

 private:
  int ends_[2];
};

// A sink that does what the test wants and keeps nothing itself.
using Action = std::function<void(int level, int module, const std::string& line)>;
void RunAction(int level, int module, const char* line, void* arg) {
  (*static_cast<Action*>(arg))(level, module, line);
}

TEST_F(JlogTest, ALineUpToTheThresholdIsOneWriteAtAnyLength) {
  CatchStandardError();
  for (const int threshold : {2, 9, 0}) {
    jlog_set_level(threshold);
    for (const int level : {1, 2, 9}) {
      for (const std::size_t length : {1U, 1022U, 1023U, 1024U, 1025U, 60000U}) {
        const std::string text(length, 'x');
        jlog_printf(level, 281, "%s\n", text.c_str());
        EXPECT_EQ(Packet(), level <= threshold ? text + "\n" : "");
        EXPECT_EQ(Packet(), "");
      }
    }
  }
}

TEST_F(JlogTest, ASinkTakesEachLineWithoutItsNewlineUntilItIsTakenBack) {
  std::string taken;
  Action keep = [&](int level, int module, const std::string& line) {
    taken += std::to_string(level) + " " + std::to_string(module) + " [" + line + "]";
  };
  CatchStandardError();
  jlog_set_sink(RunAction, &keep);
  const std::string longer(60000, 'x');
  jlog_printf(2, 281, "%s.%d\n", "failed", 7);
  jlog_printf(9, 281, "above the threshold\n");
  jlog_printf(1, 5, "two\nlines\n\n");
  jlog_printf(0, 0, "%s", "");
  jlog_printf(2, 281, "%s\n", longer.c_str());
  EXPECT_EQ(Packet(), "");
  jlog_set_sink(nullptr, nullptr);
  jlog_printf(2, 281, "back\n");
  EXPECT_EQ(Packet(), "back\n");
  EXPECT_EQ(taken, "2 281 [failed.7]1 5 [two\nlines\n]0 0 []2 281 [" + longer + "]");
}

TEST_F(JlogTest, ASinkMayLogToStandardErrorAndChangeTheSink) {
  std::string taken;
  Action second = [&](int, int, const std::string& line) { taken += "second " + line; };
  Action first = [&](int, int, const std::string& line) {
    taken += "first " + line + ", ";
    jlog_printf(1, 281, "from the first\n");
    jlog_set_sink(RunAction, &second);
  };
  CatchStandardError();
  jlog_set_sink(RunAction, &first);
  jlog_printf(2, 281, "a\n");
  jlog_printf(2, 281, "b\n");
  EXPECT_EQ(taken, "first a, second b");
  EXPECT_EQ(Packet(), "from the first\n");
}

// Every line of these calls has the sink make and end a message. Two of them are written
// with the registry's mutex held.
TEST_F(JlogTest, ASinkCallsLibjactorWhileLibjactorLogs) {
  int lines = 0;
  Action work = [&](int, int, const std::string&) {
    ++lines;
    EXPECT_TRUE(messages::TakeApartEqual(messages::BuildEqual(1, 4), 1, 4));
  };
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  SockFromPipes sock(ends[0], ends[1]);
  jlog_set_level(9);
  jlog_set_sink(RunAction, &work);
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg* msg = messages::BuildEqual(100, 5);
  api->JCXXMsgPtrAdd(msg);  // is there already
  api->JCXXMsgPtrRemove(msg);
  api->JCXXMsgPtrRemove(msg);  // is there no more
  api->JCXXMsgPtrAdd(msg);
  EXPECT_EQ(j_msg_send(&msg, &sock), 0);
  msg = j_msg_recv(&sock);  // logs before it has entered the registry
  EXPECT_TRUE(messages::TakeApartEqual(msg, 100, 5));
  EXPECT_GT(lines, 10);
}

// A sink that counts the lines.
void Count(int /*level*/, int /*module*/, const char* /*line*/, void* lines) {
  ++*static_cast<std::atomic<int>*>(lines);
}

TEST_F(JlogTest, NoLineIsLostWhileThreadsLogAndSinksChange) {
  constexpr int kThreads = 4;
  constexpr int kLines = 3000;
  std::atomic<int> lines[2] = {};
  std::atomic<int> running = kThreads;
  jlog_set_sink(Count, &lines[0]);
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < kLines; ++line) {
        jlog_printf(2, 281, "line\n");
      }
      --running;
    });
  }
  for (std::size_t change = 1; running > 0; ++change) {
    jlog_set_sink(Count, &lines[change % 2]);
  }
  EXPECT_EQ(lines[0] + lines[1], kThreads * kLines);
}

// A thread that is inside a sink until it is released; other lines pass the sink.
class ThreadInASink {
 public:
  ThreadInASink() {
    jlog_set_sink(RunAction, &wait_);
    thread_ = std::jthread([] { jlog_printf(2, 281, "line\n"); });
    entered_.wait();
  }
  void Release() { release_.count_down(); }
  bool left() const { return left_; }

 private:
  std::atomic<bool> left_ = false;
  std::latch entered_{1};
  std::latch release_{1};
  Action wait_ = [this](int, int, const std::string&) {
    if (!entered_.try_wait()) {
      entered_.count_down();
      release_.wait();
      left_ = true;
    }
  };
  std::jthread thread_;
};

TEST_F(JlogTest, AChangeWaitsForTheFormerSinkAndHoldsNobodyElseUp) {
  ThreadInASink former;
  std::atomic<int> lines = 0;
  auto left_before_return = std::async(std::launch::async, [&] {
    jlog_set_sink(Count, &lines);
    return former.left();
  });
  while (lines == 0) {  // until the change has begun
    jlog_printf(2, 281, "line\n");
  }
  former.Release();
  EXPECT_TRUE(left_before_return.get());
}

TEST_F(JlogTest, AChildWaitsForNoThreadOfItsParent) {
  ThreadInASink former;
  const pid_t child = ::fork();
  if (child == 0) {
    std::atomic<int> lines = 0;
    jlog_set_sink(Count, &lines);
    jlog_printf(2, 281, "line\n");
    jlog_set_sink(nullptr, nullptr);
    ::_exit(lines == 1 ? 0 : 1);
  }
  former.Release();
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
