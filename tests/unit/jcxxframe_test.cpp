// jcxxframe_test.cpp - the bytes of a frame on the wire, and what is made of
// bytes that come from there.
#include "jcxxframe.h"

#include <cstddef>
#include <new>
#include <thread>

#include "support.h"

namespace {

using namespace support;

using FrameTest = PairTest;

TEST_F(FrameTest, AHeaderTakesTheShortestFormAtEverySizeBoundary) {
  const std::pair<std::uint32_t, const char*> kSizes[] = {{0, "00"},
                                                          {15, "0F"},
                                                          {16, "10 00"},
                                                          {271, "10 FF"},
                                                          {272, "11 00"},
                                                          {4111, "1F FF"},
                                                          {4112, "20 10 10"},
                                                          {65535, "20 FF FF"},
                                                          {65536, "30 00 01 00 00"},
                                                          {1048576, "30 00 10 00 00"}};
  KeepLog(kErrors);
  for (const auto& [size, header] : kSizes) {
    std::string bytes = Bytes(header);
    JCXXFrame data;
    data.SetSize(size);
    std::thread writer([&] { EXPECT_EQ(data.WriteFrameToSock(a.get()), 0); });
    std::string wire(bytes.size() + size, 'x');
    std::size_t got = 0;
    EXPECT_EQ(b->ReadBlocking(reinterpret_cast<unsigned char*>(wire.data()), wire.size(), got), 0);
    writer.join();
    EXPECT_TRUE(wire == bytes + std::string(size, '\0')) << size;
    JCXXFrame announcement(size);
    bytes[0] = static_cast<char>(bytes[0] | 0x40);
    EXPECT_EQ(announcement.WriteFrameToSockNonBlocking(a.get()), 0);
    EXPECT_EQ(Drain(), bytes);
  }
  for (const auto& [value, header] :
       {std::pair(0, "80"), {63, "BF"}, {64, "C0 40"}, {255, "C0 FF"}}) {
    JCXXFrame signal(static_cast<unsigned char>(value));
    EXPECT_EQ(signal.WriteFrameToSock(a.get()), 0);
    EXPECT_EQ(Drain(), Bytes(header));
  }
}

// The sweep of the decoder sees what is read; here are the lines.
TEST_F(FrameTest, AReadTellsTheFormOfTheFrame) {
  const std::pair<const char*, const char*> kStreams[] = {{"03 616263", "frame or msg"},
                                                          {"70 00100001", "frame or msg"},
                                                          {"BF", "signal 6"},
                                                          {"FF 07", " default case signal 8"}};
  for (const auto& [stream, log] : kStreams) {
    ClearLog();
    Feed(Bytes(stream));
    delete JCXXFrame::ReadFrameFromSockNonBlocking(b.get());
    EXPECT_EQ(Log(kAll, "ReadFrameFromSock"), log) << stream;
  }
  a.reset();
  EXPECT_EQ(JCXXFrame::ReadFrameFromSock(b.get()), nullptr);
  EXPECT_EQ(JCXXFrame::ReadFrameFromSock(nullptr), nullptr);
  EXPECT_EQ(Log(), "irv=-1; psock is NULL");
}

// A sock whose writes answer as told.
struct OddSock : JCXXSock {
  int rc = 0;
  std::size_t count = 0;
  int WriteBlocking(unsigned char*, std::size_t, std::size_t& written) override {
    written = count;
    return rc;
  }
  int WriteBlockingIOV(const iovec*, int, std::size_t& written) override {
    written = count;
    return rc;
  }
};

TEST_F(FrameTest, AFailedWriteGivesTheSocksResultAndItsLine) {
  JCXXFrame data;
  JCXXFrame small(static_cast<unsigned char>(1));
  JCXXFrame big(static_cast<unsigned char>(64));
  JCXXFrame twisted(static_cast<unsigned char>(64));
  twisted.SetSize(2);
  OddSock sock;
  const struct {
    JCXXFrame* frame;
    JCXXSock* sock;
    int rc;
    std::size_t count;
    int result;
    const char* log;
  } kFaults[] = {
      {&data, &sock, 7, 0, 7, ""},
      {&data, &sock, 0, 2, -1, "size mismatch"},
      {&small, &sock, 7, 0, 7, "WriteBlocking failed"},
      {&small, &sock, 0, 2, -1, "WriteBlocking failed 2, waswritten=2"},
      {&big, &sock, 7, 0, 7, "WriteBlocking failed 3"},
      {&big, &sock, 0, 1, -1, "WriteBlocking failed 4"},
      {&twisted, &sock, 0, 2, -1, "not size 1"},
      {&data, nullptr, 0, 0, -1, "WriteFrameToSock NULL pointer"},
  };
  for (const auto& fault : kFaults) {
    ClearLog();
    sock.rc = fault.rc;
    sock.count = fault.count;
    EXPECT_EQ(fault.frame->WriteFrameToSock(fault.sock), fault.result);
    EXPECT_EQ(Log(), fault.log);
  }
  EXPECT_EQ(twisted.BuildHeaderInFive(), -1);
  EXPECT_EQ(twisted.header_len, 0U);
}

TEST_F(FrameTest, GatherEntriesPointIntoTheFrame) {
  JCXXFrame data;
  JCXXFrame header(5U);
  JCXXFrame broken(static_cast<unsigned char>(1));
  iovec list[3] = {};
  int used = 7;
  std::size_t total = 8;
  EXPECT_EQ(data.FillWriteIOVs(nullptr, 2, used, total), -1);
  EXPECT_EQ(header.FillWriteIOVs(list, 1, used, total), -1);
  EXPECT_EQ(Log(), "FillWriteIOVs NULL pointer; FillWriteIOVs less than 2 iovs");
  EXPECT_EQ(std::pair(used, total), std::pair(7, std::size_t{8}));
  for (JCXXFrame* alone : {&data, &header}) {
    EXPECT_EQ(alone->FillWriteIOVs(list, 2, used, total), 0);
    EXPECT_EQ(std::pair(used, total), std::pair(1, std::size_t{1}));
    EXPECT_EQ(list[0].iov_base, alone->header);
    EXPECT_EQ(list[1].iov_base, nullptr);
  }
  data.SetSize(20);
  EXPECT_EQ(data.FillWriteIOVs(list, 3, used, total), 0);
  EXPECT_EQ(std::pair(used, total), std::pair(2, std::size_t{22}));
  EXPECT_EQ(list[1].iov_base, data.GetData());
  EXPECT_EQ(list[1].iov_len, 20U);
  broken.SetSize(0);
  EXPECT_EQ(broken.FillWriteIOVs(list, 2, used, total), -1);
  EXPECT_EQ(std::pair(used, total), std::pair(0, std::size_t{0}));
}

TEST_F(FrameTest, AFrameHoldsWhatItWasGiven) {
  JCXXFrame frame;
  std::string text = "abcde";
  const auto words = [&] { return std::string(frame.data.begin(), frame.data.end()); };
  EXPECT_EQ(frame.GetData(), nullptr);
  frame.CopyIntoBuffer(reinterpret_cast<unsigned char*>(text.data()), 5);
  frame.SetSize(6);
  EXPECT_EQ(words(), text + '\0');
  frame.SetSize(2);
  EXPECT_EQ(words(), "ab");
  EXPECT_EQ(JCXXFrame(1048576U).GetSize(), 1048576U);
  EXPECT_THROW(JCXXFrame(1048577U), std::bad_alloc);
  EXPECT_EQ(Log(kAll), "");
}

}  // namespace
