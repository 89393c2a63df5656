// progress.h - counts, and the progress line on a terminal.
#ifndef JPIPE_PROGRESS_H
#define JPIPE_PROGRESS_H

#include <chrono>
#include <string>

#include "content.h"

namespace jpipe {

class Progress {
 public:
  // The line is shown when `wanted` and standard error is a terminal.
  explicit Progress(bool wanted);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();  // ends the line

  // Counts one message, and brings the line up to date a few times a second.
  void Add(const Content& content);

  unsigned long long messages() const { return messages_; }
  unsigned long long bytes() const { return bytes_; }

  // "3 messages (1 of them a signal), 20 bytes".
  std::string Counts() const;

 private:
  void Show(double seconds);

  bool shown_;
  unsigned long long messages_ = 0;
  unsigned long long signals_ = 0;
  unsigned long long bytes_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace jpipe

#endif
