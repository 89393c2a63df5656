// messages.h - messages of several frames, built and taken apart through the C calls
// alone: for tests, benchmarks and the soak.
#ifndef JACTOR_TESTS_MESSAGES_H
#define JACTOR_TESTS_MESSAGES_H

#include <cstddef>
#include <span>

#include "jactor.h"

namespace messages {

using Bytes = std::span<const unsigned char>;

// A message of so many frames, of which `frame(i)` are the bytes; null when a call fails.
template <class Frame>
JCXXMsg* Build(std::size_t frames, Frame frame) {
  JCXXMsg* msg = j_msg_new();
  for (std::size_t i = 0; i < frames; ++i) {
    const Bytes bytes = frame(i);
    if (j_msg_addmem(msg, bytes.data(), bytes.size()) != 0) {
      j_msg_destroy(&msg);
      return nullptr;
    }
  }
  return msg;
}

// Of so many equal frames of zeros.
inline JCXXMsg* BuildEqual(std::size_t frames, std::size_t size) {
  static const unsigned char payload[1024] = {};
  return Build(frames, [=](std::size_t) { return Bytes(payload).first(size); });
}

// Takes out so many frames, shows each to `take`, and destroys the message. Result:
// whether they were there, and `take` liked them all.
template <class Take>
bool TakeApart(JCXXMsg* msg, std::size_t frames, Take take) {
  bool good = true;
  for (std::size_t i = 0; i < frames; ++i) {
    JCXXFrame* frame = j_msg_pop(msg);
    good = frame != nullptr && take(Bytes(j_frame_data(frame), j_frame_size(frame))) && good;
    j_frame_destroy(&frame);
  }
  j_msg_destroy(&msg);
  return good;
}

inline bool TakeApartEqual(JCXXMsg* msg, std::size_t frames, std::size_t size) {
  return TakeApart(msg, frames, [=](Bytes bytes) { return bytes.size() == size; });
}

}  // namespace messages

#endif
