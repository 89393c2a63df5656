// drain.cpp - jpipe drain: throws away the contents of an endpoint, and says what
// they were.
#include <unistd.h>

#include <cstdint>

#include "commands.h"
#include "endpoint.h"
#include "formats.h"
#include "output.h"
#include "report.h"
#include "tally.h"

namespace jpipe {

int Drain(const Options& options) {
  RequireOutput();
  const std::string& endpoint = options.operands[0];
  const std::string fifo = FifoPath(endpoint);
  const Descriptor look = OpenToLook(fifo);
  if (!look) {
    throw Failure(kFailed, "cannot drain " + endpoint + ": " + WhyNoLook(fifo));
  }
  Patience patience(std::nullopt);
  const Formatter formatter(options.format.value_or(Format::kQuoted), "\t",
                            ::isatty(STDOUT_FILENO) == 1);
  const Tally tally =
      DrainAll(look.get(), SIZE_MAX, options.format ? &formatter : nullptr, patience);
  const std::string told = endpoint + ": " + tally.Told();
  const Outcome ended = patience.cause().value_or(Outcome::kReady);
  if (ended != Outcome::kReady) {
    Note("stopped while bytes were still arriving: stop the sender first, or drain again");
  }
  if (options.format) {
    Note(told);
    return ExitFor(ended, false);
  }
  const Exit printed = Print(told + "\n");
  return ended != Outcome::kReady ? ExitFor(ended, false) : printed;
}

}  // namespace jpipe
