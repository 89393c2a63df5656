// jcxxmsg_test.cpp - building messages, and the bytes of messages and signals.
#include "jcxxmsg.h"

#include <cerrno>

#include "jcxxframe.h"
#include "support.h"

namespace {

using namespace support;
using namespace std::string_literals;

using Frames = std::vector<std::string>;
using Owned = std::unique_ptr<JCXXMsg>;

Owned Make(const Frames& frames) {
  auto msg = std::make_unique<JCXXMsg>();
  for (const std::string& frame : frames) {
    EXPECT_EQ(msg->AddMem(frame.data(), frame.size()), 0);
  }
  return msg;
}

class MsgTest : public PairTest {
 protected:
  // The bytes that a message is sent as.
  std::string Wire(JCXXMsg& msg) {
    EXPECT_EQ(msg.WriteMessage(a.get()), 0);
    return Drain();
  }
};

TEST_F(MsgTest, AMessageIsWrittenAsItsFrames) {
  const std::pair<Frames, std::string> kMessages[] = {{{"hello"}, "\5hello"},
                                                      {{"ab", "cde"}, "\x45\2ab\3cde"},
                                                      {{"", "ab", ""}, "\x42\0\2ab\0"s},
                                                      {{}, "\x40"},
                                                      {{""}, "\0"s}};
  for (const auto& [frames, wire] : kMessages) {
    EXPECT_EQ(Wire(*Make(frames)), wire);
  }
}

TEST_F(MsgTest, ASignalIsWrittenInOneByteOrTwo) {
  const std::pair<unsigned char, std::string> kSignals[] = {
      {0, "\x80"}, {1, "\x81"}, {63, "\xBF"}, {64, "\xC0\x40"}, {255, "\xC0\xFF"}};
  for (const auto& [value, wire] : kSignals) {
    EXPECT_EQ(JCXXMsg::WriteSignalMessage(a.get(), value), 0);
    EXPECT_EQ(Drain(), wire);
  }
}

TEST_F(MsgTest, WhatIsBeyondALimitIsNotSent) {
  const std::string half(524288, 'x');
  const std::string over = half + half + "z";
  const Owned many = Make(Frames(512, "x"));
  const Owned large = Make({half, half, "y"});
  for (JCXXMsg* msg : {many.get(), large.get()}) {
    EXPECT_EQ(j_msg_send(&msg, a.get()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_NE(msg, nullptr);
  }
  EXPECT_EQ(Log(), "other error, errno=22; std::bad_alloc");
  EXPECT_EQ(j_msg_addmem(large.get(), over.data(), over.size()), -1);
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(large->AddStr(over.c_str()), -1);
  EXPECT_EQ(large->AddStr(over.c_str() + 1), 0);
  EXPECT_EQ(Drain(), "");
  EXPECT_EQ(Make(Frames(511, "x"))->WriteMessage(a.get()), 0);
}

TEST_F(MsgTest, ANullSourceAddsZerosAndDeallocatingDropsAllFrames) {
  JCXXMsg msg;
  EXPECT_EQ(msg.AddMem(nullptr, 2), 0);
  EXPECT_EQ(Wire(msg), "\2\0\0"s);
  msg.DeallocateList();
  EXPECT_EQ(Wire(msg), "\x40");
}

TEST_F(MsgTest, WhatCannotStandInAMessageIsLeftOut) {
  JCXXMsg signal(static_cast<unsigned char>(9));
  JCXXMsg data;
  JCXXFrame frame;
  JCXXFrame header(5U);
  JCXXFrame nothing(static_cast<unsigned char>(7));
  nothing.SetSize(0);
  EXPECT_EQ(j_msg_addstr(&signal, "a"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(signal.AppendDataFrame(&frame), -1);
  EXPECT_EQ(data.AppendDataFrame(&header), -1);
  EXPECT_EQ(data.AppendDataFrame(nullptr), -1);
  EXPECT_EQ(JCXXMsg(&nothing).GetSignalValue(), 0);
  EXPECT_EQ(JCXXMsg(&header).GetSize(), 0U);
  EXPECT_EQ(JCXXMsg(static_cast<JCXXFrame*>(nullptr)).GetSize(), 0U);
}

TEST_F(MsgTest, AMissingSockOrMessageIsRefused) {
  JCXXMsg* none = nullptr;
  EXPECT_EQ(JCXXMsg::WriteSignalMessage(nullptr, 1), -1);
  EXPECT_EQ(JCXXMsg::ReadMessage(nullptr), nullptr);
  EXPECT_EQ(Log(), "NULL pointer; psock is NULL");
  EXPECT_EQ(JCXXMsg().AddStr(nullptr), -1);
  EXPECT_EQ(a->Send(nullptr), -1);
  EXPECT_EQ(a->Send(&none), -1);
}

}  // namespace
