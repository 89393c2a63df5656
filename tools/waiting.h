// waiting.h - waits that a signal, a time limit or a closed standard output can end.
//
// One thread: the one that runs the command. The progress line is updated meanwhile.
#ifndef JPIPE_WAITING_H
#define JPIPE_WAITING_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "report.h"

namespace jpipe {

enum class Outcome {
  kReady,         // what was waited for is there
  kTick,          // the slice is over, and nothing else has happened
  kStopped,       // SIGINT, SIGTERM or SIGHUP has arrived
  kTimedOut,      // the time limit is reached
  kOutputClosed,  // nobody reads standard output any more
  kFull,          // there is no room, and the command does not wait for any
};

// Requests to stop: SIGINT, SIGTERM and SIGHUP, made readable as a descriptor.
class StopRequests {
 public:
  // Catches the signals, and ignores those that a failed write sends. Call once, before any thread.
  static void Install();

  // Readable while a request waits to be taken.
  static int fd();

  // Takes the requests that wait. Result: the number of requests since the start.
  static int Take();
};

// How long a command is willing to wait.
//
// A stop request, the time limit or a closed output ends a wait immediately, unless part
// of a message has been transferred: it gets the grace period to be finished, since
// half a message is of no use to anybody. A second stop request ends that too. What
// ended a wait ends all later ones.
class Patience {
 public:
  using Clock = std::chrono::steady_clock;

  // `timeout` in seconds from now; 0 takes what is there without waiting.
  // `grace` in seconds; nullopt: without limit.
  explicit Patience(std::optional<double> timeout, std::optional<double> grace = 1.0);

  // From now on a hang-up of `fd` ends a wait with kOutputClosed.
  void WatchOutput(int fd) { output_ = fd; }

  // From now on calls `serve` before each wait, and again when `fd` is readable. Its result:
  // whether it had anything to do.
  void Serve(int fd, std::function<bool()> serve);

  // Written once to standard error when a wait goes into the grace period.
  void SayInGrace(const std::string& text) { said_in_grace_ = text; }

  // Waits for `events` on `fd` (-1: for nothing). `begun`: a message is under way.
  // Result: kReady; kTick after `slice` milliseconds (negative: never), after something was
  // served, and, where there is something to serve, when a stop request has just arrived; or
  // what ended it.
  Outcome Wait(int fd, short events, bool begun, int slice = -1);

  // Ends every wait from now on, as a stop request does.
  void Interrupt(Outcome cause);

  // What has ended the waits, if anything has.
  std::optional<Outcome> cause() const { return cause_; }

 private:
  bool IsOver(bool begun) const;
  int Milliseconds(std::optional<Clock::time_point> slice_end) const;

  std::optional<Clock::time_point> deadline_;
  bool polling_;  // a time limit of 0
  std::optional<double> grace_;
  std::optional<Clock::time_point> grace_end_;
  std::optional<Outcome> cause_;
  std::string said_in_grace_;
  int output_ = -1;
  int served_ = -1;
  std::function<bool()> serve_;
};

// The exit code of a command that ended so. `complete`: it had nothing left to do.
Exit ExitFor(Outcome outcome, bool complete);

}  // namespace jpipe

#endif
