// message_scan.h - checks whether bytes hold a whole message, without taking them.
#ifndef JACTOR_MESSAGE_SCAN_H
#define JACTOR_MESSAGE_SCAN_H

#include <cstddef>

#include "wire.h"

// Follows one message as more of its bytes arrive, by the rules of the reader.
class MessageScan {
 public:
  enum class Verdict {
    kPartial,  // a reader would wait for more
    kWhole,    // a message or a signal is there
    kDamaged,  // a reader would now find that the bytes are not a message
  };

  // Looks at the `count` bytes that are there so far, from the beginning of the message.
  Verdict Look(const unsigned char* bytes, std::size_t count) {
    Verdict verdict = Verdict::kPartial;
    while (verdict == Verdict::kPartial && next_ < count) {
      const unsigned char* frame = bytes + next_;
      const std::size_t left = count - next_;
      const std::size_t header = 1 + wire::BytesAfterLead(frame[0]);
      if (left < header) {
        break;
      }
      const wire::Header what = wire::Decode(frame);
      if (what.kind != wire::Kind::kSignal && what.number > wire::kMaxSize) {
        return Verdict::kDamaged;
      }
      const std::size_t payload = what.kind == wire::Kind::kData ? what.number : 0;
      if (left - header < payload) {
        break;
      }
      next_ += header + payload;
      verdict = in_message_ ? Continue(what) : Begin(what);
    }
    return verdict;
  }

  // After kWhole: the bytes of the message.
  std::size_t size() const { return next_; }

 private:
  Verdict Begin(wire::Header what) {
    if (what.kind != wire::Kind::kMsgHeader || what.number == 0) {
      return Verdict::kWhole;
    }
    in_message_ = true;
    missing_ = what.number;
    return Verdict::kPartial;
  }

  Verdict Continue(wire::Header what) {
    if (what.kind != wire::Kind::kData || what.number > missing_ || frames_ == wire::kMaxFrames) {
      return Verdict::kDamaged;
    }
    ++frames_;
    missing_ -= what.number;
    return missing_ == 0 ? Verdict::kWhole : Verdict::kPartial;
  }

  std::size_t next_ = 0;  // where the first incomplete frame begins
  bool in_message_ = false;
  std::size_t missing_ = 0;  // payload bytes of the message
  std::size_t frames_ = 0;
};

#endif
