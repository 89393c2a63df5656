// wire_model.h - a second decoder of the wire format, written for the tests.
//
// It works on a byte string that is the whole stream, and shares no code with the
// library: what the two make of the same bytes is compared.
#ifndef WIRE_MODEL_H
#define WIRE_MODEL_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"

namespace wire {

struct Message {
  bool ok = false;
  int signal = -1;
  std::vector<std::string> frames;
  bool operator==(const Message&) const = default;
};

struct Frame {
  enum Kind { kNone, kData, kHeader, kSignal } kind = kNone;
  std::size_t size = 0;  // a signal's value
  std::string bytes = {};
};

inline Frame DecodeFrame(const std::string& stream, std::size_t& at) {
  constexpr std::size_t kTooMuch = 1048577;
  // The next `count` bytes as digits after those of `number`; too much at the end.
  const auto digits = [&](std::size_t number, std::size_t count) {
    for (; count > 0 && at < stream.size(); --count) {
      number = number * 256 + static_cast<unsigned char>(stream[at++]);
    }
    return count == 0 ? number : kTooMuch;
  };
  const std::size_t lead = digits(0, 1);
  const std::size_t form = lead / 16 % 4;
  const std::size_t size = lead >= 0xC0   ? digits(0, 1)
                           : lead >= 0x80 ? lead - 0x80
                           : form >= 2    ? digits(0, form == 2 ? 2 : 4)
                                          : digits(lead % 16, form) + 16 * form;
  if (size >= kTooMuch) {
    return {};
  }
  if (lead >= 0x40) {
    return {lead >= 0x80 ? Frame::kSignal : Frame::kHeader, size};
  }
  Frame frame{Frame::kData, size, stream.substr(at, size)};
  at += frame.bytes.size();
  return frame.bytes.size() == size ? frame : Frame{};
}

inline Message DecodeMessage(const std::string& stream, std::size_t& at) {
  Frame frame = DecodeFrame(stream, at);
  if (frame.kind == Frame::kSignal) {
    return {true, static_cast<int>(frame.size), {}};
  }
  if (frame.kind == Frame::kData) {
    return {true, -1, {frame.bytes}};
  }
  Message message{frame.kind == Frame::kHeader, -1, {}};
  for (std::size_t left = frame.size; left > 0; left -= frame.size) {
    frame = DecodeFrame(stream, at);
    if (frame.kind != Frame::kData || frame.size > left || message.frames.size() == 1048576) {
      return {};
    }
    message.frames.push_back(frame.bytes);
  }
  return message;
}

// What the library makes of the next message.
inline Message Read(JCXXSock* sock) {
  const std::unique_ptr<JCXXMsg> msg(JCXXMsg::ReadMessage(sock));
  if (msg == nullptr) {
    return {};
  }
  Message message{true, msg->IsSignalMsg() ? msg->GetSignalValue() : -1, {}};
  for (JCXXFrame* frame : msg->GetFrameList()) {
    message.frames.emplace_back(frame->data.begin(), frame->data.end());
  }
  return message;
}

// A sock that reads from a string.
struct StringSock : JCXXSock {
  std::string stream;
  std::size_t at = 0;
  int ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got) override {
    const std::size_t count = std::min(len, stream.size() - at);
    std::memcpy(buf, stream.data() + at, count);
    at += count;
    got = count == len ? len : 0;
    return count == len ? 0 : -1;
  }
};

// Decodes the stream both ways, message by message. Result: whether they agree.
inline bool SameVerdicts(StringSock& sock) {
  bool same = true;
  std::size_t at = 0;
  sock.at = 0;
  do {
    const Message expected = DecodeMessage(sock.stream, at);
    same = Read(&sock) == expected && sock.at == at;
  } while (same && at < sock.stream.size());
  return same;
}

}  // namespace wire

#endif
