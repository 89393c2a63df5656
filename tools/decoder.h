// decoder.h - the bytes of messages on a pipe, taken apart one frame at a time.
//
// A separate decoder: the library's reader reports neither where a fault is nor what it is.
#ifndef JPIPE_DECODER_H
#define JPIPE_DECODER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "wire.h"

namespace jpipe {

// Reads up to `size` bytes into `bytes`; fewer only at the end. Result: how many.
using ByteSource = std::function<std::size_t(char* bytes, std::size_t size)>;

// A frame as it was read, even if it was not read to its end.
struct WireFrame {
  std::uint64_t offset = 0;  // of its first byte
  std::string header;        // 1 to 5 bytes
  wire::Kind kind = wire::Kind::kData;
  std::uint32_t number = 0;  // the size, the announced size, or the signal's value
  std::string remark;        // what is unusual about a header that is accepted
  std::string payload;
};

enum class WireEvent {
  kFrame,    // a frame was read; it is not the last of its message
  kMessage,  // a frame was read, and a message or signal is complete
  kEnd,      // the bytes are used up, and no message is under way
  kFault,    // see fault()
};

// Reads frames off a source and follows the messages that they make.
class WireReader {
 public:
  explicit WireReader(ByteSource source) : source_(std::move(source)) {}

  // Reads the next frame into `frame`. After kEnd or kFault there is no next one.
  WireEvent Next(WireFrame& frame);

  // The frames of the message that kMessage completed; empty for a signal.
  const std::vector<std::string>& frames() const { return frames_; }

  // What is wrong, and at which offset.
  const std::string& fault() const { return fault_; }
  std::uint64_t fault_offset() const { return fault_offset_; }

  // Bytes read so far, and of these the bytes of whole messages.
  std::uint64_t offset() const { return offset_; }
  std::uint64_t whole() const { return whole_; }

  // Whether a message of several frames is under way.
  bool in_message() const { return in_message_; }

 private:
  bool Read(std::string& to, std::size_t size);
  bool ReadHeader(WireFrame& frame);
  bool ReadPayload(WireFrame& frame);
  WireEvent Accept(const WireFrame& frame);
  WireEvent AcceptInMessage(const WireFrame& frame);
  WireEvent Complete();
  WireEvent Fault(std::uint64_t offset, const std::string& what);
  bool CutOff(std::uint64_t offset, const char* part, std::size_t missing);

  ByteSource source_;
  std::uint64_t offset_ = 0;
  std::uint64_t whole_ = 0;
  bool in_message_ = false;
  std::uint32_t announced_ = 0;
  std::uint32_t carried_ = 0;
  std::vector<std::string> frames_;
  std::string fault_;
  std::uint64_t fault_offset_ = 0;
};

}  // namespace jpipe

#endif
