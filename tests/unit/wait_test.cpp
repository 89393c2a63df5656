// wait_test.cpp - waiting until a receive will not wait, whatever part of a message has
// come.
#include <cerrno>
#include <chrono>
#include <thread>

#include "jactor.h"
#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;
using namespace std::string_literals;

class WaitTest : public PairTest {
 protected:
  int Wait(int milliseconds = 0) { return j_sock_wait(b.get(), milliseconds); }

  // The payload bytes of the next message, or the signal's value.
  std::size_t Receive() {
    const std::unique_ptr<JCXXMsg> msg(j_msg_recv(b.get()));
    return msg->IsSignalMsg() ? msg->GetSignalValue() : msg->GetSize();
  }
};

// Messages of every kind and header form.
const std::string kWhole[] = {"\5hello",
                              "\0"s,
                              "\x81",
                              "\xC0\xC8",
                              "\x20\0\2ab"s,
                              "\x30\0\0\0\3abc"s,
                              "\x45\2ab\3cde",
                              "\x42\0\2ab"s,
                              "@",
                              "\x60\0\1\1x"s,
                              "\x11\x1C" + std::string(300, 'p')};

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

// What one call that fails makes of a wait. Nothing is lost.
TEST_F(WaitTest, AFailedCallIsRepeatedOrToldOrLeftToTheReceive) {
  const std::tuple<Call, Step, int, int> kFaults[] = {
      {Call::kNew, Fail(ENOMEM), -1, ENOMEM}, {Call::kRead, Fail(EINTR), 0, 0},
      {Call::kRead, Fail(EAGAIN), 0, 0},      {Call::kRead, Fail(EIO), 1, 0},
      {Call::kRead, Return(0), 1, 0},         {Call::kPoll, Fail(EINTR), -1, EINTR},
  };
  for (const auto& [call, step, result, error] : kFaults) {
    SCOPED_TRACE(step.error);
    Feed("\5he");
    {
      const Script script(call, {step});
      errno = 0;
      EXPECT_EQ(Wait(), result);
      EXPECT_EQ(errno, error);
    }
    Feed("llo");
    EXPECT_EQ(Receive(), 5U);
  }
}

// What a receive does not wait for either, and says so.
TEST_F(WaitTest, DamageIsToldByTheReceive) {
  const std::pair<std::string, const char*> kDamage[] = {
      {"\x45\x81", "got a non-data frame"},
      {"\x42@", "got a non-data frame"},
      {"\x41\2xx", "too much data"},
      {"\x45\2ab\4cdef", "too much data"},
      {"\x30\0\x10\0\1"s, ""},
  };
  for (const auto& [damage, log] : kDamage) {
    ClearLog();
    Feed(damage);
    EXPECT_EQ(Wait(), 1);
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
    EXPECT_EQ(errno, EBADMSG);
    EXPECT_EQ(Log(), log);
    Drain();
  }
}

TEST_F(WaitTest, AnEndIsToldByTheReceive) {
  Feed("\5he");
  a.reset();
  for (const int error : {EBADMSG, 0}) {
    EXPECT_EQ(Wait(-1), 1);
    EXPECT_EQ(j_msg_recv(b.get()), nullptr);
    EXPECT_EQ(errno, error);
  }
}

TEST_F(WaitTest, ALargeMessageInPiecesBetweenPlainReceives) {
  const std::string bytes(1048576, 'x');
  std::jthread sender([&] { Feed("\x83\x30\0\x10\0\0"s + bytes + "\x85"); });
  EXPECT_EQ(Receive(), 3U);
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_EQ(Receive(), bytes.size());
  EXPECT_EQ(Receive(), 5U);
  EXPECT_EQ(Wait(), 0);
  EXPECT_LE(b->read_buffer_size, 16384U) << "the large buffer is given back";
}

TEST_F(WaitTest, EmptyFramesWithoutEndAreDamageInTheEnd) {
  KeepLog(kErrors);
  std::jthread sender([&] { Feed("\x41" + std::string(1048577, '\0')); });
  EXPECT_EQ(Wait(-1), 1);
  EXPECT_GT(j_sock_buffered(b.get()), 1048576U);
  EXPECT_LE(b->read_buffer_size, 8U << 20);
  EXPECT_EQ(j_msg_recv(b.get()), nullptr);
  EXPECT_EQ(Log(), "too many frames");
}

TEST_F(WaitTest, TheTimeIsNeverUpEarly) {
  using Clock = std::chrono::steady_clock;
  for (const int limit : {0, 1, 20}) {
    const auto start = Clock::now();
    EXPECT_EQ(Wait(limit), 0);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(limit));
  }
}

}  // namespace
