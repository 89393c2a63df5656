// formats.cpp - text, quoted, hex, JSON and raw.
#include "formats.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "report.h"

namespace jpipe {
namespace {

constexpr std::pair<std::string_view, Format> kFormats[] = {{"text", Format::kText},
                                                            {"quoted", Format::kQuoted},
                                                            {"hex", Format::kHex},
                                                            {"json", Format::kJson},
                                                            {"raw", Format::kRaw}};

bool IsControl(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }

std::string Escape(unsigned char byte) {
  switch (byte) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return Text("\\x%02x", byte);
  }
}

// The length of the UTF-8 character at the start of `bytes`; 0 when there is no
// valid one: no overlong form, no surrogate, nothing above U+10FFFF.
std::size_t Utf8Length(std::string_view bytes) {
  const auto at = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) {
    return 1;
  }
  const std::size_t length = lead < 0xc2   ? 0
                             : lead < 0xe0 ? 2
                             : lead < 0xf0 ? 3
                             : lead < 0xf5 ? 4
                                           : 0;
  if (length == 0 || length > bytes.size()) {
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if ((at(k) & 0xc0) != 0x80) {
      return 0;
    }
  }
  const bool bad = (lead == 0xe0 && at(1) < 0xa0) || (lead == 0xed && at(1) > 0x9f) ||
                   (lead == 0xf0 && at(1) < 0x90) || (lead == 0xf4 && at(1) > 0x8f);
  return bad ? 0 : length;
}

// A string, or {"hex":...} for bytes that are not UTF-8.
std::string Json(std::string_view frame) {
  try {
    return nlohmann::json(frame).dump();
  } catch (const nlohmann::json::type_error&) {
    return nlohmann::json{{"hex", Hex(frame)}}.dump();
  }
}

std::string ShownSignal(Format format, int value) {
  switch (format) {
    case Format::kText:
      return Text("<signal %d>", value);
    case Format::kJson:
      return Text("{\"signal\":%d}", value);
    case Format::kRaw:
      return {};
    default:
      return Text("signal %d", value);
  }
}

std::string Separator(Format format, const std::string& in_text) {
  switch (format) {
    case Format::kText:
      return in_text;
    case Format::kJson:
      return std::string(1, ',');
    case Format::kRaw:
      return {};
    default:
      return std::string(1, ' ');
  }
}

}  // namespace

std::optional<Format> FormatNamed(std::string_view name) {
  for (const auto& [known, format] : kFormats) {
    if (name == known) {
      return format;
    }
  }
  return std::nullopt;
}

std::string Quoted(std::string_view bytes) {
  std::string shown = "\"";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      shown += '\\';
      shown += c;
    } else {
      shown += IsControl(byte) || byte > 0x7f ? Escape(byte) : std::string(1, c);
    }
  }
  return shown + '"';
}

std::string Harmless(std::string_view bytes) {
  std::string shown;
  while (!bytes.empty()) {
    const std::size_t length = Utf8Length(bytes);
    const auto byte = static_cast<unsigned char>(bytes[0]);
    const bool c1_control =
        length == 2 && byte == 0xc2 && static_cast<unsigned char>(bytes[1]) < 0xa0;
    if (length == 0 || IsControl(byte) || c1_control) {
      shown += Escape(byte);
      bytes.remove_prefix(1);
    } else {
      shown += bytes.substr(0, length);
      bytes.remove_prefix(length);
    }
  }
  return shown;
}

std::string Hex(std::string_view bytes, std::string_view between) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string shown;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (!shown.empty()) {
      shown += between;
    }
    shown += kDigits[byte >> 4];
    shown += kDigits[byte & 0xf];
  }
  return shown;
}

Formatter::Formatter(Format format, const std::string& separator, bool for_terminal)
    : format_(format), separator_(Separator(format, separator)), for_terminal_(for_terminal) {}

std::string Formatter::Frame(std::string_view frame) const {
  switch (format_) {
    case Format::kQuoted:
      return Quoted(frame);
    case Format::kHex:
      return frame.empty() ? "-" : Hex(frame);
    case Format::kJson:
      return Json(frame);
    case Format::kText:
      return for_terminal_ ? Harmless(frame) : std::string(frame);
    default:
      return std::string(frame);
  }
}

std::string Formatter::Shown(const Content& content) const {
  if (content.signal >= 0) {
    return ShownSignal(format_, content.signal) + (format_ == Format::kRaw ? "" : "\n");
  }
  std::string shown = format_ == Format::kJson ? "{\"frames\":[" : "";
  bool first = true;
  for (const std::string_view frame : content.frames) {
    shown += first ? "" : separator_;
    shown += Frame(frame);
    first = false;
  }
  if (format_ == Format::kJson) {
    shown += "]}";
  } else if (first && (format_ == Format::kQuoted || format_ == Format::kHex)) {
    shown += "no frames";
  }
  return format_ == Format::kRaw ? shown : shown + '\n';
}

}  // namespace jpipe
