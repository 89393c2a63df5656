// process_storm_test.cpp - processes that share endpoints and die at bad moments, and
// a stream that wants all memory.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "jlog.h"

namespace {
std::atomic<int> error_lines{0};
}
extern "C" void jlog_printf(int level, int, const char*, ...) { error_lines += level <= 2 ? 1 : 0; }

namespace {

// Runs `body` in a child process, which its result ends.
template <class Body>
pid_t Child(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(body());
  }
  return pid;
}

// How a child has ended: its exit code, or minus its signal.
int Outcome(pid_t pid) {
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class ProcessStorm : public ::testing::Test {
 protected:
  ~ProcessStorm() override { ::unlink(fifo_.c_str()); }

  // Both ends in this process carry a message.
  void ExpectRecovered() {
    JCXXSock* pull = j_pipe_new_pull(name_.c_str());
    JCXXSock* push = j_pipe_new_push(name_.c_str());
    JCXXMsg* msg = j_msg_new();
    j_msg_addstr(msg, "recovered");
    EXPECT_EQ(j_msg_send(&msg, push), 0);
    msg = j_msg_recv(pull);
    char* text = j_msg_popstr(msg);
    EXPECT_STREQ(text, "recovered");
    std::free(text);
    j_msg_destroy(&msg);
    j_sock_destroy(&pull);
    j_sock_destroy(&push);
  }

  const std::string name_ = "ipc://storm-" + std::to_string(::getpid());
  const std::string fifo_ = "/var/run/jactor/Jipc_storm-" + std::to_string(::getpid());
};

std::size_t Waiting(JCXXSock* sock) {
  std::size_t waiting = 0;
  sock->AvailableToRead(waiting);
  return waiting;
}

// The survivor reads the next message for the rest of the dead one's.
TEST_F(ProcessStorm, APusherKilledInsideALargeMessage) {
  JCXXSock* pull = j_pipe_new_pull(name_.c_str());
  const pid_t pusher = Child([&] {
    JCXXSock* push = j_pipe_new_push(name_.c_str());
    JCXXMsg* msg = j_msg_new();
    j_msg_addmem(msg, std::string(1048576, 'k').data(), 1048576);
    return j_msg_send(&msg, push);
  });
  while (Waiting(pull) < 65536) {  // it stands in its write
    std::this_thread::yield();
  }
  ::kill(pusher, SIGKILL);
  EXPECT_EQ(Outcome(pusher), -SIGKILL);
  const std::size_t begun = Waiting(pull);
  const pid_t next = Child([&] {
    JCXXSock* push = j_pipe_new_push(name_.c_str());
    JCXXMsg* msg = j_msg_new();
    j_msg_addmem(msg, std::string(1048576, 'n').data(), 1048576);
    return j_msg_send(&msg, push);
  });
  JCXXMsg* msg = j_msg_recv(pull);
  ASSERT_NE(msg, nullptr);
  const auto* bytes = msg->GetFrameList().front()->GetData();
  EXPECT_EQ(static_cast<std::size_t>(std::count(bytes, bytes + 1048576, 'k')), begun - 5);
  j_msg_destroy(&msg);
  ::kill(next, SIGKILL);
  Outcome(next);
  j_sock_destroy(&pull);
  ExpectRecovered();
}

// The pushers notice nothing, and what the dead one had not read is there; closing
// all ends gives a clean endpoint again.
TEST_F(ProcessStorm, APullerKilledInsideAStream) {
  JCXXSock* push = j_pipe_new_push(name_.c_str());
  const auto send = [&] {
    JCXXMsg* msg = j_msg_new();
    j_msg_addmem(msg, std::string(1000, 'm').data(), 1000);
    EXPECT_EQ(j_msg_send(&msg, push), 0);
  };
  for (int i = 0; i < 50; ++i) {
    send();
  }
  const pid_t puller = Child([&] {
    JCXXSock* pull = j_pipe_new_pull(name_.c_str());
    JCXXMsg* msg = j_msg_recv(pull);
    j_msg_destroy(&msg);
    return ::raise(SIGKILL);
  });
  EXPECT_EQ(Outcome(puller), -SIGKILL);
  const std::size_t left = Waiting(push);
  EXPECT_GE(left, 50 * 1002 - 1 - 16384U);  // the read-ahead went with it
  EXPECT_LT(left, 49 * 1002U);
  send();
#ifdef JPIPE  // empties the FIFO while the pusher keeps it open
  EXPECT_EQ(std::system((JPIPE " drain " + name_ + " >/dev/null").c_str()), 0);
  EXPECT_EQ(Waiting(push), 0U);
  send();
  JCXXSock* pull = j_pipe_new_pull(name_.c_str());
  JCXXMsg* msg = j_msg_recv(pull);
  EXPECT_EQ(msg->GetSize(), 1000U);
  j_msg_destroy(&msg);
  j_sock_destroy(&pull);
#endif
  j_sock_destroy(&push);
  ExpectRecovered();
}

std::uint32_t Sum(const std::vector<std::uint32_t>& words) {
  std::uint32_t sum = 0;
  for (std::size_t i = 1; i < words.size(); ++i) {
    sum = sum * 31 + words[i];
  }
  return sum;
}

// A million messages with JACTOR_STORM_MESSAGES=1000000.
TEST_F(ProcessStorm, FourPushersLoseMixAndRepeatNothing) {
  constexpr unsigned kPushers = 4;
  const char* asked = std::getenv("JACTOR_STORM_MESSAGES");
  const unsigned each =
      static_cast<unsigned>(asked != nullptr ? std::atol(asked) : 20000) / kPushers;
  JCXXSock* pull = j_pipe_new_pull(name_.c_str());
  std::vector<pid_t> pushers;
  for (unsigned id = 0; id < kPushers; ++id) {
    pushers.push_back(Child([&, id] {
      std::mt19937 random(id);
      JCXXSock* push = j_pipe_new_push(name_.c_str());
      for (unsigned n = 0; n < each; ++n) {
        // Checksum, sender, number, chance: up to PIPE_BUF with its two-byte header.
        std::vector<std::uint32_t> words(3 + random() % (PIPE_BUF / 4 - 3));
        std::generate(words.begin(), words.end(), std::ref(random));
        words[1] = id;
        words[2] = n;
        words[0] = Sum(words);
        JCXXMsg* msg = j_msg_new();
        j_msg_addmem(msg, words.data(), words.size() * 4);
        if (j_msg_send(&msg, push) != 0) {
          return 1;
        }
      }
      return 0;
    }));
  }
  std::vector<unsigned> next(kPushers, 0);
  for (unsigned n = 0; n < each * kPushers; ++n) {
    JCXXMsg* msg = j_msg_recv(pull);
    ASSERT_NE(msg, nullptr);
    JCXXFrame* frame = j_msg_pop(msg);
    std::vector<std::uint32_t> words(j_frame_size(frame) / 4);
    std::memcpy(words.data(), j_frame_data(frame), words.size() * 4);
    ASSERT_TRUE(words.size() >= 3 && words[0] == Sum(words) && words[1] < kPushers);
    ASSERT_EQ(words[2], next[words[1]]++);
    j_frame_destroy(&frame);
    j_msg_destroy(&msg);
  }
  for (const pid_t pusher : pushers) {
    EXPECT_EQ(Outcome(pusher), 0);
  }
  EXPECT_EQ(Waiting(pull) + pull->BufferedToRead(), 0U);
  j_sock_destroy(&pull);
  std::printf("four pushers: %u messages, none lost, mixed or repeated\n", each * kPushers);
}

TEST_F(ProcessStorm, AnotherUserGetsACleanNull) {
  if (::getuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  JCXXSock* pull = j_pipe_new_pull(name_.c_str());
  const pid_t other = Child([&] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
      return 1;
    }
    error_lines = 0;
    return j_pipe_new_push(name_.c_str()) == nullptr && error_lines == 1 ? 0 : 2;
  });
  EXPECT_EQ(Outcome(other), 0);
  j_sock_destroy(&pull);
}

// Other threads talk and open endpoints while programs are started.
TEST_F(ProcessStorm, ProgramsStartedUnderLoadInheritNoDescriptor) {
  const auto open_there = [] {
    FILE* list = ::popen("exec ls /proc/self/fd | wc -l", "r");
    int count = -1;
    EXPECT_EQ(std::fscanf(list, "%d", &count), 1);
    ::pclose(list);
    return count;
  };
  const int usual = open_there();
  std::atomic<bool> done{false};
  std::vector<std::thread> load;
  for (int n = 0; n < 3; ++n) {
    load.emplace_back([&, endpoint = name_ + "-" + std::to_string(n)] {
      while (!done) {
        JCXXSock* sock = j_pipe_new_pull(endpoint.c_str());
        j_sock_signal(sock, 1);
        JCXXMsg* msg = j_msg_recv(sock);
        j_msg_destroy(&msg);
        j_sock_destroy(&sock);
      }
      ::unlink(("/var/run/jactor/Jipc_" + endpoint.substr(6)).c_str());
    });
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(open_there(), usual);
  }
  done = true;
  std::for_each(load.begin(), load.end(), [](std::thread& thread) { thread.join(); });
}

#ifdef JACTOR_SANITIZED
constexpr long kMostMebibytes = 4096;  // the sanitizer's share
#else
constexpr long kMostMebibytes = 256;
#endif

// What a stream can make a reader hold: the peak of a process that reads it.
void ExpectBounded(const char* what, const std::string& unit, int units, bool good) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t writer = Child([&] {
    ::close(ends[0]);
    std::string block;
    for (int i = 0; i < 4096; ++i) {
      block += unit;
    }
    bool ok = ::write(ends[1], "\x70\x00\x10\x00\x00", 5) == 5;
    for (int i = 0; ok && i < units / 4096; ++i) {
      ok = ::write(ends[1], block.data(), block.size()) == static_cast<ssize_t>(block.size());
    }
    return 0;
  });
  ::close(ends[1]);
  const pid_t reader = Child([&] {
    SockFromPipes sock(ends[0], -1);
    rusage before = {};
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &before);
    JCXXMsg* msg = JCXXMsg::ReadMessage(&sock);
    ::getrusage(RUSAGE_SELF, &after);
    const bool as_expected = (msg != nullptr) == good && error_lines == (good ? 0 : 1);
    delete msg;
    const long grown = (after.ru_maxrss - before.ru_maxrss) / 1024;
    std::printf("hostile memory: %s: %ld MiB more at the peak\n", what, grown);
    std::fflush(stdout);
    return as_expected && grown < kMostMebibytes ? 0 : 1;
  });
  ::close(ends[0]);
  EXPECT_EQ(Outcome(reader), 0);
  ::kill(writer, SIGKILL);
  Outcome(writer);
}

TEST(HostileStream, MemoryIsBounded) {
  ExpectBounded("1,048,576 frames of one byte, a good message", std::string("\x01x"), 1048576,
                true);
  ExpectBounded("empty frames without end, refused", std::string(1, '\0'), INT_MAX, false);
}

}  // namespace
