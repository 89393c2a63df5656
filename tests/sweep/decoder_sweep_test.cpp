// decoder_sweep_test.cpp - the reader against a second decoder, over every short byte
// string: same verdict, same bytes left over. The fuzz target takes longer ones.
#include <gtest/gtest.h>

#include "jlog.h"
#include "sweep/wire_model.h"

// The lines of millions of refused streams are of no interest.
extern "C" void jlog_printf(int, int, const char*, ...) {}

namespace {

// Sanitizers and emulators make each string several times as expensive: they see
// a part.
#if defined(SWEEP_A_PART) || defined(JACTOR_SANITIZED) || defined(JACTOR_EMULATED) || \
    !defined(__OPTIMIZE__)
constexpr unsigned kStep = 61;
#else
constexpr unsigned kStep = 1;
#endif

TEST(DecoderSweep, EveryByteStringOfUpToThreeBytes) {
  wire::StringSock sock;
  unsigned long strings = 0;
  for (unsigned length = 0; length <= 3; ++length) {
    for (unsigned n = 0; n < 1U << 8 * length; n += length == 3 ? kStep : 1, ++strings) {
      sock.stream.clear();
      for (unsigned byte = 0; byte < length; ++byte) {
        sock.stream += static_cast<char>(n >> 8 * byte);
      }
      ASSERT_TRUE(wire::SameVerdicts(sock)) << ::testing::PrintToString(sock.stream);
    }
  }
  std::printf("decoder sweep: %lu strings of up to 3 bytes\n", strings);
}

}  // namespace
