// pull.cpp - jpipe pull: messages from an endpoint to standard output.
#include <unistd.h>

#include "commands.h"
#include "holders.h"
#include "output.h"
#include "progress.h"
#include "report.h"
#include "sock.h"

namespace jpipe {
namespace {

// Writes one message. If it is lost, for any reason, says so.
Outcome Show(const std::string& shown, Patience& patience) {
  try {
    const Outcome outcome = WriteOut(shown, patience);
    if (outcome != Outcome::kReady) {
      Note("1 message was taken, could not be written to standard output, and is lost");
    }
    return outcome;
  } catch (const Failure& failure) {
    throw Failure(failure.code(),
                  std::string(failure.what()) + ": 1 message that was taken is lost");
  }
}

Outcome ShowAll(EndpointSock& sock, const Options& options, Patience& patience) {
  const Formatter formatter(options.format.value_or(Format::kText), options.frames.value_or("\t"),
                            ::isatty(STDOUT_FILENO) == 1);
  Progress progress(options.progress);
  Content content;
  Outcome outcome = Outcome::kReady;
  while (outcome == Outcome::kReady && (!options.count || progress.messages() < *options.count)) {
    outcome = sock.Take(content);
    if (outcome == Outcome::kReady) {
      outcome = Show(formatter.Shown(content), patience);
    }
    if (outcome == Outcome::kReady) {
      progress.Add(content);
    }
  }
  return outcome;
}

}  // namespace

int Pull(const Options& options) {
  RequireOutput();
  Patience patience(options.timeout);
  if (options.count || options.timeout) {
    MarkAsLeaving();
  }
  EndpointSock sock(options.operands[0], Direction::kPull, patience);
  patience.WatchOutput(STDOUT_FILENO);
  try {
    const Outcome outcome = ShowAll(sock, options, patience);
    sock.Leave();
    return ExitFor(outcome, !options.count);
  } catch (const Failure&) {
    sock.Leave();
    throw;
  }
}

}  // namespace jpipe
