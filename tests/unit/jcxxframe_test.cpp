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

// A frame in words: "null", "data abc", "header 5", "signal 9".
std::string Words(JCXXFrame* frame) {
  if (frame == nullptr) {
    return "null";
  }
  if (frame->IsMsgHeaderFrame()) {
    return "header " + std::to_string(frame->GetSize());
  }
  if (frame->IsSignalFrame()) {
    return "signal " + std::to_string(frame->data.at(0));
  }
  return "data " + std::string(frame->data.begin(), frame->data.end());
}

std::string HeaderOf(JCXXFrame& frame) {
  EXPECT_EQ(frame.BuildHeaderInFive(), 0);
  return {reinterpret_cast<char*>(frame.header), frame.header_len};
}

TEST_F(FrameTest, AHeaderTakesTheShortestFormAtEverySizeBoundary) {
  const struct {
    std::uint32_t size;
    const char* header;
  } kSizes[] = {{0, "00"},
                {1, "01"},
                {15, "0F"},
                {16, "10 00"},
                {20, "10 04"},
                {271, "10 FF"},
                {272, "11 00"},
                {300, "11 1C"},
                {4111, "1F FF"},
                {4112, "20 10 10"},
                {65535, "20 FF FF"},
                {65536, "30 00 01 00 00"},
                {65537, "30 00 01 00 01"},
                {1048576, "30 00 10 00 00"}};
  KeepLog(kErrors);
  for (const auto& [size, header] : kSizes) {
    std::string bytes = Bytes(header);
    JCXXFrame data;
    data.SetSize(size);
    EXPECT_EQ(HeaderOf(data), bytes);
    std::thread writer([&] {
      EXPECT_EQ(data.WriteFrameToSock(a.get()), 0);
      EXPECT_EQ(data.WriteFrameToSock(a.get()), 0);
    });
    std::string wire(bytes.size() + size, 'x');
    std::size_t got = 0;
    EXPECT_EQ(b->ReadBlocking(reinterpret_cast<unsigned char*>(wire.data()), wire.size(), got), 0);
    const std::unique_ptr<JCXXFrame> read(JCXXFrame::ReadFrameFromSock(b.get()));
    writer.join();
    EXPECT_TRUE(wire == bytes + std::string(size, '\0'));
    ASSERT_NE(read, nullptr);
    EXPECT_TRUE(read->data == data.data);
    JCXXFrame announcement(size);
    bytes[0] = static_cast<char>(bytes[0] | 0x40);
    EXPECT_EQ(HeaderOf(announcement), bytes);
    EXPECT_EQ(announcement.WriteFrameToSockNonBlocking(a.get()), 0);
    EXPECT_EQ(Drain(), bytes);
  }
  for (const auto& [value, header] :
       {std::pair(0, "80"), {1, "81"}, {63, "BF"}, {64, "C0 40"}, {200, "C0 C8"}, {255, "C0 FF"}}) {
    JCXXFrame signal(static_cast<unsigned char>(value));
    EXPECT_EQ(HeaderOf(signal), Bytes(header));
    EXPECT_EQ(signal.WriteFrameToSock(a.get()), 0);
    EXPECT_EQ(Drain(), Bytes(header));
  }
}

// Streams, good and bad, that end where the digits end: the frame that is read,
// what stays behind it, and the trace.
TEST_F(FrameTest, AFrameIsReadFromWhateverArrives) {
  const struct {
    const char *stream, *frame, *rest, *log;
  } kStreams[] = {
      {"03 616263 64", "data abc", "64", "frame or msg"},
      {"00 64", "data ", "64", "frame or msg"},
      {"45 02", "header 5", "02", "frame or msg"},
      {"20 0002 6162", "data ab", "", "frame or msg"},
      {"2F 0002 6162", "data ab", "", "frame or msg"},
      {"30 00000002 6162", "data ab", "", "frame or msg"},
      {"3F 00000000 61", "data ", "61", "frame or msg"},
      {"50 00", "header 16", "", "frame or msg"},
      {"70 00100000", "header 1048576", "", "frame or msg"},
      {"30 00100001 6162", "null", "6162", "frame or msg"},
      {"70 00100001 6162", "null", "6162", "frame or msg"},
      {"30 FFFFFFFF 61", "null", "61", "frame or msg"},
      {"BF 61", "signal 63", "61", "signal 6"},
      {"C0 40", "signal 64", "", " default case signal 8"},
      {"FF 07 61", "signal 7", "61", " default case signal 8"},
      {"", "null", "", "irv=-1"},
      {"C0", "null", "", " default case signal 8"},
      {"05 6162", "null", "", "frame or msg"},
      {"10", "null", "", "frame or msg"},
      {"20 00", "null", "", "frame or msg"},
      {"30 000000", "null", "", "frame or msg"},
  };
  for (const auto& row : kStreams) {
    SetUpPair();
    ClearLog();
    Feed(Bytes(row.stream));
    a.reset();
    const std::unique_ptr<JCXXFrame> frame(JCXXFrame::ReadFrameFromSockNonBlocking(b.get()));
    EXPECT_EQ(Words(frame.get()), row.frame) << row.stream;
    EXPECT_EQ(Drain(), Bytes(row.rest)) << row.stream;
    EXPECT_EQ(Log(kAll, "ReadFrameFromSock"), row.log) << row.stream;
    EXPECT_EQ(Log(), *row.stream == '\0' ? row.log : "") << row.stream;
  }
  EXPECT_EQ(JCXXFrame::ReadFrameFromSock(nullptr), nullptr);
  EXPECT_EQ(Log(), "psock is NULL");
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
  iovec list[3] = {};
  int used = 7;
  std::size_t total = 8;
  EXPECT_EQ(data.FillWriteIOVs(nullptr, 2, used, total), -1);
  EXPECT_EQ(header.FillWriteIOVs(list, 1, used, total), -1);
  EXPECT_EQ(Log(), "FillWriteIOVs NULL pointer; FillWriteIOVs less than 2 iovs");
  EXPECT_EQ(used, 7);
  EXPECT_EQ(total, 8U);
  for (JCXXFrame* alone : {&data, &header}) {
    EXPECT_EQ(alone->FillWriteIOVs(list, 2, used, total), 0);
    EXPECT_EQ(used, 1);
    EXPECT_EQ(total, 1U);
    EXPECT_EQ(list[0].iov_base, alone->header);
    EXPECT_EQ(list[1].iov_base, nullptr);
  }
  data.SetSize(20);
  EXPECT_EQ(data.FillWriteIOVs(list, 3, used, total), 0);
  EXPECT_EQ(used, 2);
  EXPECT_EQ(total, 22U);
  EXPECT_EQ(list[1].iov_base, data.GetData());
  EXPECT_EQ(list[1].iov_len, 20U);
  JCXXFrame signal(static_cast<unsigned char>(1));
  signal.SetSize(0);
  EXPECT_EQ(signal.FillWriteIOVs(list, 2, used, total), -1);
  EXPECT_EQ(used, 0);
  EXPECT_EQ(total, 0U);
}

TEST_F(FrameTest, AFrameHoldsWhatItWasGiven) {
  JCXXFrame frame;
  EXPECT_EQ(frame.GetData(), nullptr);
  frame.SetSize(3);
  EXPECT_EQ(Words(&frame), std::string("data ") + std::string(3, '\0'));
  std::string text = "abcde";
  frame.CopyIntoBuffer(reinterpret_cast<unsigned char*>(text.data()), 5);
  frame.SetSize(6);
  EXPECT_EQ(Words(&frame), std::string("data abcde") + '\0');
  frame.SetSize(2);
  EXPECT_EQ(Words(&frame), "data ab");
  JCXXFrame header(1048576U);
  EXPECT_EQ(header.GetSize(), 1048576U);
  EXPECT_EQ(header.GetData(), nullptr);
  EXPECT_THROW(JCXXFrame(1048577U), std::bad_alloc);
  EXPECT_EQ(Log(kAll), "");
}

}  // namespace
