// output.h - standard output, written so that a stop request still gets through.
#ifndef JPIPE_OUTPUT_H
#define JPIPE_OUTPUT_H

#include <string_view>

#include "waiting.h"

namespace jpipe {

// Fills each of the descriptors 0, 1 and 2 that is closed, so that no pipe or endpoint
// gets its number. Reading and writing it fails. Call first.
void OccupyStandardDescriptors();

// Fails when standard output is closed or is known to take nothing. Call before
// taking something from an endpoint in order to write it.
void RequireOutput();

// Writes all of `bytes` to standard output. Result: kReady; kOutputClosed when
// nobody reads it any more; or what ended the wait for a slow reader. Fails when
// it cannot be written, as on a full disk.
Outcome WriteOut(std::string_view bytes, Patience& patience);

// The same for a command that prints its results and ends. Result: the exit code.
Exit Print(std::string_view bytes);

}  // namespace jpipe

#endif
