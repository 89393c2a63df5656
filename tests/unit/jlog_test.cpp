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
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "jactor.h"
#include "jcxxactorapi.h"
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
  std::vector<std::string> lines;
  Action keep = [&](int level, int module, const std::string& line) {
    lines.push_back(std::to_string(level) + " " + std::to_string(module) + " " + line);
  };
  CatchStandardError();
  jlog_set_sink(RunAction, &keep);
  const std::string longer(60000, 'x');
  jlog_printf(2, 281, "%s.%d\n", "failed", 7);
  jlog_printf(9, 281, "above the threshold\n");
  jlog_printf(1, 5, "two\nlines\n\n");
  jlog_printf(0, 0, "%s", "");
  jlog_printf(2, 281, "%s\n", longer.c_str());
  EXPECT_EQ(lines, (std::vector<std::string>{"2 281 failed.7", "1 5 two\nlines\n", "0 0 ",
                                             "2 281 " + longer}));
  EXPECT_EQ(Packet(), "");
  jlog_set_sink(nullptr, nullptr);
  jlog_printf(2, 281, "back\n");
  EXPECT_EQ(Packet(), "back\n");
  EXPECT_EQ(lines.size(), 4U);
}

TEST_F(JlogTest, WhatASinkLogsItselfGoesToStandardError) {
  int calls = 0;
  Action refused = [&](int, int, const std::string&) {
    ++calls;
    int foreign = 0;
    EXPECT_EQ(j_sock_fd(&foreign), -1);  // libjactor logs this
    jlog_printf(1, 281, "from the sink\n");
  };
  CatchStandardError();
  jlog_set_sink(RunAction, &refused);
  for (int call = 1; call <= 2; ++call) {
    jlog_printf(2, 281, "line\n");
    EXPECT_EQ(calls, call);
    EXPECT_NE(Packet().find("invalid pointer passed to j_sock_fd\n"), std::string::npos);
    EXPECT_EQ(Packet(), "from the sink\n");
  }
}

TEST_F(JlogTest, ASinkMayChangeTheSink) {
  std::string taken;
  Action second = [&](int, int, const std::string& line) { taken += "second " + line; };
  Action first = [&](int, int, const std::string& line) {
    taken += "first " + line + ", ";
    jlog_set_sink(nullptr, nullptr);
    jlog_set_sink(RunAction, &second);
  };
  jlog_set_sink(RunAction, &first);
  jlog_printf(2, 281, "a\n");
  jlog_printf(2, 281, "b\n");
  EXPECT_EQ(taken, "first a, second b");
}

// A sink that makes and ends things, while libjactor logs from calls of every kind. Two
// lines are written with the registry's mutex held, where no other thread must be
// waited for.
TEST_F(JlogTest, ASinkCallsLibjactorWhileLibjactorLogs) {
  std::atomic<int> lines = 0;
  Action work = [&](int level, int, const std::string& line) {
    ++lines;
    JCXXMsg* msg = j_msg_new();
    EXPECT_EQ(j_msg_addstr(msg, "text"), 0);
    j_msg_destroy(&msg);
    if (level < 9 && line.find("JCXXMsgPtr") == std::string::npos) {
      const auto ready_at_once = [](j_sock_t* sock, void*) { j_sock_signal(sock, 0); };
      JCXXActor* actor = j_actor_new(ready_at_once, nullptr);
      EXPECT_NE(actor, nullptr);
      j_actor_destroy(&actor);
    }
  };
  jlog_set_level(9);
  jlog_set_sink(RunAction, &work);
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  JCXXMsg* msg = messages::BuildEqual(100, 5);
  api->JCXXMsgPtrAdd(msg);  // is there already
  api->JCXXMsgPtrRemove(msg);
  api->JCXXMsgPtrRemove(msg);  // is there no more
  api->JCXXMsgPtrAdd(msg);
  JCXXActor* actor = j_actor_new(
      [](j_sock_t* sock, void*) {
        j_sock_signal(sock, 0);
        JCXXMsg* received = j_msg_recv(sock);  // logs before it has entered the registry
        EXPECT_TRUE(messages::TakeApartEqual(received, 100, 5));
        EXPECT_EQ(j_msg_recv(sock), nullptr);  // logs on the actor's thread
      },
      nullptr);
  EXPECT_EQ(j_msg_send(&msg, actor), 0);
  j_actor_destroy(&actor);
  jlog_set_sink(nullptr, nullptr);
  EXPECT_GT(lines, 10);
}

// One sink of many: counts its lines, and those that come after it was replaced.
struct Counter {
  std::atomic<int> lines = 0;
  std::atomic<int> late = 0;
  std::atomic<bool> replaced = false;
};

void Count(int /*level*/, int /*module*/, const char* /*line*/, void* arg) {
  auto* counter = static_cast<Counter*>(arg);
  ++(counter->replaced ? counter->late : counter->lines);
}

TEST_F(JlogTest, NoLineIsLostOrLateWhileThreadsLogAndSinksChange) {
  constexpr int kThreads = 4;
  constexpr int kLines = 3000;
  std::list<Counter> counters(1);
  jlog_set_sink(Count, &counters.back());
  std::atomic<int> running = kThreads;
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < kLines; ++line) {
        jlog_printf(2, 281, "line\n");
      }
      --running;
    });
  }
  while (running > 0) {
    Counter& former = counters.back();
    jlog_set_sink(Count, &counters.emplace_back());
    former.replaced = true;
  }
  threads.clear();
  int lines = 0;
  for (const Counter& counter : counters) {
    lines += counter.lines;
    EXPECT_EQ(counter.late, 0);
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

// A thread that is inside a sink until it is released; other lines pass the sink.
class ThreadInASink {
 public:
  ThreadInASink() {
    jlog_set_sink(RunAction, &wait_);
    thread_ = std::thread([] { jlog_printf(2, 281, "line\n"); });
    entered_.get_future().wait();
  }
  ~ThreadInASink() { thread_.join(); }
  void Release() { release_.set_value(); }
  bool left() const { return left_; }

 private:
  std::atomic<bool> taken_ = false;
  std::atomic<bool> left_ = false;
  std::promise<void> entered_;
  std::promise<void> release_;
  Action wait_ = [this](int, int, const std::string&) {
    if (!taken_.exchange(true)) {
      entered_.set_value();
      release_.get_future().wait();
      left_ = true;
    }
  };
  std::thread thread_;
};

TEST_F(JlogTest, AChangeWaitsForTheFormerSinkAndHoldsNobodyElseUp) {
  ThreadInASink former;
  Counter next;
  auto left_before_return = std::async(std::launch::async, [&] {
    jlog_set_sink(Count, &next);
    return former.left();
  });
  while (next.lines == 0) {  // until the change has begun
    jlog_printf(2, 281, "line\n");
  }
  former.Release();
  EXPECT_TRUE(left_before_return.get());
}

TEST_F(JlogTest, AChildWaitsForNoThreadOfItsParent) {
  ThreadInASink former;
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Counter counter;
    jlog_set_sink(Count, &counter);
    jlog_printf(2, 281, "line\n");
    jlog_set_sink(nullptr, nullptr);
    ::_exit(counter.lines == 1 ? 0 : 1);
  }
  former.Release();
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
