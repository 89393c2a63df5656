// decoder_sweep_test.cpp - the reader against a second decoder, over every short
// byte string and many random ones: same verdict, same bytes left over.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "jcxxsock.h"
#include "jlog.h"
#include "sweep/wire_model.h"

// The lines of millions of refused streams are of no interest.
extern "C" void jlog_printf(int, int, const char*, ...) {}

namespace {

// A sock that reads from a string.
struct StringSock : JCXXSock {
  std::string stream;
  std::size_t at = 0;
  int ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got) override {
    const std::size_t count = std::min(len, stream.size() - at);
    std::memcpy(buf, stream.data() + at, count);
    at += count;
    got = count == len ? len : 0;
    return count == len ? 0 : -1;
  }
};

// Decodes the stream both ways, message by message.
bool SameVerdicts(StringSock& sock) {
  bool same = true;
  std::size_t at = 0;
  sock.at = 0;
  do {
    const wire::Message expected = wire::DecodeMessage(sock.stream, at);
    same = wire::Read(&sock) == expected && sock.at == at;
  } while (same && at < sock.stream.size());
  return same;
}

// Sanitizers and emulators make each string several times as expensive: they see
// a part.
#if defined(SWEEP_A_PART) || defined(JACTOR_SANITIZED) || defined(JACTOR_EMULATED) || \
    !defined(__OPTIMIZE__)
constexpr unsigned kStep = 61;
#else
constexpr unsigned kStep = 1;
#endif

TEST(DecoderSweep, EveryByteStringOfUpToThreeBytes) {
  StringSock sock;
  unsigned long strings = 0;
  for (unsigned length = 0; length <= 3; ++length) {
    for (unsigned n = 0; n < 1U << 8 * length; n += length == 3 ? kStep : 1, ++strings) {
      sock.stream.clear();
      for (unsigned byte = 0; byte < length; ++byte) {
        sock.stream += static_cast<char>(n >> 8 * byte);
      }
      ASSERT_TRUE(SameVerdicts(sock)) << ::testing::PrintToString(sock.stream);
    }
  }
  std::printf("decoder sweep: %lu strings of up to 3 bytes\n", strings);
}

// Bytes that often make sense: lead bytes of every form with small sizes, and
// what is left to chance.
std::string RandomStream(std::mt19937& random) {
  std::string stream;
  const std::size_t length = 4 + random() % 60;
  while (stream.size() < length) {
    const auto r = static_cast<unsigned>(random());
    const unsigned kind = r % 8;
    const char small = static_cast<char>(r >> 8 & 7);
    const unsigned header = r >> 16 & 0x40;  // of a message, not of a frame
    const unsigned kLeads[] = {0x20 | header, 0x30 | header, 0x40 | (r >> 16 & 0x0F), r >> 16};
    stream += kind < 4 ? static_cast<char>(kLeads[kind]) : small;
    if (kind == 1) {
      stream += {0, static_cast<char>(r >> 30)};
    }
    if (kind < 2) {
      stream += {0, small};
    }
  }
  return stream;
}

TEST(DecoderSweep, RandomStreams) {
  constexpr unsigned kStreams = 3000000 / kStep;
  std::mt19937 random(281);
  StringSock sock;
  for (unsigned n = 0; n < kStreams; ++n) {
    sock.stream = RandomStream(random);
    ASSERT_TRUE(SameVerdicts(sock)) << ::testing::PrintToString(sock.stream);
  }
  std::printf("decoder sweep: %u random streams\n", kStreams);
}

}  // namespace
