// decoder.cpp - decoding frames and messages.
#include "decoder.h"

#include "report.h"

namespace jpipe {
namespace {

// What is unusual about a header that is accepted.
std::string Remark(const WireFrame& frame) {
  const auto lead = static_cast<unsigned char>(frame.header[0]);
  if (wire::HasIgnoredBits(lead)) {
    return Text("bits %d-0 of the lead byte are set and ignored",
                frame.kind == wire::Kind::kSignal ? 5 : 3);
  }
  unsigned char shortest[wire::kMaxHeader];
  return wire::Encode({frame.kind, frame.number}, shortest) < frame.header.size()
             ? "a longer header than needed"
             : "";
}

}  // namespace

// Appends `size` bytes. Result: whether there were that many.
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

bool WireReader::ReadHeader(WireFrame& frame) {
  const std::size_t more = wire::BytesAfterLead(static_cast<unsigned char>(frame.header[0]));
  if (!Read(frame.header, more)) {
    return CutOff(offset_, "a header", 1 + more - frame.header.size());
  }
  const wire::Header header =
      wire::Decode(reinterpret_cast<const unsigned char*>(frame.header.data()));
  frame.kind = header.kind;
  frame.number = header.number;
  if (frame.number > wire::kMaxSize) {
    Fault(frame.offset,
          Text("the header says %u bytes, but the limit is %u", frame.number, wire::kMaxSize));
    return false;
  }
  frame.remark = Remark(frame);
  return true;
}

bool WireReader::ReadPayload(WireFrame& frame) {
  if (frame.kind != wire::Kind::kData || Read(frame.payload, frame.number)) {
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
  if (frame.kind != wire::Kind::kData) {
    return Fault(frame.offset,
                 Text("%s inside a message that still lacks %s",
                      frame.kind == wire::Kind::kSignal ? "a signal" : "a message header",
                      Counted(announced_ - carried_, "byte").c_str()));
  }
  if (carried_ + frame.number > announced_) {
    return Fault(frame.offset, Text("a frame of %s in a message that only lacks %u",
                                    Counted(frame.number, "byte").c_str(), announced_ - carried_));
  }
  if (frames_.size() == wire::kMaxFrames) {
    return Fault(frame.offset, Text("a message of more than %zu frames", wire::kMaxFrames));
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
  if (frame.kind == wire::Kind::kData) {
    frames_.push_back(frame.payload);
  }
  if (frame.kind != wire::Kind::kMsgHeader || frame.number == 0) {
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
