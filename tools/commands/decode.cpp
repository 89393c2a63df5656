// decode.cpp - jpipe decode: captured bytes, explained offset by offset.
#include "commands.h"
#include "decoder.h"
#include "formats.h"
#include "input.h"
#include "output.h"
#include "report.h"

namespace jpipe {
namespace {

constexpr std::size_t kBytesPerLine = 8;
constexpr std::size_t kLinesPerFrame = 4;  // how much of a long payload is shown
constexpr int kHexWidth = static_cast<int>(3 * kBytesPerLine) + 3;

// Offset, bytes and what they are. Inside a message the bytes are indented.
std::string Line(std::uint64_t offset, bool inside, std::string_view bytes,
                 const std::string& what) {
  const std::string hex = (inside ? "  " : "") + Hex(bytes, " ");
  return Text("%08llx  %-*s %s\n", static_cast<unsigned long long>(offset), kHexWidth, hex.c_str(),
              what.c_str());
}

std::string HeaderMeaning(const WireFrame& frame) {
  std::string what;
  if (frame.kind == wire::Kind::kSignal) {
    what = Text("signal %u", frame.number);
  } else if (frame.kind == wire::Kind::kMsgHeader) {
    what = frame.number == 0 ? "message without frames"
                             : "message of " + Counted(frame.number, "payload byte");
  } else {
    what = "frame of " + Counted(frame.number, "byte");
  }
  return frame.remark.empty() ? what : what + " (" + frame.remark + ")";
}

std::string Explain(const WireFrame& frame, bool inside) {
  if (frame.header.empty()) {
    return {};
  }
  std::string lines = Line(frame.offset, inside, frame.header, HeaderMeaning(frame));
  std::string_view left = frame.payload;
  std::uint64_t offset = frame.offset + frame.header.size();
  for (std::size_t k = 0; k < kLinesPerFrame && !left.empty(); ++k) {
    const std::string_view piece = left.substr(0, kBytesPerLine);
    lines += Line(offset, inside, piece, Quoted(piece));
    offset += piece.size();
    left.remove_prefix(piece.size());
  }
  if (!left.empty()) {
    lines += Line(offset, inside, "", Counted(left.size(), "more byte") + " of the frame");
  }
  return lines;
}

}  // namespace

int Decode(const Options& options) {
  InputReader input(options.operands.empty() ? "-" : options.operands[0]);
  Patience patience(std::nullopt);
  input.WaitWith(patience);
  WireReader reader([&input](char* bytes, std::size_t size) { return input.Read(bytes, size); });
  unsigned long long messages = 0;
  for (;;) {
    WireFrame frame;
    const bool inside = reader.in_message();
    const WireEvent event = reader.Next(frame);
    if (patience.cause()) {
      return ExitFor(*patience.cause(), false);
    }
    std::string lines = Explain(frame, inside);
    messages += event == WireEvent::kMessage ? 1 : 0;
    if (event == WireEvent::kEnd) {
      lines = Line(reader.offset(), false, "", "end: " + Counted(messages, "message"));
    } else if (event == WireEvent::kFault) {
      lines += Line(reader.fault_offset(), false, "", "fault: " + reader.fault());
    }
    if (const Outcome outcome = WriteOut(lines, patience); outcome != Outcome::kReady) {
      return ExitFor(outcome, false);
    }
    if (event == WireEvent::kFault) {
      throw Failure(kFailed,
                    Text("fault at offset %llu (0x%llx) after %s: %s",
                         static_cast<unsigned long long>(reader.fault_offset()),
                         static_cast<unsigned long long>(reader.fault_offset()),
                         Counted(messages, "whole message").c_str(), reader.fault().c_str()));
    }
    if (event == WireEvent::kEnd) {
      return kDone;
    }
  }
}

}  // namespace jpipe
