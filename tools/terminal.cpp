// terminal.cpp - standard error and its status line.
#include "terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace jpipe {
namespace {

constexpr const char* kEraseLine = "\r\033[K";

bool status_shown = false;
bool output_in_line = false;  // standard output has begun a line on the terminal

}  // namespace

void WriteToStandardError(const std::string& text) {
  const std::string line = (status_shown ? kEraseLine : "") + text;
  status_shown = false;
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    return;  // nobody is left to read it
  }
}

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

}  // namespace jpipe
