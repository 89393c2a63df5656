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
      {5, 9, 5, 0, 2, "s=9; read_buffer_avail=0; avail=5; direct"},
      {10, 9, 9, 1, 3,
       "s=9; read_buffer_avail=0; avail=10; create the buffer; readahead_size=1; wasread=10; "
       "read_buffer_avail=1"},
      {4, 1, 1, 0, 0, "s=1; read_buffer_avail=1; use data from the buffer; full"},
      {0, 1, 1, 3, 2,
       "s=1; read_buffer_avail=0; avail=4; readahead_size=3; wasread=4; read_buffer_avail=3"},
      {7, 10, 3, 0, 0, "s=10; read_buffer_avail=3; use data from the buffer; partial"},
      {0, 7, 7, 0, 2, "s=7; read_buffer_avail=0; avail=7; direct"},
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

// Interrupted and short calls, with a log that spoils errno.
TEST_F(SockTest, ExactReadsAndWritesRepeatWhatWasInterrupted) {
  LogSpoilsErrno(EIO);
  std::string bytes = "abcdefghij";
  std::size_t count = 0;
  {
    const Script script(Call::kWrite, {Fail(EINTR), Cut(3), Fail(EAGAIN), Cut(1), Fail(EINTR)});
    EXPECT_EQ(a->WriteBlocking(Raw(bytes), bytes.size(), count), 0);
    EXPECT_EQ(count, bytes.size());
    EXPECT_EQ(script.count(), 6U);
  }
  std::string received(bytes.size(), '\0');
  const Script script({Call::kRead, Call::kReadv}, {Fail(EINTR), Cut(3), Fail(EAGAIN), Cut(1)});
  EXPECT_EQ(b->ReadBlocking(Raw(received), received.size(), count), 0);
  EXPECT_EQ(count, bytes.size());
  EXPECT_EQ(received, bytes);
  EXPECT_EQ(script.count(), 5U);
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
  std::size_t count = 7;
  b.reset();
  EXPECT_EQ(a->WriteBlocking(Raw(bytes), 4, count), -1) << "nobody reads";
  EXPECT_EQ(count, 0U);
}

// Every two places at which a gathered write can be cut, each followed by
// interruptions: inside an element, at a boundary, before empty elements.
TEST_F(SockTest, AGatheredWriteResumesWhereverItWasCut) {
  const std::string bytes = "abcdefghijkl";
  char* text = const_cast<char*>(bytes.data());
  const std::vector<iovec> list = {{text, 0},     {text, 3}, {text, 0},     {text, 0},
                                   {text + 3, 4}, {text, 0}, {text + 7, 5}, {text, 0}};
  LogSpoilsErrno(EIO);
  for (std::size_t first = 1; first < bytes.size(); ++first) {
    for (std::size_t second = 1; second <= bytes.size() - first; ++second) {
      ClearLog();
      const Script script(Call::kWritev, {Cut(first), Fail(EINTR), Fail(EAGAIN), Cut(second)});
      std::size_t written = 0;
      EXPECT_EQ(a->WriteBlockingIOV(list.data(), 8, written), 0);
      EXPECT_EQ(written, bytes.size());
      EXPECT_EQ(Drain(), bytes) << "cut after " << first << " and " << second;
      EXPECT_EQ(Log(), "partial write, waswritten=" + std::to_string(first) + "; EINTR; EAGAIN");
      EXPECT_TRUE(Log(kAll, "WriteBlockingIOV").ends_with("; remainder all sent"));
      EXPECT_NE(script.gathered().back().front().iov_len, 0U);
    }
  }
}

TEST_F(SockTest, AGatheredWriteStartsWithTheCallersEntriesAndTellsItsSteps) {
  char text[] = "abc";
  const iovec list[] = {{text, 3}, {text, 0}};
  const Script script(Call::kWritev);
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
  ASSERT_EQ(script.gathered().size(), 1U);
  EXPECT_EQ(script.gathered()[0].size(), 2U);
  EXPECT_EQ(script.gathered()[0][0].iov_base, text);
}

// The first writev is final; after a cut, another error or nothing written is.
TEST_F(SockTest, AGatheredWriteFailsAndCountsNothing) {
  const struct {
    std::vector<Step> steps;
    const char* log;
  } kFaults[] = {
      {{Fail(EAGAIN)}, "EAGAIN"},
      {{Fail(EINTR)}, "EINTR"},
      {{Fail(EPIPE)}, "other error, errno=32"},
      {{Return(0)}, "partial write, waswritten=0"},
      {{Cut(1), Fail(EPIPE)}, "partial write, waswritten=1"},
      {{Cut(1), Fail(EINTR), Return(0)}, "partial write, waswritten=1; EINTR"},
  };
  char text[] = "abc";
  const iovec list[] = {{text, 3}};
  for (const auto& fault : kFaults) {
    ClearLog();
    LogSpoilsErrno(ENOSPC);
    const Script script(Call::kWritev, fault.steps);
    std::size_t written = 7;
    EXPECT_EQ(a->WriteBlockingIOV(list, 1, written), -1);
    EXPECT_EQ(written, 0U);
    EXPECT_EQ(Log(), fault.log);
    EXPECT_EQ(script.count(), fault.steps.size());
  }
  std::size_t written = 7;
  EXPECT_EQ(a->WriteBlockingIOV(nullptr, 1, written), -1);
  EXPECT_EQ(a->WriteBlockingIOV(list, -1, written), -1);
  const iovec empty[] = {{text, 0}, {nullptr, 0}};
  const Script script(Call::kWritev);
  EXPECT_EQ(a->WriteBlockingIOV(list, 0, written), 0);
  EXPECT_EQ(a->WriteBlockingIOV(empty, 2, written), 0);
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

TEST_F(SockTest, APairIsFourBlockingDescriptorsThatExecCloses) {
  std::map<int, int> seen;
  for (JCXXSock* sock : {a.get(), b.get()}) {
    for (auto get : {&JCXXSock::GetReadFD, &JCXXSock::GetWriteFD}) {
      int fd = -1;
      EXPECT_EQ((sock->*get)(fd), 0);
      EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
      EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
      ++seen[fd];
    }
  }
  EXPECT_EQ(seen.size(), 4U);
  for (std::size_t good = 0; good < 2; ++good) {
    std::vector<Step> steps(good);
    steps.push_back(Fail(EMFILE));
    const Script script(Call::kPipe, steps);
    EXPECT_THROW(SockFromPipes::MakeSockPairFromPipes(), std::bad_alloc);
  }
}

TEST_F(SockTest, ClosingOneEndEndsTheWaitAtTheOther) {
  std::thread reader([&] {
    unsigned char byte = 0;
    std::size_t got = 0;
    EXPECT_EQ(b->ReadBlocking(&byte, 1, got), 0);
    EXPECT_EQ(b->ReadBlocking(&byte, 1, got), -1);
  });
  Feed("x");
  a.reset();
  reader.join();
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
