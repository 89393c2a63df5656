// wire.cpp - decoding frames and messages.
#include "wire.h"

#include "report.h"

namespace jpipe {
namespace {

constexpr std::uint32_t kMaxSize = 1048576;
constexpr std::size_t kMaxFrames = 1048576;

unsigned ByteAt(const std::string& bytes, std::size_t k) {
  return static_cast<unsigned char>(bytes[k]);
}

// The bytes that follow the lead byte of a frame's or message's header.
std::size_t BytesAfterLead(unsigned lead) {
  constexpr std::size_t kByForm[] = {0, 1, 2, 4};
  return (lead & 0x80) != 0 ? ((lead & 0x40) != 0 ? 1 : 0) : kByForm[(lead >> 4) & 3];
}

std::uint32_t DecodedSize(const std::string& header) {
  const unsigned low = ByteAt(header, 0) & 0x0f;
  switch (header.size()) {
    case 1:
      return low;
    case 2:
      return 16 + ((low << 8) | ByteAt(header, 1));
    default: {
      std::uint32_t size = 0;
      for (std::size_t k = 1; k < header.size(); ++k) {
        size = size << 8 | ByteAt(header, k);
      }
      return size;
    }
  }
}

std::size_t ShortestHeader(std::uint32_t size) {
  return size < 16 ? 1 : size < 4112 ? 2 : size < 65536 ? 3 : 5;
}

std::string SizeRemark(const WireFrame& frame) {
  if (frame.header.size() > 2 && (ByteAt(frame.header, 0) & 0x0f) != 0) {
    return "bits 3-0 of the lead byte are set and ignored";
  }
  return frame.header.size() != ShortestHeader(frame.number) ? "a longer header than needed" : "";
}

std::string SignalRemark(const WireFrame& frame) {
  if (frame.header.size() == 1) {
    return "";
  }
  if ((ByteAt(frame.header, 0) & 0x3f) != 0) {
    return "bits 5-0 of the lead byte are set and ignored";
  }
  return frame.number < 64 ? "a longer header than needed" : "";
}

}  // namespace

// Appends `size` bytes. Result: whether they were all there.
bool WireReader::Read(std::string& to, std::size_t size) {
  const std::size_t before = to.size();
  to.resize(before + size);
  const std::size_t count = source_(to.data() + before, size);
  to.resize(before + count);
  offset_ += count;
  return count == size;
}

WireEvent WireReader::Fault(std::uint64_t offset, const std::string& what) {
  fault_ = what;
  fault_offset_ = offset;
  return WireEvent::kFault;
}

bool WireReader::CutOff(std::uint64_t offset, const char* part, std::size_t missing) {
  Fault(offset,
        Text("the bytes end inside %s: %s missing", part, Counted(missing, "byte").c_str()));
  return false;
}

bool WireReader::ReadSize(WireFrame& frame) {
  frame.number = DecodedSize(frame.header);
  frame.remark = SizeRemark(frame);
  if (frame.number > kMaxSize) {
    Fault(frame.offset,
          Text("the header says %u bytes, and the most is %u", frame.number, kMaxSize));
    return false;
  }
  return true;
}

bool WireReader::ReadHeader(WireFrame& frame) {
  const unsigned lead = ByteAt(frame.header, 0);
  const std::size_t more = BytesAfterLead(lead);
  if (!Read(frame.header, more)) {
    return CutOff(offset_, "a header", 1 + more - frame.header.size());
  }
  if ((lead & 0x80) == 0) {
    frame.kind = (lead & 0x40) != 0 ? FrameKind::kMessageHeader : FrameKind::kData;
    return ReadSize(frame);
  }
  frame.kind = FrameKind::kSignal;
  frame.number = more == 0 ? lead & 0x3f : ByteAt(frame.header, 1);
  frame.remark = SignalRemark(frame);
  return true;
}

bool WireReader::ReadPayload(WireFrame& frame) {
  if (frame.kind != FrameKind::kData || Read(frame.payload, frame.number)) {
    return true;
  }
  return CutOff(offset_, "a frame", frame.number - frame.payload.size());
}

WireEvent WireReader::Complete() {
  in_message_ = false;
  whole_ = offset_;
  return WireEvent::kMessage;
}

WireEvent WireReader::AcceptInMessage(const WireFrame& frame) {
  if (frame.kind != FrameKind::kData) {
    return Fault(frame.offset,
                 Text("%s inside a message that still lacks %s",
                      frame.kind == FrameKind::kSignal ? "a signal" : "a message header",
                      Counted(announced_ - carried_, "byte").c_str()));
  }
  if (carried_ + frame.number > announced_) {
    return Fault(frame.offset, Text("a frame of %s in a message that lacks only %u",
                                    Counted(frame.number, "byte").c_str(), announced_ - carried_));
  }
  if (frames_.size() == kMaxFrames) {
    return Fault(frame.offset, Text("a message of more than %zu frames", kMaxFrames));
  }
  frames_.push_back(frame.payload);
  carried_ += frame.number;
  return carried_ == announced_ ? Complete() : WireEvent::kFrame;
}

WireEvent WireReader::Accept(const WireFrame& frame) {
  if (in_message_) {
    return AcceptInMessage(frame);
  }
  frames_.clear();
  if (frame.kind == FrameKind::kData) {
    frames_.push_back(frame.payload);
  }
  if (frame.kind != FrameKind::kMessageHeader || frame.number == 0) {
    return Complete();
  }
  in_message_ = true;
  announced_ = frame.number;
  carried_ = 0;
  return WireEvent::kFrame;
}

WireEvent WireReader::Next(WireFrame& frame) {
  frame = WireFrame();
  frame.offset = offset_;
  if (!Read(frame.header, 1)) {
    return in_message_
               ? Fault(offset_, Text("the bytes end inside a message: %s missing",
                                     Counted(announced_ - carried_, "payload byte").c_str()))
               : WireEvent::kEnd;
  }
  if (!ReadHeader(frame) || !ReadPayload(frame)) {
    return WireEvent::kFault;
  }
  return Accept(frame);
}

}  // namespace jpipe
