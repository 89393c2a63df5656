// jlog_test.cpp - the stand-in for the platform's log library: thresholds, and
// one write for each line.
#include "jlog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

// Standard error as packets: what each write wrote.
class JlogTest : public testing::Test {
 protected:
  JlogTest() : stderr_(::dup(STDERR_FILENO)) {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_), 0);
    ::dup2(ends_[0], STDERR_FILENO);
  }
  ~JlogTest() override {
    ::dup2(stderr_, STDERR_FILENO);
    ::close(ends_[0]);
    ::close(ends_[1]);
    ::close(stderr_);
    jlog_set_level(2);
  }
  std::string Packet() {
    std::string packet(100000, '\0');
    const ssize_t size = ::recv(ends_[1], packet.data(), packet.size(), MSG_DONTWAIT);
    packet.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return packet;
  }

 private:
  int stderr_;
  int ends_[2];
};

TEST_F(JlogTest, LinesAboveTheThresholdAreDropped) {
  for (const int threshold : {2, 9, 0}) {
    jlog_set_level(threshold);
    for (const int level : {1, 2, 9}) {
      jlog_printf(level, 281, "%s %d\n", "level", level);
      EXPECT_EQ(Packet(), level <= threshold ? "level " + std::to_string(level) + "\n" : "");
    }
  }
}

TEST_F(JlogTest, ALineOfAnyLengthIsOneWrite) {
  for (const std::size_t length : {1U, 1022U, 1023U, 1024U, 1025U, 60000U}) {
    const std::string text(length, 'x');
    jlog_printf(1, 281, "%s\n", text.c_str());
    EXPECT_EQ(Packet(), text + "\n");
    EXPECT_EQ(Packet(), "");
  }
}

}  // namespace
