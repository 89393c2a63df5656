// progress.h - counts, and the progress line on a terminal.
#ifndef JPIPE_PROGRESS_H
#define JPIPE_PROGRESS_H

#include <chrono>
#include <optional>
#include <string>

#include "content.h"

namespace jpipe {

// There is at most one at a time.
class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  // The line is shown when `wanted` and standard error is a terminal.
  explicit Progress(bool wanted);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();  // ends the line

  // Counts one message, and brings the line up to date a few times a second.
  void Add(const Content& content);

  // Brings the line up to date when nothing else has done so for a second. Call it at
  // NextTick, if there is one.
  static void Tick();
  static std::optional<Clock::time_point> NextTick();

  unsigned long long messages() const { return messages_; }
  unsigned long long bytes() const { return bytes_; }

  // "3 messages (1 of them a signal), 20 bytes".
  std::string Counts() const;

 private:
  void Show(bool at_end);

  bool shown_;
  unsigned long long messages_ = 0;
  unsigned long long signals_ = 0;
  unsigned long long bytes_ = 0;
  Clock::time_point start_;
  Clock::time_point shown_at_;
};

}  // namespace jpipe

#endif
