// terminal.h - standard error, and the status line at the bottom of its terminal.
#ifndef JPIPE_TERMINAL_H
#define JPIPE_TERMINAL_H

#include <cstddef>
#include <string>

namespace jpipe {

// The size of the terminal `fd`; 80 by 24 when it is not known.
struct TerminalSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};
TerminalSize SizeOfTerminal(int fd);

// Shows the status: a line at the bottom of the terminal on standard error, which gives way
// to everything else. It is cut to the terminal's width.
void ShowStatus(const std::string& line);

// Shows it for the last time: the line stays.
void EndStatus(const std::string& line);

// Removes the line before standard output writes something to the terminal, whose last
// byte will be `last`: after an unfinished line no status is shown.
void GiveWay(char last);

// Writes to standard error with one write, after the status has given way.
void WriteToStandardError(const std::string& text);

}  // namespace jpipe

#endif
