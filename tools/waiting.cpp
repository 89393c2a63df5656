// waiting.cpp - stop requests and time limits.
#include "waiting.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "progress.h"

namespace jpipe {
namespace {

int stop_pipe[2] = {-1, -1};
int requests = 0;

void OnStopSignal(int /*signal*/) {
  const int saved = errno;
  const char byte = 0;
  if (::write(stop_pipe[1], &byte, 1) < 0) {
    // The pipe is full of requests already.
  }
  errno = saved;
}

Patience::Clock::duration Seconds(double seconds) {
  return std::chrono::duration_cast<Patience::Clock::duration>(
      std::chrono::duration<double>(seconds));
}

}  // namespace

void StopRequests::Install() {
  if (::pipe2(stop_pipe, O_NONBLOCK | O_CLOEXEC) != 0) {
    throw Failure(kFailed, "cannot make a pipe: close some files or raise the limit (ulimit -n)");
  }
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction inherited = {};
    ::sigaction(number, nullptr, &inherited);
    if (inherited.sa_handler != SIG_IGN) {  // nohup, or a background job of a script
      ::sigaction(number, &action, nullptr);
    }
  }
  action.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &action, nullptr);
  ::sigaction(SIGXFSZ, &action, nullptr);
}

int StopRequests::fd() { return stop_pipe[0]; }

int StopRequests::Take() {
  char bytes[16];
  ssize_t count = 0;
  while ((count = ::read(stop_pipe[0], bytes, sizeof bytes)) > 0) {
    requests += static_cast<int>(count);
  }
  return requests;
}

Patience::Patience(std::optional<double> timeout, std::optional<double> grace)
    : polling_(timeout.has_value() && *timeout <= 0), grace_(grace) {
  if (timeout) {
    deadline_ = Clock::now() + Seconds(*timeout);
  }
}

bool Patience::IsOver(bool begun) const {
  return cause_ && (!begun || (grace_end_ && Clock::now() >= *grace_end_));
}

// How long to poll: until the next thing that is due; -1 when nothing is.
int Patience::Milliseconds(std::optional<Clock::time_point> slice_end) const {
  std::optional<Clock::time_point> first = cause_ ? grace_end_ : deadline_;
  for (const auto& other : {slice_end, Progress::NextTick()}) {
    if (other && (!first || *other < *first)) {
      first = other;
    }
  }
  if (!first) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
  constexpr long long kHour = 3'600'000;
  return static_cast<int>(std::clamp<long long>(left, 0, kHour));
}

void Patience::Interrupt(Outcome cause) {
  if (cause_) {
    grace_end_ = Clock::now();
    return;
  }
  cause_ = cause;
  if (grace_) {
    grace_end_ = Clock::now() + Seconds(*grace_);
  }
}

void Patience::Serve(int fd, std::function<bool()> serve) {
  served_ = fd;
  serve_ = std::move(serve);
}

Outcome Patience::Wait(int fd, short events, bool begun, int slice) {
  std::optional<Clock::time_point> slice_end;
  if (slice >= 0) {
    slice_end = Clock::now() + std::chrono::milliseconds(slice);
  }
  const std::optional<Outcome> before = cause_;
  for (;;) {
    Progress::Tick();
    const bool late = deadline_ && Clock::now() >= *deadline_;
    if (late && !polling_ && !cause_) {
      Interrupt(Outcome::kTimedOut);
    }
    if (IsOver(begun)) {
      return *cause_;
    }
    if (cause_ && fd >= 0 && !said_in_grace_.empty()) {
      Note(said_in_grace_);
      said_in_grace_.clear();
    }
    const bool served = serve_ && serve_();
    pollfd watched[4] = {{fd, events, 0},
                         {StopRequests::fd(), POLLIN, 0},
                         {cause_ ? -1 : output_, 0, 0},
                         {served_, POLLIN, 0}};
    const int ready = ::poll(watched, 4, served ? 0 : Milliseconds(slice_end));
    if (watched[1].revents != 0) {
      StopRequests::Take();
      Interrupt(Outcome::kStopped);
    } else if (watched[0].revents != 0) {
      return Outcome::kReady;
    } else if (watched[2].revents != 0) {
      Interrupt(Outcome::kOutputClosed);
    } else if (ready == 0 && !served && !cause_ && deadline_ && Clock::now() >= *deadline_) {
      Interrupt(Outcome::kTimedOut);
    } else if (served || watched[3].revents != 0 ||
               (ready == 0 && slice_end && Clock::now() >= *slice_end)) {
      return Outcome::kTick;
    }
    if (serve_ && cause_ != before) {
      return Outcome::kTick;  // there may be other things to do now
    }
  }
}

Exit ExitFor(Outcome outcome, bool complete) {
  if (outcome == Outcome::kTimedOut) {
    return kTimedOut;
  }
  return complete || outcome == Outcome::kReady || outcome == Outcome::kOutputClosed ? kDone
                                                                                     : kFailed;
}

}  // namespace jpipe
