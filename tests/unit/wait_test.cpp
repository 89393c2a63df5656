// wait_test.cpp - waiting until a receive will not wait, whatever part of a message has
// come.
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "jactor.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

class WaitTest : public PairTest {
 protected:
  int Wait(int milliseconds = 0) { return j_sock_wait(b.get(), milliseconds); }

  // The payload bytes of the next message, or the signal's value.
  std::size_t Receive() {
    const std::unique_ptr<JCXXMsg> msg(j_msg_recv(b.get()));
    EXPECT_NE(msg, nullptr);
    return msg == nullptr ? 0 : msg->IsSignalMsg() ? msg->GetSignalValue() : msg->GetSize();
  }
};

// Messages of every kind and header form.
const std::string kWhole[] = {
    "\5hello",
    {"\0", 1},
    "\x81",
    "\xC0\xC8",
    {"\x20\0\2ab", 5},
    {"\x30\0\0\0\3abc", 8},
    {"\x45\2ab\3cde", 8},
    {"\x42\0\2ab", 5},
    "@",
    {"\x60\0\1\1x", 5},
    {"\x11\x1C" + std::string(300, 'p')},
};

TEST_F(WaitTest, EveryCutOfAMessageIsWaitedForAndNothingOfItIsLost) {
  for (const std::string& whole : kWhole) {
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
      Feed(whole.substr(0, cut));
      EXPECT_EQ(Wait(), 0) << cut << " of " << whole.size();
      EXPECT_EQ(j_sock_buffered(b.get()), cut);
      Feed(whole.substr(cut));
      EXPECT_EQ(Wait(-1), 1);
      Receive();
      EXPECT_EQ(j_sock_buffered(b.get()), 0U);
    }
  }
  EXPECT_EQ(Log(), "");
}

// A half message behind one that was taken moves to the front of the buffer.
TEST_F(WaitTest, WhatWasReadAheadGivesWayToTheRest) {
  Feed("\1x\5he");
  EXPECT_EQ(Receive(), 1U);
  EXPECT_EQ(j_sock_buffered(b.get()), 3U);
  Feed("l");
  EXPECT_EQ(Wait(), 0);
  EXPECT_EQ(j_sock_buffered(b.get()), 4U);
  Feed("lo");
  EXPECT_EQ(Receive(), 5U);
}

TEST_F(WaitTest, AReadThatIsInterruptedIsRepeated) {
  Feed("\5he");
  const Script reads(Call::kRead, {Fail(EINTR), Fail(EAGAIN)});
  EXPECT_EQ(Wait(), 0);
  EXPECT_EQ(reads.count(), 3U);
  EXPECT_EQ(j_sock_buffered(b.get()), 3U);
}

TEST_F(WaitTest, AReadThatFailsIsLeftToTheReceive) {
  Feed("\5hello");
  for (const Step& step : {Fail(EIO), Return(0)}) {
    const Script reads(Call::kRead, {step});
    EXPECT_EQ(Wait(), 1);
  }
  EXPECT_EQ(Receive(), 5U);
}

// What a receive does not wait for either, and says so.
TEST_F(WaitTest, AnEndAndDamageAreToldByTheReceive) {
  for (const std::string& damage : {std::string("\x45\x81"), std::string("\x41\2xx"),
                                    std::string("\x30\0\x10\0\1", 5), std::string("\x42@")}) {
    Feed(damage);
    EXPECT_EQ(Wait(), 1);
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
    EXPECT_EQ(errno, EBADMSG);
    Drain();
  }
  Feed("\5he");
  EXPECT_EQ(Wait(), 0);
  a.reset();
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  EXPECT_EQ(errno, EBADMSG);
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  EXPECT_EQ(errno, 0);
}

TEST_F(WaitTest, ALargeMessageInPiecesBetweenPlainReceives) {
  const std::string bytes(1048576, 'x');
  Feed("\x83\x84");
  EXPECT_EQ(Receive(), 3U);
  std::jthread sender([&] {
    JCXXMsg* msg = j_msg_new();
    EXPECT_EQ(j_msg_addmem(msg, bytes.data(), bytes.size()), 0);
    EXPECT_EQ(j_msg_send(&msg, a.get()), 0);
    EXPECT_EQ(j_sock_signal(a.get(), 5), 0);
  });
  EXPECT_EQ(Receive(), 4U);
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_EQ(Receive(), bytes.size());
  EXPECT_EQ(Receive(), 5U);
  EXPECT_EQ(Wait(), 0);
  EXPECT_LE(b->read_buffer_size, 16384U) << "the large buffer is given back";
}

TEST_F(WaitTest, EmptyFramesWithoutEndAreDamageInTheEnd) {
  KeepLog(kErrors);
  std::jthread sender([&] {
    const std::string frames(65536, '\0');
    Feed("\x41");
    for (int i = 0; i < 16; ++i) {
      Feed(frames);
    }
    Feed({"\0", 1});
  });
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_GT(j_sock_buffered(b.get()), 1048576U);
  EXPECT_LE(b->read_buffer_size, 8U << 20);
  EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  EXPECT_EQ(Log(), "too many frames");
}

TEST_F(WaitTest, ASignalHandlerEndsTheWait) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGUSR1, &action, nullptr);
  const pthread_t waiting = ::pthread_self();
  for (const char* bytes : {"", "\5he"}) {
    Feed(bytes);
    std::atomic<bool> done{false};
    std::jthread again([&] {
      while (!done) {
        ::pthread_kill(waiting, SIGUSR1);
        std::this_thread::yield();
      }
    });
    EXPECT_EQ(Wait(-1), -1);
    EXPECT_EQ(errno, EINTR);
    done = true;
  }
  std::signal(SIGUSR1, SIG_DFL);
}

TEST_F(WaitTest, TheTimeIsNeverUpEarly) {
  using Clock = std::chrono::steady_clock;
  for (const int limit : {0, 1, 20}) {
    const auto start = Clock::now();
    EXPECT_EQ(Wait(limit), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(limit));
  }
}

TEST_F(WaitTest, WithoutMemoryNothingIsLost) {
  Feed("\5he");
  {
    const Script script({Call::kNew}, {}, Fail(ENOMEM), true);
    EXPECT_EQ(Wait(), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  Feed("llo");
  EXPECT_EQ(Wait(), 1);
  EXPECT_EQ(Receive(), 5U);
}

}  // namespace
