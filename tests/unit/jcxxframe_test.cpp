// jcxxframe_test.cpp - the bytes of a frame on the wire.
#include "jcxxframe.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "jcxxmsg.h"
#include "support.h"

namespace {

using namespace support;
using namespace std::string_literals;

using FrameTest = PairTest;

TEST_F(FrameTest, AHeaderTakesTheShortestFormAtEverySizeBoundary) {
  const std::pair<std::uint32_t, std::string> kSizes[] = {{0, "\0"s},
                                                          {15, "\x0F"},
                                                          {16, "\x10\0"s},
                                                          {271, "\x10\xFF"},
                                                          {272, "\x11\0"s},
                                                          {4111, "\x1F\xFF"},
                                                          {4112, "\x20\x10\x10"},
                                                          {65535, "\x20\xFF\xFF"},
                                                          {65536, "\x30\0\1\0\0"s},
                                                          {1048576, "\x30\0\x10\0\0"s}};
  for (auto [size, header] : kSizes) {
    JCXXFrame data;
    data.SetSize(size);
    EXPECT_EQ(data.BuildHeaderInFive(), 0);
    EXPECT_EQ(std::string(data.header, data.header + data.header_len), header);
    header[0] = static_cast<char>(header[0] | 0x40);
    EXPECT_EQ(JCXXFrame(size).WriteFrameToSock(a.get()), 0);
    EXPECT_EQ(Drain(), header);
  }
}

TEST_F(FrameTest, ADataFrameIsWrittenAsItsHeaderAndItsBytes) {
  JCXXFrame data;
  EXPECT_EQ(data.GetData(), nullptr);
  data.SetSize(3);
  EXPECT_EQ(data.WriteFrameToSock(a.get()), 0);
  EXPECT_EQ(Drain(), "\3\0\0\0"s);
}

// A sock that tells of more bytes than there are, after its first `truths` reads, and of a
// descriptor that it has not.
struct OddSock : JCXXSock {
  int truths = 0;
  int GetReadFD(int&) override { return 0; }
  int ReadBlocking(unsigned char* buf, std::size_t size, std::size_t& got) override {
    *buf = 1;  // a data frame of one byte
    got = truths-- > 0 ? size : size + 1;
    return 0;
  }
  int WriteBlocking(unsigned char*, std::size_t size, std::size_t& written) override {
    written = size + 1;
    return 0;
  }
  int WriteBlockingIOV(const iovec* iov, int, std::size_t& written) override {
    return WriteBlocking(nullptr, iov->iov_len, written);
  }
};

TEST_F(FrameTest, AFailedOrUntrueTransferIsAFailure) {
  OddSock odd;
  JCXXFrame data;
  JCXXFrame small(static_cast<unsigned char>(1));
  JCXXFrame big(static_cast<unsigned char>(64));
  const Script script({Call::kWrite, Call::kWritev}, {}, Fail(EPIPE));
  for (JCXXFrame* frame : {&small, &big, &data}) {
    EXPECT_EQ(frame->WriteFrameToSock(a.get()), -1);
    EXPECT_EQ(frame->WriteFrameToSock(&odd), -1);
  }
  EXPECT_EQ(Log(),
            "WriteBlocking failed; WriteBlocking failed 2, waswritten=2; WriteBlocking failed 3; "
            "WriteBlocking failed 4; other error, errno=32; size mismatch");
  std::size_t waiting = 0;
  EXPECT_EQ(JCXXMsg().WriteMessage(&odd), -1);
  for (const int truths : {0, 1}) {
    odd.truths = truths;
    EXPECT_EQ(JCXXFrame::ReadFrameFromSock(&odd), nullptr);
  }
  EXPECT_EQ(odd.AvailableToRead(waiting), -1);
  EXPECT_EQ(j_sock_fd(&odd), -1);
  EXPECT_EQ(j_sock_wait(&odd, 0), -1);
}

TEST_F(FrameTest, ATraceTellsTheFormOfASignal) {
  for (const auto& [bytes, line] :
       {std::pair("\x83", "signal 6"), std::pair("\xC0\x40", " default case signal 8")}) {
    Feed(bytes);
    ClearLog();
    const std::unique_ptr<JCXXFrame> frame(JCXXFrame::ReadFrameFromSock(b.get()));
    EXPECT_EQ(Log(kAll, "ReadFrameFromSock"), line);
  }
}

TEST_F(FrameTest, WhatCannotBeWrittenIsRefused) {
  JCXXFrame data;
  JCXXFrame signal(static_cast<unsigned char>(1));
  iovec list[2] = {};
  int used = 7;
  std::size_t total = 8;
  EXPECT_EQ(data.FillWriteIOVs(nullptr, 2, used, total), -1);
  EXPECT_EQ(data.FillWriteIOVs(list, 1, used, total), -1);
  EXPECT_EQ(std::pair(used, total), std::pair(7, std::size_t{8}));
  EXPECT_EQ(signal.FillWriteIOVs(list, 2, used, total), 0);
  EXPECT_EQ(std::pair(used, total), std::pair(1, std::size_t{1}));
  signal.SetSize(0);
  EXPECT_EQ(signal.FillWriteIOVs(list, 2, used, total), -1);
  EXPECT_EQ(std::pair(used, total), std::pair(0, std::size_t{0}));
  EXPECT_EQ(signal.WriteFrameToSock(a.get()), -1);
  EXPECT_EQ(data.WriteFrameToSock(nullptr), -1);
  EXPECT_EQ(Log(),
            "FillWriteIOVs NULL pointer; FillWriteIOVs less than 2 iovs; not size 1; "
            "not size 1; WriteFrameToSock NULL pointer");
}

}  // namespace
