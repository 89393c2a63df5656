// jcxxmsg.cpp - the message record, and messages and signals on a sock.
//
// On the stream, a message of one frame is only that data frame. Any other data
// message is a message-header frame announcing its payload bytes, then its data
// frames. A signal is one signal frame.
#include "jcxxmsg.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxsock.h"
#include "log.h"
#include "reason.h"
#include "registry.h"

namespace {

constexpr const char* kWriteMessage = "WriteMessage";
constexpr const char* kReadMessage = "ReadMessage";

// A gather list with room for the message header and every header and payload of a
// message of `frames` frames. A small one needs no heap memory.
class GatherList {
 public:
  explicit GatherList(std::size_t frames) : room_(std::max<std::size_t>(2 * frames + 1, 2)) {
    if (room_ > few_.size()) {
      many_.resize(room_);
    }
  }

  // Adds one frame's entries; returns the frame's result.
  int Add(JCXXFrame& frame) {
    int used = 0;
    std::size_t bytes = 0;
    const int rc =
        frame.FillWriteIOVs(data() + filled_, static_cast<int>(room_) - filled_, used, bytes);
    if (rc == 0) {
      filled_ += used;
      total_ += bytes;
    }
    return rc;
  }

  iovec* data() { return many_.empty() ? few_.data() : many_.data(); }
  int filled() const { return filled_; }
  std::size_t total() const { return total_; }

 private:
  std::array<iovec, 16> few_;
  std::vector<iovec> many_;
  std::size_t room_;
  int filled_ = 0;
  std::size_t total_ = 0;
};

int WriteSignalFrame(JCXXSock* psock, unsigned char value) {
  JACTOR_TRACE_AS(kWriteMessage, "write a signal message");
  const int rc = registry::Private<JCXXFrame>(value)->WriteFrameToSock(psock);
  JACTOR_TRACE_AS(kWriteMessage, "WriteMessage rc=%d", rc);
  return rc;
}

int WriteGathered(JCXXSock* psock, GatherList& list) {
  JACTOR_TRACE_AS(kWriteMessage, "before WriteBlockingIOV");
  std::size_t written = 0;
  const int rc = psock->WriteBlockingIOV(list.data(), list.filled(), written);
  JACTOR_TRACE_AS(kWriteMessage, "after WriteBlockingIOV, irv=%d", rc);
  if (rc != 0) {
    return rc;
  }
  if (written != list.total()) {
    JACTOR_ERROR_AS(kWriteMessage, "size mismatch");
    return reason::Fail(EIO);
  }
  return 0;
}

int WriteFrames(JCXXSock* psock, JCXXMsg& msg, GatherList& list) {
  for (JCXXFrame* frame : msg.frame_list) {
    if (const int rc = list.Add(*frame); rc != 0) {
      return rc;
    }
  }
  return WriteGathered(psock, list);
}

int WriteData(JCXXSock* psock, JCXXMsg& msg) {
  JACTOR_TRACE_AS(kWriteMessage, "write not a signal message");
  const std::size_t frames = msg.frame_list.size();
  JACTOR_TRACE_AS(kWriteMessage, "frame count is %zd", frames);
  GatherList list(frames);
  if (frames == 1) {
    JACTOR_TRACE_AS(kWriteMessage, "message has a single frame");
    return WriteFrames(psock, msg, list);
  }
  JACTOR_TRACE_AS(kWriteMessage, "message has either zero or multiple frames");
  registry::Private<JCXXFrame> header(msg.msg_size);
  if (const int rc = list.Add(*header); rc != 0) {
    return rc;
  }
  return WriteFrames(psock, msg, list);
}

// The line about a frame that cannot be in `msg`, which announced `expected` bytes;
// null when it can.
const char* DamageBy(JCXXFrame& frame, JCXXMsg& msg, std::size_t expected) {
  if (!frame.IsDataFrame()) {
    return JACTOR_LINE("got a non-data frame");
  }
  if (msg.GetSize() + frame.GetSize() > expected) {
    return JACTOR_LINE("too much data");
  }
  return msg.frame_list.size() == JCXXMsg::kMaxFrames ? JACTOR_LINE("too many frames") : nullptr;
}

// Reads the data frames of a message that announced `expected` bytes.
std::unique_ptr<JCXXMsg> ReadDataFrames(JCXXSock* psock, std::unique_ptr<JCXXMsg> msg,
                                        std::size_t expected) {
  while (msg->GetSize() < expected) {
    JACTOR_TRACE_AS(kReadMessage, "reading a data frame");
    std::unique_ptr<JCXXFrame> frame(JCXXFrame::ReadFrameFromSock(psock));
    if (frame == nullptr) {
      reason::EndIsDamage();
      return nullptr;
    }
    if (const char* damage = DamageBy(*frame, *msg, expected); damage != nullptr) {
      JACTOR_LOG_FORMAT(JACTOR_LEVEL_ERROR, kReadMessage, damage);
      reason::Fail(EBADMSG);
      return nullptr;
    }
    msg->AppendDataFrame(frame.get());
    frame.release();
  }
  JACTOR_TRACE_AS(kReadMessage, "no more data frames needed");
  return msg;
}

// Reads the first frame, and the others that it announces. Result: the message; null at
// the end of the stream, and when the bytes are not a message.
std::unique_ptr<JCXXMsg> ReadFrames(JCXXSock* psock) {
  JACTOR_TRACE_AS(kReadMessage, "reading a frame");
  std::unique_ptr<JCXXFrame> frame(JCXXFrame::ReadFrameFromSock(psock));
  if (frame == nullptr) {
    JACTOR_TRACE_AS(kReadMessage, "no frame available");
    return nullptr;
  }
  if (frame->IsSignalFrame()) {
    JACTOR_TRACE_AS(kReadMessage, "got a signal frame");
    return registry::New<JCXXMsg>(frame.get());
  }
  if (frame->IsDataFrame()) {
    JACTOR_TRACE_AS(kReadMessage, "got a data frame type");
    auto msg = registry::New<JCXXMsg>(frame.get());
    frame.release();
    return msg;
  }
  JACTOR_TRACE_AS(kReadMessage, "got a message header frame");
  const std::size_t expected = frame->GetSize();
  auto msg = registry::New<JCXXMsg>(frame.get());
  frame.reset();
  return ReadDataFrames(psock, std::move(msg), expected);
}

}  // namespace

JCXXMsg::JCXXMsg() : type(DATA_MSG), msg_size(0), signal_value(0) {
  registry::Api().JCXXMsgPtrAdd(this);
}

JCXXMsg::JCXXMsg(unsigned char value) : type(SIGNAL_MSG), msg_size(0), signal_value(value) {
  registry::Api().JCXXMsgPtrAdd(this);
}

JCXXMsg::JCXXMsg(JCXXFrame* frame) : type(DATA_MSG), msg_size(0), signal_value(0) {
  if (frame != nullptr && frame->IsDataFrame()) {
    frame_list.push_back(frame);
    msg_size = static_cast<std::uint32_t>(frame->GetSize());
  } else if (frame != nullptr && frame->IsSignalFrame()) {
    type = SIGNAL_MSG;
    signal_value = frame->data.empty() ? 0 : frame->data[0];
  }
  registry::Api().JCXXMsgPtrAdd(this);
  if (frame != nullptr && frame->IsDataFrame()) {
    JACTOR_TRACE("c msg_size=%d", msg_size);
  } else if (frame != nullptr && frame->IsMsgHeaderFrame()) {
    JACTOR_TRACE("b msg_size=%d", msg_size);
  }
}

JCXXMsg::JCXXMsg(JCXXMsg const& /*other*/) : type(DATA_MSG), msg_size(0), signal_value(0) {
  JACTOR_TRACE("JCXXMsg copy constructor");
  registry::Api().JCXXMsgPtrAdd(this);
}

JCXXMsg& JCXXMsg::operator=(JCXXMsg const& other) {
  JACTOR_TRACE("JCXXMsg copy assignment operator");
  if (this != &other) {
    registry::Api().JCXXMsgPtrAdd(this);
  }
  return *this;
}

JCXXMsg::~JCXXMsg() {
  registry::LeaveTogether(this, frame_list);
  DeallocateList();
  registry::Api().JCXXMsgPtrRemove(this);
}

unsigned int JCXXMsg::GetSize() { return msg_size; }

bool JCXXMsg::IsDataMsg() { return type == DATA_MSG; }

bool JCXXMsg::IsSignalMsg() { return type == SIGNAL_MSG; }

unsigned char JCXXMsg::GetSignalValue() { return signal_value; }

std::list<JCXXFrame*>& JCXXMsg::GetFrameList() { return frame_list; }

int JCXXMsg::AppendDataFrame(JCXXFrame* frame) {
  if (frame == nullptr || !frame->IsDataFrame() || !IsDataMsg()) {
    return reason::Fail(EINVAL);
  }
  frame_list.push_back(frame);
  msg_size += static_cast<std::uint32_t>(frame->GetSize());
  return 0;
}

int JCXXMsg::AddMem(const void* mem, std::size_t size) {
  if (size > JCXXFrame::kMaxSize) {
    return reason::Fail(EMSGSIZE);
  }
  auto frame = std::make_unique<JCXXFrame>();
  if (mem != nullptr) {
    frame->CopyIntoBuffer(static_cast<unsigned char*>(const_cast<void*>(mem)), size);
  } else {
    frame->SetSize(size);
  }
  if (AppendDataFrame(frame.get()) != 0) {
    return -1;
  }
  frame.release();
  return 0;
}

int JCXXMsg::AddStr(const char* str) {
  if (str == nullptr) {
    return -1;
  }
  return AddMem(str, ::strnlen(str, JCXXFrame::kMaxSize + 1));
}

JCXXFrame* JCXXMsg::Pop() {
  if (frame_list.empty()) {
    return nullptr;
  }
  JCXXFrame* frame = frame_list.front();
  frame_list.pop_front();
  msg_size -= static_cast<std::uint32_t>(frame->GetSize());
  return frame;
}

char* JCXXMsg::PopStr() {
  if (frame_list.empty()) {
    return nullptr;
  }
  const std::size_t size = frame_list.front()->GetSize();
  auto* text = static_cast<char*>(std::calloc(size + 1, 1));
  if (text == nullptr) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<JCXXFrame> frame(Pop());
  if (size > 0) {
    std::memcpy(text, frame->GetData(), size);
  }
  return text;
}

void JCXXMsg::DeallocateList() {
  msg_size = 0;
  while (!frame_list.empty()) {
    const std::unique_ptr<JCXXFrame> frame(frame_list.front());
    frame_list.pop_front();
  }
}

int JCXXMsg::WriteMessage(JCXXSock* psock) {
  JACTOR_TRACE("WriteMessage");
  if (psock == nullptr) {
    JACTOR_ERROR("NULL pointer");
    return -1;
  }
  return IsSignalMsg() ? WriteSignalFrame(psock, signal_value) : WriteData(psock, *this);
}

JCXXMsg* JCXXMsg::ReadMessage(JCXXSock* psock) {
  JACTOR_TRACE("ReadMessage");
  registry::MakingTogether together;
  std::unique_ptr<JCXXMsg> msg = ReadFrames(psock);
  if (msg != nullptr) {
    together.Enter();
  }
  return msg.release();
}

int JCXXMsg::WriteSignalMessage(JCXXSock* psock, unsigned char value) {
  return registry::Private<JCXXMsg>(value)->WriteMessage(psock);
}

int JCXXMsg::WaitForSignal(JCXXSock* psock) {
  for (;;) {
    const std::unique_ptr<JCXXMsg> msg(ReadMessage(psock));
    if (msg == nullptr) {
      return -1;
    }
    if (msg->IsSignalMsg()) {
      return 0;
    }
    JACTOR_TRACE("not a signal");
  }
}
