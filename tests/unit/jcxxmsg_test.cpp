// jcxxmsg_test.cpp - building messages, and messages and signals on a sock.
#include "jcxxmsg.h"

#include <cstdlib>
#include <new>

#include "jcxxframe.h"
#include "support.h"

namespace {

using namespace support;
using namespace std::string_literals;

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

// A message in words: "signal 9", "[ab][cde]", "empty".
std::string Words(const Owned& msg) {
  if (msg->IsSignalMsg()) {
    return "signal " + std::to_string(msg->GetSignalValue());
  }
  std::string words;
  for (JCXXFrame* frame : msg->GetFrameList()) {
    words += '[' + std::string(frame->data.begin(), frame->data.end()) + ']';
  }
  EXPECT_EQ(msg->GetSize(), words.size() - 2 * msg->GetFrameList().size());
  return words.empty() ? "empty" : words;
}

TEST_F(MsgTest, AMessageIsWrittenAsItsFrames) {
  const std::pair<Frames, std::string> kMessages[] = {{{"hello"}, "\5hello"},
                                                      {{"ab", "cde"}, "\x45\2ab\3cde"},
                                                      {{"", "ab", ""}, "\x42\0\2ab\0"s},
                                                      {{}, "\x40"},
                                                      {{""}, "\0"s}};
  for (const auto& [frames, wire] : kMessages) {
    EXPECT_EQ(Make(frames)->WriteMessage(a.get()), 0);
    EXPECT_EQ(Drain(), wire);
  }
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(a.get(), 200), 0);
  EXPECT_EQ(Drain(), "\xC0\xC8");
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(nullptr, 1), -1);
  EXPECT_EQ(Log(), "NULL pointer");
}

// A sock that notes where the entries of its only write point to.
struct Gatherer : JCXXSock {
  std::vector<const void*> places;
  int WriteBlockingIOV(const iovec* iov, int count, std::size_t& written) override {
    EXPECT_TRUE(places.empty());
    written = 0;
    for (int i = 0; i < count; ++i) {
      places.push_back(iov[i].iov_base);
      written += iov[i].iov_len;
    }
    return 0;
  }
};

TEST_F(MsgTest, AMessageLeavesInOneWriteThatPointsIntoItsFrames) {
  Gatherer sock;
  const Owned msg = Make({"ab", "", "cde"});
  EXPECT_EQ(msg->WriteMessage(&sock), 0);
  std::vector<const void*> expected(1, sock.places.at(0));  // the message header
  for (JCXXFrame* frame : msg->GetFrameList()) {
    expected.push_back(frame->header);
    if (frame->GetSize() != 0) {
      expected.push_back(frame->GetData());
    }
  }
  EXPECT_EQ(sock.places, expected);
}

// The sweep of the decoder sees what is received; here are the lines, and that
// the next message is still good.
TEST_F(MsgTest, ARefusedMessageTellsWhy) {
  const std::pair<std::string, const char*> kStreams[] = {{"\x45\6abcdef", "too much data"},
                                                          {"\x45\2ab\4cdef", "too much data"},
                                                          {"\x45\x81", "got a non-data frame"},
                                                          {"\x45\x30\0\x10\0\1"s, ""}};
  for (const auto& [stream, log] : kStreams) {
    ClearLog();
    Feed(stream + "\1g");
    EXPECT_EQ(b->Recv(), nullptr);
    EXPECT_EQ(Log(), log);
    EXPECT_EQ(Words(Owned(b->Recv())), "[g]");
  }
}

TEST_F(MsgTest, WhatIsBeyondALimitIsNotSent) {
  const std::string half(524288, 'x');
  const std::string over = half + half + "z";
  Owned msg = Make({half, half, "y"});
  EXPECT_THROW(msg->WriteMessage(a.get()), std::bad_alloc);
  EXPECT_EQ(Make(Frames(512, "x"))->WriteMessage(a.get()), -1);
  JCXXMsg* none = nullptr;
  EXPECT_EQ(a->Send(nullptr), -1);
  EXPECT_EQ(a->Send(&none), -1);
  JCXXMsg* handle = msg.get();
  EXPECT_EQ(j_msg_send(&handle, a.get()), -1);
  EXPECT_EQ(handle, msg.get());
  EXPECT_EQ(Log(), "other error, errno=22; std::bad_alloc");
  EXPECT_EQ(msg->AddMem(over.data(), over.size()), -1);
  EXPECT_EQ(msg->AddStr(over.c_str()), -1);
  EXPECT_EQ(msg->AddStr(over.c_str() + 1), 0);
  EXPECT_EQ(Drain(), "");
  EXPECT_EQ(Make(Frames(511, "x"))->WriteMessage(a.get()), 0);
}

TEST_F(MsgTest, FramesLeaveInTheOrderInWhichTheyCame) {
  const Owned msg = Make({"a\0b"s});
  EXPECT_EQ(msg->AddStr("cde"), 0);
  EXPECT_EQ(msg->AddMem(nullptr, 2), 0);
  EXPECT_EQ(msg->AddStr(nullptr), -1);
  EXPECT_EQ(msg->AppendDataFrame(nullptr), -1);
  EXPECT_EQ(Words(msg), "[a\0b][cde][\0\0]"s);
  const std::unique_ptr<char, void (*)(void*)> text(msg->PopStr(), std::free);
  EXPECT_EQ(std::string(text.get(), 4), "a\0b\0"s);
  delete msg->Pop();
  EXPECT_EQ(Words(msg), "[\0\0]"s);
  msg->DeallocateList();
  EXPECT_EQ(Words(msg), "empty");
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
  EXPECT_EQ(signal.AppendDataFrame(&frame), -1);
  EXPECT_EQ(signal.Pop(), nullptr);
  EXPECT_EQ(data.AppendDataFrame(&header), -1);
  nothing.SetSize(0);
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(&nothing)), "signal 0");
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(&header)), "empty");
  EXPECT_EQ(Words(std::make_unique<JCXXMsg>(static_cast<JCXXFrame*>(nullptr))), "empty");
}

}  // namespace
