// report.cpp - notes, failures and the library's log lines.
//
// jpipe replaces the log library: the library's failure lines become the reasons in
// jpipe's own messages, and are shown unchanged with --verbose.
// The library is called from one thread only, so the last line needs no lock.
#include "report.h"

#include <jlog.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "terminal.h"

namespace jpipe {
namespace {

constexpr int kFailureLevel = 2;

bool show_library_errors = false;

std::string& LastLine() {
  static std::string line;
  return line;
}

std::string Formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::vector<char> text(length < 0 ? 1 : static_cast<std::size_t>(length) + 1);
  std::vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  return {text.data(), text.size() - 1};
}

}  // namespace

std::string Text(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = Formatted(format, arguments);
  va_end(arguments);
  return text;
}

std::string Counted(unsigned long long number, const char* noun) {
  return Text("%llu %s%s", number, noun, number == 1 ? "" : "s");
}

void Note(const std::string& text) { WriteToStandardError("jpipe: " + text + "\n"); }

std::string LibraryError() {
  const std::string& line = LastLine();
  const std::size_t position = line.find(": ");
  std::string reason = position == std::string::npos ? line : line.substr(position + 2);
  while (!reason.empty() && reason.back() == '\n') {
    reason.pop_back();
  }
  return reason;
}

void ForgetLibraryError() { LastLine().clear(); }

void ShowLibraryErrors() { show_library_errors = true; }

}  // namespace jpipe

void jlog_printf(int level, int /*module*/, const char* format, ...) {
  if (level > jpipe::kFailureLevel) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  jpipe::LastLine() = jpipe::Formatted(format, arguments);
  va_end(arguments);
  if (jpipe::show_library_errors) {
    jpipe::WriteToStandardError(jpipe::LastLine());
  }
}
