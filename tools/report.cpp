// report.cpp - notes, failures and the library's log lines.
//
// jpipe takes the place of the log library: the library's failure lines become
// the reasons in jpipe's own messages, and are shown as they are with --verbose.
// The library is called from one thread only, so the last line needs no lock.
#include "report.h"

#include <jlog.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

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

constexpr const char* kEraseLine = "\r\033[K";

bool status_shown = false;
bool output_in_line = false;  // standard output has begun a line on the terminal

void WriteToStandardError(const std::string& text) {
  const std::string line = (status_shown ? kEraseLine : "") + text;
  status_shown = false;
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    return;  // there is nobody left to tell
  }
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

TerminalSize SizeOfTerminal(int fd) {
  winsize size = {};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return {};
  }
  return {size.ws_col, size.ws_row};
}

void ShowStatus(const std::string& line) {
  pollfd terminal = {STDERR_FILENO, POLLOUT, 0};
  if (output_in_line || ::poll(&terminal, 1, 0) != 1) {  // or it is stopped
    return;
  }
  status_shown = false;
  // The last column stays free: some terminals wrap when it is written.
  WriteToStandardError(kEraseLine + line.substr(0, SizeOfTerminal(STDERR_FILENO).columns - 1));
  status_shown = true;
}

void EndStatus(const std::string& line) {
  if (output_in_line) {
    WriteToStandardError("\n");
    output_in_line = false;
  }
  ShowStatus(line);
  status_shown = false;
  WriteToStandardError("\n");
}

void GiveWay(char last) {
  static const bool on_terminal = ::isatty(STDOUT_FILENO) == 1;
  if (on_terminal && status_shown) {
    WriteToStandardError("");
  }
  output_in_line = on_terminal && last != '\n';
}

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
