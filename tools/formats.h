// formats.h - how messages are shown.
#ifndef JPIPE_FORMATS_H
#define JPIPE_FORMATS_H

#include <optional>
#include <string>
#include <string_view>

#include "content.h"

namespace jpipe {

enum class Format { kText, kQuoted, kHex, kJson, kRaw };

// The format of that name, if there is one.
std::optional<Format> FormatNamed(std::string_view name);

// Shows messages in one format, each on its own line except in kRaw.
class Formatter {
 public:
  // `separator` goes between the frames in kText. `for_terminal`: control
  // characters in kText are escaped, so that a message cannot control the terminal.
  Formatter(Format format, const std::string& separator, bool for_terminal);

  std::string Shown(const Content& content) const;

 private:
  std::string Frame(std::string_view frame) const;

  Format format_;
  std::string separator_;
  bool for_terminal_;
};

// The bytes as a C string literal in ASCII, with its quotes.
std::string Quoted(std::string_view bytes);

// The bytes with control characters escaped as in Quoted, and nothing else.
std::string Harmless(std::string_view bytes);

// Two lower-case digits per byte; `between` goes between two bytes.
std::string Hex(std::string_view bytes, std::string_view between = "");

}  // namespace jpipe

#endif
