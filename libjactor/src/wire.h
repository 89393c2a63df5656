// wire.h - the header in front of every frame on a stream, as pure functions.
//
// A header has 1, 2, 3 or 5 bytes. Bit 7 of the lead byte tells a signal from the
// others, bit 6 a message header from a data frame; bits 5-4 give the form of the
// size. In a signal, bit 6 says that the value is in a second byte. The writer uses
// the shortest form; a reader accepts any.
#ifndef JACTOR_WIRE_H
#define JACTOR_WIRE_H

#include <cstddef>
#include <cstdint>

#include "jactor.h"

namespace wire {

inline constexpr std::uint32_t kMaxSize = JACTOR_MAX_SIZE;  // of a frame, and of a message
inline constexpr std::size_t kMaxFrames = 1048576;          // that a reader accepts in a message
inline constexpr std::size_t kMaxHeader = 5;                // bytes

// Numbered as the types of JCXXFrame.
enum class Kind : std::uint32_t { kData, kMsgHeader, kSignal };

struct Header {
  Kind kind;
  std::uint32_t number;  // the frame's payload bytes, those announced, or the signal's value
};

inline constexpr unsigned kSignalBit = 0x80;
inline constexpr unsigned kLongSignalBit = 0x40;
inline constexpr unsigned kShortSignalMask = 0x3F;
inline constexpr unsigned kMsgHeaderBit = 0x40;
inline constexpr unsigned kFormShift = 4;
inline constexpr unsigned kFormMask = 0x03;
inline constexpr unsigned kSizeMask = 0x0F;
inline constexpr std::uint32_t kForm1Base = 16;  // form 1 holds the size less this
inline constexpr std::uint32_t kForm2Base = kForm1Base + 0x1000;
inline constexpr std::uint32_t kForm3Base = 0x10000;
inline constexpr std::size_t kBytesAfterForm[] = {0, 1, 2, 4};

constexpr Kind KindOf(unsigned char lead) {
  return (lead & kSignalBit) != 0      ? Kind::kSignal
         : (lead & kMsgHeaderBit) != 0 ? Kind::kMsgHeader
                                       : Kind::kData;
}

// How many bytes of the header follow its lead byte.
constexpr std::size_t BytesAfterLead(unsigned char lead) {
  if (KindOf(lead) == Kind::kSignal) {
    return (lead & kLongSignalBit) != 0 ? 1 : 0;
  }
  return kBytesAfterForm[(lead >> kFormShift) & kFormMask];
}

// Whether the lead byte has bits set that a reader ignores.
constexpr bool HasIgnoredBits(unsigned char lead) {
  if (KindOf(lead) == Kind::kSignal) {
    return BytesAfterLead(lead) != 0 && (lead & kShortSignalMask) != 0;
  }
  return BytesAfterLead(lead) > 1 && (lead & kSizeMask) != 0;
}

// What a whole header says. The number may be above kMaxSize.
constexpr Header Decode(const unsigned char* header) {
  const Kind kind = KindOf(header[0]);
  const std::size_t more = BytesAfterLead(header[0]);
  const unsigned low = kind == Kind::kSignal ? kShortSignalMask : kSizeMask;
  const bool low_counts = more == 0 || (more == 1 && kind != Kind::kSignal);
  std::uint32_t number = low_counts ? header[0] & low : 0;
  for (std::size_t i = 1; i <= more; ++i) {
    number = number << 8 | header[i];
  }
  const bool less_base = more == 1 && kind != Kind::kSignal;
  return {kind, less_base ? number + kForm1Base : number};
}

// Writes the shortest header into `header`, which has room for kMaxHeader bytes. Result:
// its length. A signal's value is at most 255.
constexpr std::size_t Encode(Header what, unsigned char* header) {
  const std::uint32_t number = what.number;
  const auto put = [header](std::size_t length, std::uint32_t lead, std::uint32_t rest) {
    header[0] = static_cast<unsigned char>(lead);
    for (std::size_t i = length; i > 1; rest >>= 8) {
      header[--i] = static_cast<unsigned char>(rest);
    }
    return length;
  };
  if (what.kind == Kind::kSignal) {
    return number <= kShortSignalMask ? put(1, kSignalBit | number, 0)
                                      : put(2, kSignalBit | kLongSignalBit, number);
  }
  const std::uint32_t kind = what.kind == Kind::kMsgHeader ? kMsgHeaderBit : 0;
  if (number < kForm1Base) {
    return put(1, kind | number, 0);
  }
  if (number < kForm2Base) {
    const std::uint32_t stored = number - kForm1Base;
    return put(2, kind | 1U << kFormShift | stored >> 8, stored);
  }
  if (number < kForm3Base) {
    return put(3, kind | 2U << kFormShift, number);
  }
  return put(5, kind | 3U << kFormShift, number);
}

}  // namespace wire

#endif
