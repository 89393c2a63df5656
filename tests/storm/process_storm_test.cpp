// process_storm_test.cpp - processes that share endpoints and die at bad moments, and
// a stream that wants all memory.
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <numeric>
#include <random>
#include <thread>

#include "jactor.hpp"
#include "jcxxmsg.h"
#include "storm/storm.h"
#include "support.h"

namespace {

using jactor::Message;
using jactor::Sock;
using storm::Child;
using storm::Outcome;

std::size_t Waiting(const Sock& sock) {
  std::size_t waiting = 0;
  EXPECT_EQ(sock.get()->AvailableToRead(waiting), 0);
  return waiting;
}

// With an endpoint in the real run directory, where other programs look for it.
class ProcessStorm : public support::Test {
 protected:
  ProcessStorm() { support::KeepLog(support::kErrors); }

  // Whatever has happened at the endpoint: both ends opened anew carry a message.
  void TearDown() override {
    const Sock pull = Sock::pull(name);
    Sock::push(name).send(Message{"recovered"});
    EXPECT_EQ(pull.receive()->pop_string(), "recovered");
    ::unlink(("/var/run/jactor/Jipc_" + name.substr(6)).c_str());
  }

  const std::string name = "ipc://storm-" + std::to_string(::getpid());
};

// The survivor reads the next message for the rest of the dead one's.
TEST_F(ProcessStorm, APusherKilledInsideALargeMessage) {
  const Sock pull = Sock::pull(name);
  const auto push = [&](char byte) {
    return Child([&] { Sock::push(name).send(Message{std::string(1048576, byte)}); });
  };
  const pid_t pusher = push('k');
  while (Waiting(pull) < 65536) {  // it stands in its write
    std::this_thread::yield();
  }
  EXPECT_EQ(Outcome(pusher, SIGKILL), -SIGKILL);
  const std::size_t begun = Waiting(pull);
  const pid_t next = push('n');
  const std::string mixed = pull.receive()->pop_string().value();
  EXPECT_EQ(mixed.find_first_not_of('k'), begun - 5);
  Outcome(next, SIGKILL);
}

// The pushers notice nothing, and what the dead one had not read is there.
TEST_F(ProcessStorm, APullerKilledInsideAStream) {
  const Sock push = Sock::push(name);
  const auto send = [&] { push.send(Message{std::string(1000, 'm')}); };
  for (int i = 0; i < 50; ++i) {
    send();
  }
  const pid_t puller = Child([&] {
    const Sock pull = Sock::pull(name);
    pull.receive();
    ::raise(SIGKILL);
  });
  EXPECT_EQ(Outcome(puller), -SIGKILL);
  const std::size_t left = Waiting(push);
  EXPECT_GE(left, 50 * 1002 - 1 - 16384U);  // the read-ahead went with it
  EXPECT_LT(left, 49 * 1002U);
  send();
}

// The n-th message of a pusher: both numbers, and bytes that follow from them. It
// fits into PIPE_BUF with its header.
std::string Text(unsigned pusher, unsigned n) {
  std::minstd_rand random(pusher * 1000003 + n + 1);
  std::string bytes(random() % (PIPE_BUF - 16), '\0');
  std::iota(bytes.begin(), bytes.end(), static_cast<char>(random()));
  return std::to_string(pusher) + " " + std::to_string(n) + " " + bytes;
}

// A million messages with JACTOR_STORM_MESSAGES=1000000.
TEST_F(ProcessStorm, FourPushersLoseMixAndRepeatNothing) {
  const char* asked = std::getenv("JACTOR_STORM_MESSAGES");
  const unsigned each = static_cast<unsigned>(std::atol(asked != nullptr ? asked : "20000")) / 4;
  const Sock pull = Sock::pull(name);
  std::vector<pid_t> pushers;
  for (unsigned id = 0; id < 4; ++id) {
    pushers.push_back(Child([&] {
      const Sock push = Sock::push(name);
      for (unsigned n = 0; n < each; ++n) {
        push.send(Message{Text(id, n)});
      }
    }));
  }
  unsigned next[4] = {};
  for (unsigned n = 0; n < 4 * each; ++n) {
    const std::string text = pull.receive()->pop_string().value();
    const unsigned long id = std::strtoul(text.c_str(), nullptr, 10);
    ASSERT_LT(id, pushers.size());
    ASSERT_EQ(text, Text(static_cast<unsigned>(id), next[id]++));
  }
  for (const pid_t pusher : pushers) {
    EXPECT_EQ(Outcome(pusher), 0);
  }
  EXPECT_EQ(Waiting(pull) + pull.buffered(), 0U);
  std::printf("four pushers: %u messages, none lost, mixed or repeated\n", 4 * each);
}

TEST_F(ProcessStorm, AProgramThatIsStartedInheritsNoDescriptor) {
  const std::string command = "exit $(ls /proc/self/fd | wc -l)";
  const int usual = std::system(command.c_str());
  const jactor::Actor actor([](jactor::SockRef sock) { sock.ready(); });
  const Sock pull = Sock::pull(name);
  EXPECT_EQ(std::system(command.c_str()), usual);
}

#ifdef JACTOR_SANITIZED
constexpr long kMostMebibytes = 4096;  // the sanitizer's share
#else
constexpr long kMostMebibytes = 256;
#endif

// What a stream can make a reader hold: the peak of a process that reads a message's
// header and then `bytes` of one kind.
void ExpectBounded(const char* what, char byte, long bytes, const std::string& refusal) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t reader = Child([&] {
    ::close(ends[1]);
    SockFromPipes sock(ends[0], -1);
    rusage before = {};
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &before);
    const std::unique_ptr<JCXXMsg> msg(JCXXMsg::ReadMessage(&sock));
    ::getrusage(RUSAGE_SELF, &after);
    EXPECT_EQ(msg != nullptr, refusal.empty());
    EXPECT_EQ(support::Log(), refusal);
    const long grown = (after.ru_maxrss - before.ru_maxrss) / 1024;
    EXPECT_LT(grown, kMostMebibytes);
    ::dprintf(STDOUT_FILENO, "hostile memory: %s: %ld MiB more at the peak\n", what, grown);
  });
  ::close(ends[0]);
  const std::string block(8192, byte);
  bool ok = ::write(ends[1], "\x70\x00\x10\x00\x00", 5) == 5;
  for (; ok && bytes > 0; bytes -= 8192) {
    ok = ::write(ends[1], block.data(), block.size()) == 8192;
  }
  ::close(ends[1]);
  EXPECT_EQ(Outcome(reader), 0);
}

TEST_F(ProcessStorm, TheMemoryThatAHostileStreamTakesIsBounded) {
  ExpectBounded("1,048,576 frames of one byte, a good message", '\1', 2 * 1048576, "");
  ExpectBounded("empty frames without end, refused", '\0', LONG_MAX, "too many frames");
}

}  // namespace
