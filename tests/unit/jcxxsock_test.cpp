// jcxxsock_test.cpp - exact reads and writes over pipes, whatever the system
// calls return on the way.
#include "jcxxsock.h"

#include <fcntl.h>

#include <cerrno>

#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;

using SockTest = PairTest;

// One stream through all steps: what comes, what is wanted, what the system calls
// do, and what is there afterwards.
TEST_F(SockTest, TheReadStepTakesWhatIsThereAndNoMore) {
  const struct {
    const char* feed;
    std::size_t want;
    std::vector<Step> steps;
    ssize_t result;
    const char* got;
    std::size_t buffered, calls;
    const char* log = "";
  } kSteps[] = {
      {"", 0, {}, 0, "", 0, 0},
      {"abcde", 5, {}, 5, "abcde", 0, 2},
      {"fghijklmno", 9, {}, 9, "fghijklmn", 1, 3},
      {"pqrs", 1, {}, 1, "o", 0, 0},
      {"", 1, {}, 1, "p", 3, 2},
      {"", 10, {}, 3, "qrs", 0, 0},
      {"0123456789", 4, {Pass(), Fail(EIO)}, -1, "", 0, 2, "read error, errno=5"},
      {"", 4, {Pass(), Return(0)}, 0, "", 0, 2, "end of file or unable to read"},
      {"", 2, {Pass(), Cut(2)}, 2, "01", 0, 2},
      {"", 1, {Pass(), Cut(2)}, 1, "2", 1, 2},
      {"", 1, {}, 1, "3", 0, 0},
      {"", 1, {Fail(EIO)}, 1, "4", 0, 2},
      {"", 1, {Fail(EINTR)}, 1, "5", 4, 3},
  };
  for (const auto& step : kSteps) {
    Feed(step.feed);
    ClearLog();
    char buf[16] = "";
    const Script script({Call::kRead, Call::kReadv, Call::kIoctl, Call::kFcntl}, step.steps);
    EXPECT_EQ(b->ReadBlockingReadaheadBuffered(buf, step.want), step.result) << &step - kSteps;
    EXPECT_STREQ(buf, step.got);
    EXPECT_EQ(b->BufferedToRead(), step.buffered);
    EXPECT_EQ(script.count(), step.calls);
    EXPECT_EQ(Log(), step.log);
  }
  EXPECT_EQ(Drain(), "6789");
}

TEST_F(SockTest, ReadingAheadTakesWhatTheBufferHolds) {
  char byte = 0;
  Feed(std::string(20000, 'x'));
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(&byte, 1), 1);
  EXPECT_EQ(b->BufferedToRead(), 16384U);
  EXPECT_EQ(Drain(), std::string(19999, 'x'));
  a.reset();
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(&byte, 1), 0);
  EXPECT_EQ(Log(), "");
}

TEST_F(SockTest, AFailedExactReadOrWriteCountsNothing) {
  unsigned char bytes[] = "abcd";
  const iovec list[] = {{bytes, 4}};
  for (const auto& last : {Fail(EIO), Return(0)}) {
    std::size_t count = 7;
    const Script writes({Call::kWrite, Call::kWritev}, {Cut(2), last, Cut(1), last});
    EXPECT_EQ(a->WriteBlocking(bytes, 4, count), -1);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(a->WriteBlockingIOV(list, 1, count = 7), -1);
    EXPECT_EQ(count, 0U);
    const Script reads({Call::kRead, Call::kReadv}, {Cut(1), last});
    EXPECT_EQ(b->ReadBlocking(bytes, 4, count = 7), -1);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(Drain(), "ba");
  }
}

// The first writev is final; after a cut, EINTR and EAGAIN are repeated and
// another error or nothing written is final.
TEST_F(SockTest, AGatheredWriteTellsWhatInterruptsOrEndsIt) {
  const std::tuple<int, const char*, std::vector<Step>> kFaults[] = {
      {EAGAIN, "EAGAIN", {Fail(EAGAIN)}},
      {EINTR, "EINTR", {Fail(EINTR)}},
      {EPIPE, "other error, errno=32", {Fail(EPIPE)}},
      {EIO, "partial write, waswritten=0", {Return(0)}},
      {EIO, "partial write, waswritten=1", {Cut(1), Fail(EPIPE)}},
      {EIO, "partial write, waswritten=1; EINTR", {Cut(1), Fail(EINTR), Return(0)}},
      {0,
       "partial write, waswritten=1; EINTR; EAGAIN",
       {Cut(1), Fail(EINTR), Fail(EAGAIN), Pass()}},
  };
  JCXXMsg* msg = j_msg_new();
  EXPECT_EQ(j_msg_addstr(msg, "abc"), 0);
  for (const auto& [error, log, steps] : kFaults) {
    SCOPED_TRACE(log);
    ClearLog();
    const Script script(Call::kWritev, steps);
    errno = 0;
    EXPECT_EQ(j_msg_send(&msg, a.get()), error == 0 ? 0 : -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(Log(), log);
    EXPECT_EQ(Log(kAll).find("front_iov[j].iov_len=0"), std::string::npos) << "an empty entry";
    EXPECT_EQ(script.count(), steps.size());
    EXPECT_EQ(msg == nullptr, error == 0);
  }
}

TEST_F(SockTest, ATransferOfNothingMakesNoCall) {
  unsigned char byte = 'x';
  const iovec list[] = {{nullptr, 0}, {&byte, 1}};
  std::size_t n = 7;
  const Script script({Call::kRead, Call::kReadv, Call::kWrite, Call::kWritev});
  EXPECT_EQ(b->ReadBlocking(nullptr, 0, n), -1);
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(nullptr, 0), -1);
  EXPECT_EQ(a->WriteBlocking(nullptr, 0, n), -1);
  EXPECT_EQ(a->WriteBlockingIOV(nullptr, 1, n), -1);
  EXPECT_EQ(a->WriteBlockingIOV(list, -1, n), -1);
  EXPECT_EQ(b->ReadBlocking(&byte, 0, n), 0);
  EXPECT_EQ(a->WriteBlocking(&byte, 0, n), 0);
  EXPECT_EQ(a->WriteBlockingIOV(list, 0, n), 0);
  EXPECT_EQ(a->WriteBlockingIOV(list, 1, n), 0);
  EXPECT_EQ(script.count(), 0U);
}

// Somebody else's loop has made the descriptors non-blocking.
TEST_F(SockTest, WhatWouldBlockIsWaitedFor) {
  unsigned char bytes[] = "abc";
  const iovec list[] = {{bytes, 3}};
  std::size_t n = 0;
  {
    const Script waits(Call::kPoll, {Fail(EINTR), Pass([&] { Feed("xyz"); })});
    const Script reads(Call::kRead, {Fail(EAGAIN)});
    EXPECT_EQ(b->ReadBlocking(bytes, 3, n), 0);
    EXPECT_EQ(waits.count(), 2U) << "a signal handler ran";
  }
  const Script waits(Call::kPoll);
  const Script writes({Call::kWrite, Call::kWritev},
                      {Cut(1), Fail(EAGAIN), Pass(), Cut(1), Fail(EAGAIN)});
  EXPECT_EQ(a->WriteBlocking(bytes, 3, n), 0);
  EXPECT_EQ(a->WriteBlockingIOV(list, 1, n), 0);
  EXPECT_EQ(waits.count(), 2U);
  EXPECT_EQ(Drain(), "xyzxyz");
}

TEST_F(SockTest, ASockWithoutDescriptorsFailsAndTouchesNothing) {
  const auto expect_refusal = [](int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EBADF);
    errno = EINTR;  // left over from something else: nothing is repeated for it
  };
  JCXXSock plain;
  SockFromPipes none;
  SockFromNamedEndpoint closed;
  JCXXMsg data;
  JCXXMsg* msg = &data;
  unsigned char byte = 'x';
  std::size_t n = 7;
  for (JCXXSock* sock : std::initializer_list<JCXXSock*>{&plain, &none, &closed}) {
    int fd = 77;
    EXPECT_EQ(sock->GetReadFD(fd), -1);
    EXPECT_EQ(sock->GetWriteFD(fd), -1);
    EXPECT_EQ(fd, 77);
    expect_refusal(j_sock_fd(sock));
    expect_refusal(j_sock_wait(sock, 0));
    expect_refusal(static_cast<int>(sock->ReadBlockingReadaheadBuffered(&byte, 1)));
    expect_refusal(sock->ReadBlocking(&byte, 0, n));
    expect_refusal(j_msg_send(&msg, sock));
    expect_refusal(j_sock_signal(sock, 1));
    expect_refusal(sock->AvailableToRead(n = 7));
    EXPECT_EQ(n, 0U);
  }
}

TEST_F(SockTest, AssignmentClosesWhatAPipeSockHeld) {
  auto& target = dynamic_cast<SockFromPipes&>(*a);
  const int fd = target.read_fd;
  const auto& itself = target;
  target = itself;
  EXPECT_EQ(target.read_fd, fd);
  target = dynamic_cast<SockFromPipes&>(*b);
  EXPECT_EQ(std::pair(target.read_fd, target.write_fd), std::pair(-1, -1));
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  EXPECT_GE(j_sock_fd(b.get()), 0);
}

}  // namespace
