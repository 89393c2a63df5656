// tally.h - what lies in an endpoint, taken out and counted.
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
  unsigned long long loose = 0;  // bytes that are not a whole message
  unsigned long long bytes = 0;

  // "5 bytes thrown away: 1 message, 1 signal".
  std::string Told() const;
};

// Takes what lies in the FIFO `fd`, at most `most` bytes, and waits for no more: messages
// as far as they go, and everything behind a fault as loose bytes. Writes the messages
// to standard output with `formatter`, if there is one.
Tally DrainAll(int fd, std::size_t most, const Formatter* formatter, Patience& patience);

}  // namespace jpipe

#endif
