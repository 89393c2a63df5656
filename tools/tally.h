// tally.h - the contents of an endpoint, taken out and counted.
#ifndef JPIPE_TALLY_H
#define JPIPE_TALLY_H

#include <cstddef>
#include <string>

#include "formats.h"
#include "waiting.h"

namespace jpipe {

struct Tally {
  unsigned long long messages = 0;
  unsigned long long signals = 0;
  unsigned long long loose = 0;  // bytes outside a whole message
  unsigned long long bytes = 0;

  // "5 bytes thrown away: 1 message, 1 signal".
  std::string Told() const;
};

// Takes the contents of the FIFO `fd`, at most `most` bytes, without waiting for more: whole
// messages up to the first fault, and everything after it as loose bytes. Writes the messages
// to standard output with `formatter`, if there is one.
Tally DrainAll(int fd, std::size_t most, const Formatter* formatter, Patience& patience);

}  // namespace jpipe

#endif
