// pull.cpp - jpipe pull: messages from an endpoint to standard output.
#include <unistd.h>

#include "commands.h"
#include "output.h"
#include "progress.h"
#include "report.h"
#include "sock.h"

namespace jpipe {

int Pull(const Options& options) {
  Patience patience(options.timeout);
  EndpointSock sock(options.operands[0], Direction::kPull, patience);
  if (options.count || options.timeout) {
    sock.WillLeave();
  }
  patience.WatchOutput(STDOUT_FILENO);
  const Formatter formatter(options.format.value_or(Format::kText), options.frames.value_or("\t"),
                            ::isatty(STDOUT_FILENO) == 1);
  Progress progress(options.progress);
  Content content;
  Outcome outcome = Outcome::kReady;
  while (outcome == Outcome::kReady && (!options.count || progress.messages() < *options.count)) {
    outcome = sock.Take(content);
    if (outcome != Outcome::kReady) {
      break;
    }
    outcome = WriteOut(formatter.Shown(content), patience);
    if (outcome != Outcome::kReady) {
      Note("1 message that was taken could not be written to standard output and is lost");
    } else {
      progress.Add(content);
    }
  }
  sock.SayWhatLeavingLoses();
  return ExitFor(outcome, !options.count);
}

}  // namespace jpipe
