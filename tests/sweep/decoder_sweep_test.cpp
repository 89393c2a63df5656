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

// Decodes `sock`'s stream, one message or all of them, both ways.
::testing::AssertionResult SameVerdict(StringSock& sock, bool all) {
  sock.at = 0;
  std::size_t at = 0;
  do {
    const wire::Message expected = wire::DecodeMessage(sock.stream, at);
    if (wire::TakeApart(JCXXMsg::ReadMessage(&sock)) != expected || sock.at != at) {
      return ::testing::AssertionFailure()
             << "bytes " << ::testing::PrintToString(sock.stream) << ": the reader took " << sock.at
             << " bytes, the model " << at << ", which says " << (expected.ok ? "good" : "bad");
    }
  } while (all && at < sock.stream.size());
  return ::testing::AssertionSuccess();
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
      const unsigned char bytes[3] = {static_cast<unsigned char>(n >> 16),
                                      static_cast<unsigned char>(n >> 8),
                                      static_cast<unsigned char>(n)};
      sock.stream.assign(reinterpret_cast<const char*>(bytes) + 3 - length, length);
      ASSERT_TRUE(SameVerdict(sock, false));
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
    const char small = static_cast<char>(r >> 8 & 7);
    switch (r % 8) {
      case 0:
        stream += {static_cast<char>(0x20 | (r >> 16 & 0x40)), 0, small};
        break;
      case 1:
        stream +=
            {static_cast<char>(0x30 | (r >> 16 & 0x40)), 0, static_cast<char>(r >> 30), 0, small};
        break;
      case 2:
      case 3:
        stream += static_cast<char>(0x40 | (r >> 16 & 0x0F));
        break;
      case 4:
        stream += static_cast<char>(r >> 16);
        break;
      default:
        stream += small;
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
    ASSERT_TRUE(SameVerdict(sock, true));
  }
  std::printf("decoder sweep: %u random streams\n", kStreams);
}

}  // namespace
