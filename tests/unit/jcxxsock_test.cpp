// jcxxsock_test.cpp - exact reads and writes over pipes, whatever the system
// calls return on the way.
#include "jcxxsock.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <thread>

#include "support.h"

namespace {

using namespace support;

unsigned char* Raw(std::string& bytes) { return reinterpret_cast<unsigned char*>(bytes.data()); }

std::string Counting(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

constexpr const char* kStep = "ReadBlockingReadaheadBuffered";

using SockTest = PairTest;

TEST_F(SockTest, AMegabyteCrossesAPipeByteForByte) {
  KeepLog(kErrors);
  std::string sent = Counting(1 << 20);
  const iovec pieces[] = {{sent.data(), 300000}, {sent.data(), 0}, {&sent[300000], 748576}};
  std::size_t written = 0;
  std::thread writer([&] { EXPECT_EQ(a->WriteBlockingIOV(pieces, 3, written), 0); });
  std::string received(sent.size(), '\0');
  std::size_t got = 0;
  EXPECT_EQ(b->ReadBlocking(Raw(received), received.size(), got), 0);
  writer.join();
  EXPECT_EQ(got, sent.size());
  EXPECT_EQ(written, sent.size());
  EXPECT_TRUE(sent == received);
}

// What one call of the read step decides, in the order of its lines, and the
// system calls that it costs.
TEST_F(SockTest, TheReadStepTakesWhatIsThereAndNoMore) {
  const struct {
    std::size_t feed, want, result, buffered, calls;
    const char* log;
  } kSteps[] = {
      {0, 0, 0, 0, 0, ""},
      {5, 5, 5, 0, 2, "s=5; read_buffer_avail=0; avail=5; direct"},
      {10, 9, 9, 1, 3,
       "s=9; read_buffer_avail=0; avail=10; create the buffer; readahead_size=1; wasread=10; "
       "read_buffer_avail=1"},
      {4, 1, 1, 0, 0, "s=1; read_buffer_avail=1; use data from the buffer; full"},
      {0, 1, 1, 3, 2,
       "s=1; read_buffer_avail=0; avail=4; readahead_size=3; wasread=4; read_buffer_avail=3"},
      {0, 10, 3, 0, 0, "s=10; read_buffer_avail=3; use data from the buffer; partial"},
      {20000, 5, 5, 16384, 2,
       "s=5; read_buffer_avail=0; avail=20000; readahead_size=19995; readahead_size=16384; "
       "wasread=16389; read_buffer_avail=16384"},
  };
  char buf[16];
  for (const auto& step : kSteps) {
    Feed(std::string(step.feed, 'x'));
    ClearLog();
    const Script counter({Call::kRead, Call::kReadv, Call::kIoctl, Call::kFcntl});
    EXPECT_EQ(b->ReadBlockingReadaheadBuffered(buf, step.want), step.result);
    EXPECT_EQ(Log(kAll, kStep), step.log);
    EXPECT_EQ(counter.count(), step.calls);
    EXPECT_EQ(b->BufferedToRead(), step.buffered);
  }
  EXPECT_EQ(b->read_buffer_size, 16384U);
  a.reset();
  EXPECT_EQ(Drain().size(), 20000U - 5U);
  ClearLog();
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(buf, 3), 0);
  EXPECT_EQ(Log(kAll, kStep),
            "s=3; read_buffer_avail=0; avail=0; direct; end of file or unable to read");
  EXPECT_EQ(Log(), "");
}

// Calls that fail or fall short while 10 bytes wait and 4 are wanted.
TEST_F(SockTest, TheReadStepSurvivesFailingCalls) {
  const struct {
    Call call;
    Step step;
    ssize_t result;
    const char* log_end;
    bool is_error;
  } kFaults[] = {
      {Call::kReadv, Fail(EIO), -1, "read error, errno=5", true},
      {Call::kReadv, Return(0), 0, "end of file or unable to read", true},
      {Call::kReadv, Cut(3), 3, "wasread=3; short read; only enough for caller", false},
      {Call::kReadv, Cut(4), 4, "wasread=4; short read; only enough for caller", false},
      {Call::kReadv, Cut(5), 4, "wasread=5; short read; read_buffer_avail=1", false},
      {Call::kIoctl, Fail(EIO), 4, "no available; avail=0; direct", false},
      {Call::kIoctl, Fail(EINTR), 4, "wasread=10; read_buffer_avail=6", false},
  };
  char buf[4];
  for (const auto& fault : kFaults) {
    Feed("0123456789");
    ClearLog();
    {
      const Script script(fault.call, {fault.step});
      EXPECT_EQ(b->ReadBlockingReadaheadBuffered(buf, 4), fault.result);
    }
    EXPECT_TRUE(Log(kAll, kStep).ends_with(fault.log_end)) << Log(kAll, kStep);
    EXPECT_EQ(Log(), fault.is_error ? fault.log_end : "");
    EXPECT_EQ(Drain(), &"0123456789"[std::max<ssize_t>(fault.result, 0)]);
  }
}

TEST_F(SockTest, ADescriptorThatIsNoPipeGetsASmallReadAheadBuffer) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  a = std::make_unique<SockFromPipes>(-1, ends[0]);
  b = std::make_unique<SockFromPipes>(ends[1], -1);
  Feed(std::string(5000, 'x'));
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(ends, 1), 1);
  EXPECT_EQ(b->read_buffer_size, 4096U);
  EXPECT_EQ(Log(), "F_GETPIPE_SZ returned an error, errno=9");
}

TEST_F(SockTest, AFailedExactReadOrWriteCountsNothing) {
  std::string bytes = "abcd";
  for (const auto& last : {Fail(EIO), Return(0)}) {
    std::size_t count = 7;
    const Script writes(Call::kWrite, {Cut(2), last});
    EXPECT_EQ(a->WriteBlocking(Raw(bytes), 4, count), -1);
    EXPECT_EQ(count, 0U);
    const Script reads({Call::kRead, Call::kReadv}, {Cut(1), last});
    EXPECT_EQ(b->ReadBlocking(Raw(bytes), 4, count = 7), -1);
    EXPECT_EQ(count, 0U);
    Drain();
  }
}

TEST_F(SockTest, AGatheredWriteTellsItsSteps) {
  char text[] = "abc";
  const iovec list[] = {{text, 3}, {text, 0}};
  std::size_t written = 0;
  EXPECT_EQ(a->WriteBlockingIOV(list, 2, written), 0);
  std::string formats;
  for (const LogLine& line : LogLines(kAll)) {
    formats += line.format.substr(std::strlen("%s.%d.%s: "));
  }
  EXPECT_EQ(formats,
            "WriteBlockingIOV\niov[j].iov_len=%zd\niov[j].iov_base=0x%zx\niov[j].iov_len=%zd\n"
            "iov[j].iov_base=0x%zx\ntotal_size=%zd\nbefore writev\n"
            "after writev, waswritten=%zd\nall in one\n");
}

// The first writev is final; after a cut, EINTR and EAGAIN are repeated and
// another error or nothing written is final.
TEST_F(SockTest, AGatheredWriteTellsWhatInterruptsOrEndsIt) {
  const struct {
    std::vector<Step> steps;
    int result;
    const char* log;
  } kFaults[] = {
      {{Fail(EAGAIN)}, -1, "EAGAIN"},
      {{Fail(EINTR)}, -1, "EINTR"},
      {{Fail(EPIPE)}, -1, "other error, errno=32"},
      {{Return(0)}, -1, "partial write, waswritten=0"},
      {{Cut(1), Fail(EPIPE)}, -1, "partial write, waswritten=1"},
      {{Cut(1), Fail(EINTR), Return(0)}, -1, "partial write, waswritten=1; EINTR"},
      {{Cut(1), Fail(EINTR), Fail(EAGAIN), Pass()},
       0,
       "partial write, waswritten=1; EINTR; EAGAIN"},
  };
  char text[] = "abc";
  const iovec list[] = {{text, 3}, {nullptr, 0}};
  for (const auto& fault : kFaults) {
    ClearLog();
    const Script script(Call::kWritev, fault.steps);
    std::size_t written = 7;
    EXPECT_EQ(a->WriteBlockingIOV(list, 2, written), fault.result);
    EXPECT_EQ(written, fault.result == 0 ? 3U : 0U);
    EXPECT_EQ(Log(), fault.log);
    EXPECT_EQ(script.count(), fault.steps.size());
  }
  EXPECT_TRUE(Log(kAll, "WriteBlockingIOV").ends_with("; remainder all sent"));
  std::size_t written = 7;
  EXPECT_EQ(a->WriteBlockingIOV(nullptr, 1, written), -1);
  EXPECT_EQ(a->WriteBlockingIOV(list, -1, written), -1);
  const Script script(Call::kWritev);
  EXPECT_EQ(a->WriteBlockingIOV(list, 0, written), 0);
  EXPECT_EQ(a->WriteBlockingIOV(list + 1, 1, written), 0);
  EXPECT_EQ(script.count(), 0U);
}

TEST_F(SockTest, ASockWithoutDescriptorsFailsAndTouchesNothing) {
  JCXXSock plain;
  SockFromPipes none;
  SockFromNamedEndpoint closed;
  unsigned char byte = 'x';
  const iovec list[] = {{&byte, 1}};
  for (JCXXSock* sock : std::initializer_list<JCXXSock*>{&plain, &none, &closed}) {
    int fd = 77;
    std::size_t n = 7;
    errno = EINTR;  // left over from something else: nothing is repeated for it
    EXPECT_EQ(sock->GetReadFD(fd), -1);
    EXPECT_EQ(sock->GetWriteFD(fd), -1);
    EXPECT_EQ(fd, 77);
    EXPECT_EQ(sock->ReadNonBlocking(&byte, 1, n), -1);
    EXPECT_EQ(sock->WriteNonBlocking(&byte, 1, n), -1);
    EXPECT_EQ(n, 7U);
    EXPECT_EQ(sock->ReadBlocking(&byte, 0, n), -1);
    EXPECT_EQ(sock->WriteBlocking(&byte, 0, n), -1);
    EXPECT_EQ(sock->WriteBlockingIOV(list, 1, n), -1);
    EXPECT_EQ(sock->ReadBlockingReadaheadBuffered(&byte, 1), -1);
    EXPECT_EQ(sock->AvailableToRead(n = 7), -1);
    EXPECT_EQ(n, 0U);
  }
  std::size_t n = 7;
  EXPECT_EQ(b->ReadBlocking(nullptr, 0, n), -1);
  EXPECT_EQ(b->WriteBlocking(nullptr, 0, n), -1);
  EXPECT_EQ(b->ReadBlocking(&byte, 0, n), 0);
  EXPECT_EQ(b->WriteBlocking(&byte, 0, n), 0);
  EXPECT_EQ(b->ReadBlockingReadaheadBuffered(nullptr, 0), -1);
}

TEST_F(SockTest, ExecClosesBothEndsOfAPair) {
  for (JCXXSock* sock : {a.get(), b.get()}) {
    const auto& ends = dynamic_cast<SockFromPipes&>(*sock);
    EXPECT_EQ(::fcntl(ends.read_fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(ends.write_fd, F_GETFD), FD_CLOEXEC);
  }
}

TEST_F(SockTest, AssignmentClosesWhatAPipeSockHeld) {
  auto& target = dynamic_cast<SockFromPipes&>(*a);
  const auto& source = dynamic_cast<SockFromPipes&>(*b);
  const int closed = target.read_fd;
  auto& itself = target;
  target = itself;
  EXPECT_EQ(target.read_fd, closed);
  target = source;
  EXPECT_EQ(target.read_fd, -1);
  EXPECT_EQ(target.write_fd, -1);
  EXPECT_EQ(::fcntl(closed, F_GETFD), -1);
  EXPECT_GE(source.read_fd, 0);
}

}  // namespace
