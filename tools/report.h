// report.h - what jpipe says on standard error, and how a command fails.
#ifndef JPIPE_REPORT_H
#define JPIPE_REPORT_H

#include <stdexcept>
#include <string>

namespace jpipe {

// The exit codes, the same for every command.
enum Exit { kDone = 0, kFailed = 1, kUsage = 2, kTimedOut = 124 };

// Ends the command: main prints the text and exits with the code.
class Failure : public std::runtime_error {
 public:
  Failure(Exit code, const std::string& text) : std::runtime_error(text), code_(code) {}
  Exit code() const { return code_; }

 private:
  Exit code_;
};

// The formatted text.
std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "1 message", "2 messages".
std::string Counted(unsigned long long number, const char* noun);

// Writes "jpipe: TEXT" and a newline to standard error with one write.
void Note(const std::string& text);

// The reason in the last failure line that the library logged, without the
// source position; empty when there is none since the last ForgetLibraryError.
std::string LibraryError();
void ForgetLibraryError();

// From now on writes every failure line of the library to standard error as well.
void ShowLibraryErrors();

}  // namespace jpipe

#endif
