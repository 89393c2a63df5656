// common.h - what the tests of the C++ wrapper share: parts of actors, and bytes that a
// message is cut into.
#ifndef JACTOR_TESTS_WRAPPER_COMMON_H
#define JACTOR_TESTS_WRAPPER_COMMON_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "jactor.hpp"
#include "jcxxsock.h"

namespace wrapper {

// A message of one frame, "half", cut where a sender may have stopped.
inline constexpr std::string_view kFirstPart("\4ha", 3);
inline constexpr std::string_view kSecondPart("lf", 2);

// A message with a signal inside.
inline constexpr std::string_view kDamage("\x45\x81", 2);

// Puts bytes onto the stream that are perhaps not a message.
inline void Write(jactor::SockRef sock, std::string_view bytes) {
  int fd = -1;
  ASSERT_EQ(sock.get()->GetWriteFD(fd), 0);
  ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
}

// Sends everything back.
inline void Echo(jactor::SockRef sock) {
  sock.ready();
  while (auto message = sock.receive()) {
    sock.send(std::move(*message));
  }
}

// Sends one message back.
inline void EchoOnce(jactor::SockRef sock) {
  sock.ready();
  sock.send(std::move(*sock.receive()));
}

// Sends one message back, begins another, and ends.
inline void EndInsideAMessage(jactor::SockRef sock) {
  EchoOnce(sock);
  Write(sock, kFirstPart);
}

}  // namespace wrapper

#endif
