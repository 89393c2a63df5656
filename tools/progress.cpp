// progress.cpp - counts and rates.
#include "progress.h"

#include <unistd.h>

#include "report.h"
#include "terminal.h"

namespace jpipe {
namespace {

constexpr std::chrono::milliseconds kInterval{200};  // between two messages that show
constexpr std::chrono::seconds kTick{1};
constexpr double kMebibyte = 1048576;

Progress* current = nullptr;  // what is shown

}  // namespace

Progress::Progress(bool wanted)
    : shown_(wanted && ::isatty(STDERR_FILENO) == 1), start_(Clock::now()), shown_at_(start_) {
  if (shown_) {
    current = this;
    Show(false);
  }
}

Progress::~Progress() {
  if (shown_) {
    current = nullptr;
    Show(true);
  }
}

void Progress::Add(const Content& content) {
  ++messages_;
  signals_ += content.signal >= 0 ? 1 : 0;
  bytes_ += content.Bytes();
  if (shown_ && Clock::now() >= shown_at_ + kInterval) {
    Show(false);
  }
}

void Progress::Tick() {
  if (current != nullptr && Clock::now() >= current->shown_at_ + kTick) {
    current->Show(false);
  }
}

std::optional<Progress::Clock::time_point> Progress::NextTick() {
  if (current == nullptr) {
    return std::nullopt;
  }
  return current->shown_at_ + kTick;
}

void Progress::Show(bool at_end) {
  shown_at_ = Clock::now();
  const double seconds = std::chrono::duration<double>(shown_at_ - start_).count();
  const double over = seconds > 0 ? seconds : 1;
  const std::string line =
      Text("%s, %.1f s, %.0f messages/s, %.2f MiB/s", Counts().c_str(), seconds,
           static_cast<double>(messages_) / over, static_cast<double>(bytes_) / over / kMebibyte);
  at_end ? EndStatus(line) : ShowStatus(line);
}

std::string Progress::Counts() const {
  std::string text = Counted(messages_, "message");
  if (signals_ > 0) {
    text += Text(" (%s)", Counted(signals_, "signal").c_str());
  }
  return text + ", " + Counted(bytes_, "byte");
}

}  // namespace jpipe
