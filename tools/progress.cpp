// progress.cpp - counts and rates.
#include "progress.h"

#include <unistd.h>

#include <cstdio>

#include "report.h"

namespace jpipe {
namespace {

constexpr std::chrono::milliseconds kInterval{200};
constexpr double kMebibyte = 1048576;

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

Progress::Progress(bool wanted)
    : shown_(wanted && ::isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      next_(start_) {}

Progress::~Progress() {
  if (shown_) {
    Show(SecondsSince(start_));
    std::fputc('\n', stderr);
  }
}

void Progress::Add(const Content& content) {
  ++messages_;
  signals_ += content.signal >= 0 ? 1 : 0;
  bytes_ += content.Bytes();
  if (shown_ && std::chrono::steady_clock::now() >= next_) {
    next_ = std::chrono::steady_clock::now() + kInterval;
    Show(SecondsSince(start_));
  }
}

void Progress::Show(double seconds) {
  const double over = seconds > 0 ? seconds : 1;
  std::fprintf(stderr, "\r\033[K%s, %.1f s, %.0f messages/s, %.2f MiB/s", Counts().c_str(), seconds,
               static_cast<double>(messages_) / over,
               static_cast<double>(bytes_) / over / kMebibyte);
}

std::string Progress::Counts() const {
  std::string text = Counted(messages_, "message");
  if (signals_ > 0) {
    text += Text(" (%s)", Counted(signals_, "signal").c_str());
  }
  return text + ", " + Counted(bytes_, "byte");
}

}  // namespace jpipe
