// jlog_test.cpp - the stand-in for the platform's log library: thresholds, and
// one write for each line.
#include "jlog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

TEST(JlogTest, ALineUpToTheThresholdIsOneWriteAtAnyLength) {
  int ends[2];  // standard error as packets: what each write wrote
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  ASSERT_EQ(::dup2(ends[0], STDERR_FILENO), STDERR_FILENO);
  const auto packet = [&] {
    std::string bytes(100000, '\0');
    const ssize_t size = ::recv(ends[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
    return bytes.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size));
  };
  for (const int threshold : {2, 9, 0}) {
    jlog_set_level(threshold);
    for (const int level : {1, 2, 9}) {
      for (const std::size_t length : {1U, 1022U, 1023U, 1024U, 1025U, 60000U}) {
        const std::string text(length, 'x');
        jlog_printf(level, 281, "%s\n", text.c_str());
        EXPECT_EQ(packet(), level <= threshold ? text + "\n" : "");
        EXPECT_EQ(packet(), "");
      }
    }
  }
}

}  // namespace
