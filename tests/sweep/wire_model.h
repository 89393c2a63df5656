// wire_model.h - a second decoder of the wire format, written for the tests.
//
// It works on a byte string that is the whole stream, and shares no code with the
// library: what the two make of the same bytes is compared.
#ifndef WIRE_MODEL_H
#define WIRE_MODEL_H

#include <cstddef>
#include <string>
#include <vector>

#include "jcxxframe.h"
#include "jcxxmsg.h"

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
  std::string bytes;
};

// Takes the next `n` bytes; all that is left, and failure, when there are fewer.
inline bool Take(const std::string& stream, std::size_t& at, std::size_t n, std::string& out) {
  out = stream.substr(at, n);
  at += out.size();
  return out.size() == n;
}

inline Frame DecodeFrame(const std::string& stream, std::size_t& at) {
  std::string lead;
  std::string more;
  if (!Take(stream, at, 1, lead)) {
    return {};
  }
  const unsigned b = static_cast<unsigned char>(lead[0]);
  if (b >= 0xC0) {
    return Take(stream, at, 1, more)
               ? Frame{Frame::kSignal, static_cast<unsigned char>(more[0]), {}}
               : Frame{};
  }
  if (b >= 0x80) {
    return {Frame::kSignal, b - 0x80, {}};
  }
  const unsigned form = b / 16 % 4;
  if (!Take(stream, at, form == 3 ? 4 : form, more)) {
    return {};
  }
  std::size_t size = form < 2 ? b % 16 : 0;
  for (const char c : more) {
    size = size * 256 + static_cast<unsigned char>(c);
  }
  size += form == 1 ? 16 : 0;
  if (size > 1048576) {
    return {};
  }
  if (b >= 0x40) {
    return {Frame::kHeader, size, {}};
  }
  Frame frame{Frame::kData, size, {}};
  return Take(stream, at, size, frame.bytes) ? frame : Frame{};
}

inline Message DecodeMessage(const std::string& stream, std::size_t& at) {
  const Frame first = DecodeFrame(stream, at);
  if (first.kind == Frame::kSignal) {
    return {true, static_cast<int>(first.size), {}};
  }
  if (first.kind == Frame::kData) {
    return {true, -1, {first.bytes}};
  }
  if (first.kind == Frame::kNone) {
    return {};
  }
  Message message{true, -1, {}};
  for (std::size_t left = first.size; left > 0;) {
    Frame frame = DecodeFrame(stream, at);
    if (frame.kind != Frame::kData || frame.size > left || message.frames.size() == 1048576) {
      return {};
    }
    left -= frame.size;
    message.frames.push_back(std::move(frame.bytes));
  }
  return message;
}

// The library's message as one of the model's. Destroys it.
inline Message TakeApart(JCXXMsg* msg) {
  if (msg == nullptr) {
    return {};
  }
  Message message{true, msg->IsSignalMsg() ? msg->GetSignalValue() : -1, {}};
  for (JCXXFrame* frame : msg->GetFrameList()) {
    const auto* bytes = reinterpret_cast<const char*>(frame->GetData());
    message.frames.push_back(bytes == nullptr ? std::string()
                                              : std::string(bytes, frame->GetSize()));
  }
  delete msg;
  return message;
}

}  // namespace wire

#endif
