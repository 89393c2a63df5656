// jcxxmsg_test.cpp - building messages, and messages and signals on a sock.
#include "jcxxmsg.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "jcxxframe.h"
#include "support.h"

namespace {

using namespace support;

using MsgTest = PairTest;
using Frames = std::vector<std::string>;
using Owned = std::unique_ptr<JCXXMsg>;

Owned Make(const Frames& frames) {
  auto msg = std::make_unique<JCXXMsg>();
  for (const std::string& frame : frames) {
    EXPECT_EQ(msg->AddMem(frame.data(), frame.size()), 0);
  }
  return msg;
}

// A message in words: "null", "signal 9", "[ab][cde]", "empty".
std::string Words(const Owned& msg) {
  if (msg == nullptr) {
    return "null";
  }
  if (msg->IsSignalMsg()) {
    return "signal " + std::to_string(msg->GetSignalValue());
  }
  std::string words = msg->GetFrameList().empty() ? "empty" : "";
  std::size_t size = 0;
  for (JCXXFrame* frame : msg->GetFrameList()) {
    words += "[" + std::string(frame->data.begin(), frame->data.end()) + "]";
    size += frame->GetSize();
  }
  EXPECT_EQ(msg->GetSize(), size);
  return words;
}

TEST_F(MsgTest, AMessageIsWrittenAsItsFrames) {
  const struct {
    Frames frames;
    const char* wire;
  } kMessages[] = {{{"hello"}, "05 68656C6C6F"},
                   {{"ab", "cde"}, "45 02 6162 03 636465"},
                   {{"", "ab", ""}, "42 00 02 6162 00"},
                   {{}, "40"},
                   {{""}, "00"}};
  for (const auto& row : kMessages) {
    EXPECT_EQ(Make(row.frames)->WriteMessage(a.get()), 0);
    EXPECT_EQ(Drain(), Bytes(row.wire));
  }
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(a.get(), 1), 0);
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(a.get(), 200), 0);
  EXPECT_EQ(Drain(), Bytes("81 C0C8"));
}

// The sweep of the decoder sees what is received; here are the lines, and that
// the next message is still good.
TEST_F(MsgTest, ARefusedMessageTellsWhy) {
  const std::pair<const char*, const char*> kStreams[] = {
      {"45 06 616263646566", "too much data"},
      {"45 02 6162 04 63646566", "too much data"},
      {"45 81", "got a non-data frame"},
      {"45 30 00100001", ""}};
  for (const auto& [stream, log] : kStreams) {
    ClearLog();
    Feed(Bytes(stream) + "\1g");
    EXPECT_EQ(Words(Owned(b->Recv())), "null");
    EXPECT_EQ(Log(kErrors, "ReadMessage"), log) << stream;
    EXPECT_EQ(Words(Owned(b->Recv())), "[g]");
  }
}

TEST_F(MsgTest, TheLimitIsAMegabytePerFrameAndPerMessage) {
  KeepLog(kErrors);
  const std::string half(524288, 'x');
  const Owned most = Make({half, half});
  std::thread writer([&] { EXPECT_EQ(most->WriteMessage(a.get()), 0); });
  EXPECT_TRUE(Words(Owned(b->Recv())) == Words(most));
  writer.join();
  Owned msg = Make({half, half, "y"});
  const Script script(Call::kWritev);
  EXPECT_THROW(msg->WriteMessage(a.get()), std::bad_alloc);
  JCXXMsg* none = nullptr;
  EXPECT_EQ(a->Send(nullptr), -1);
  EXPECT_EQ(a->Send(&none), -1);
  JCXXMsg* handle = msg.get();
  EXPECT_EQ(j_msg_send(&handle, a.get()), -1);
  EXPECT_EQ(Log(), "std::bad_alloc");
  EXPECT_EQ(handle, msg.get());
  EXPECT_EQ(msg->GetFrameList().size(), 3U);
  const std::string over = half + half + "z";
  EXPECT_EQ(msg->AddMem(over.data(), over.size()), -1);
  EXPECT_EQ(msg->AddStr(over.c_str()), -1);
  EXPECT_EQ(msg->AddStr(over.c_str() + 1), 0);
  EXPECT_EQ(script.count(), 0U);
  EXPECT_EQ(Make(Frames(511, "x"))->WriteMessage(a.get()), 0);
  EXPECT_EQ(Make(Frames(512, "x"))->WriteMessage(a.get()), -1);
  EXPECT_EQ(Log(kErrors, "WriteBlockingIOV"), "other error, errno=22");
}

TEST_F(MsgTest, AMessageLeavesInOneWriteThatPointsIntoItsFrames) {
  const Owned msg = Make({"ab", "", "cde"});
  const Script script({Call::kWrite, Call::kWritev});
  ASSERT_EQ(msg->WriteMessage(a.get()), 0);
  ASSERT_EQ(script.count(), 1U);
  const std::vector<iovec>& list = script.gathered().at(0);
  ASSERT_EQ(list.size(), 6U);  // one for the message header
  std::size_t entry = 1;
  for (JCXXFrame* frame : msg->GetFrameList()) {
    EXPECT_EQ(list.at(entry++).iov_base, frame->header);
    if (frame->GetSize() != 0) {
      EXPECT_EQ(list.at(entry++).iov_base, frame->GetData());
    }
  }
}

TEST_F(MsgTest, AThousandQueuedMessagesCostTenSystemCalls) {
  KeepLog(kErrors);
  const std::string text(32, 'x');
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(Make({text})->WriteMessage(a.get()), 0);
  }
  const Script script({Call::kRead, Call::kReadv, Call::kIoctl, Call::kFcntl});
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(Words(Owned(b->Recv())), "[" + text + "]");
  }
  EXPECT_LE(script.count(), 10U);
}

TEST_F(MsgTest, WaitingForASignalDropsWhatComesBefore) {
  Feed(Bytes("01 61 40 89 01 62"));
  EXPECT_EQ(JCXXMsg::WaitForSignal(b.get()), 0);
  EXPECT_EQ(Log(kAll, "WaitForSignal"), "not a signal; not a signal");
  EXPECT_EQ(Words(Owned(b->Recv())), "[b]");
  a.reset();
  EXPECT_EQ(JCXXMsg::WaitForSignal(b.get()), -1);
  EXPECT_EQ(Log(), "irv=-1");
}

TEST_F(MsgTest, TransfersTellTheirSteps) {
  const Owned msg = Make({"ab", "c"});
  EXPECT_EQ(msg->WriteMessage(a.get()), 0);
  EXPECT_EQ(Log(kAll, "WriteMessage"),
            "WriteMessage; write not a signal message; frame count is 2; message has either zero "
            "or multiple frames; before WriteBlockingIOV; after WriteBlockingIOV, irv=0");
  EXPECT_EQ(Words(Owned(b->Recv())), "[ab][c]");
  EXPECT_EQ(Log(kAll, "ReadMessage"),
            "ReadMessage; reading a frame; got a message header frame; reading a data frame; "
            "reading a data frame; no more data frames needed");
  EXPECT_EQ(Log(kAll, "JCXXMsg"), "b msg_size=0");
  ClearLog();
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(a.get(), 9), 0);
  EXPECT_EQ(Make({"abc"})->WriteMessage(a.get()), 0);
  EXPECT_EQ(Log(kAll, "WriteMessage"),
            "WriteMessage; write a signal message; WriteMessage rc=0; WriteMessage; write not a "
            "signal message; frame count is 1; message has a single frame; before "
            "WriteBlockingIOV; after WriteBlockingIOV, irv=0");
  ClearLog();
  EXPECT_EQ(Words(Owned(b->Recv())), "signal 9");
  EXPECT_EQ(Words(Owned(b->Recv())), "[abc]");
  a.reset();
  EXPECT_EQ(Words(Owned(b->Recv())), "null");
  EXPECT_EQ(Log(kAll, "ReadMessage"),
            "ReadMessage; reading a frame; got a signal frame; ReadMessage; reading a frame; got a "
            "data frame type; ReadMessage; reading a frame; no frame available");
  EXPECT_EQ(Log(kAll, "JCXXMsg"), "c msg_size=3");
  ClearLog();
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(nullptr, 1), -1);
  EXPECT_EQ(Log(kErrors, "WriteMessage"), "NULL pointer");
}

TEST_F(MsgTest, FramesLeaveInTheOrderInWhichTheyCame) {
  const Owned msg = Make({std::string("a\0b", 3)});
  EXPECT_EQ(msg->AddStr("cde"), 0);
  EXPECT_EQ(msg->AddMem(nullptr, 2), 0);
  EXPECT_EQ(msg->AddStr(nullptr), -1);
  EXPECT_EQ(msg->AppendDataFrame(nullptr), -1);
  EXPECT_EQ(Words(msg), std::string("[a\0b][cde][\0\0]", 14));
  const std::unique_ptr<char, void (*)(void*)> text(msg->PopStr(), std::free);
  EXPECT_EQ(std::memcmp(text.get(), "a\0b", 4), 0);
  const std::unique_ptr<JCXXFrame> popped(msg->Pop());
  EXPECT_EQ(popped->GetSize(), 3U);
  EXPECT_EQ(Words(msg), std::string("[\0\0]", 4));
  msg->DeallocateList();
  EXPECT_EQ(msg->GetSize(), 0U);
  EXPECT_EQ(msg->Pop(), nullptr);
  EXPECT_EQ(msg->PopStr(), nullptr);
}

TEST_F(MsgTest, ASignalOrAForeignFrameIsRefused) {
  JCXXMsg signal(static_cast<unsigned char>(9));
  JCXXMsg data;
  JCXXFrame frame;
  JCXXFrame header(5U);
  JCXXFrame nothing(static_cast<unsigned char>(7));
  EXPECT_EQ(signal.AddMem("a", 1), -1);
  EXPECT_EQ(signal.AddStr("a"), -1);
  EXPECT_EQ(signal.AppendDataFrame(&frame), -1);
  EXPECT_EQ(signal.Pop(), nullptr);
  EXPECT_EQ(data.AppendDataFrame(&header), -1);
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(&nothing)), "signal 7");
  nothing.SetSize(0);
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(&nothing)), "signal 0");
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(&header)), "empty");
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(static_cast<JCXXFrame*>(nullptr))), "empty");
}

}  // namespace
