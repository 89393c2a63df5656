// jcxxsock_test.cpp - exact reads and writes over pipes, whatever the system
// calls return on the way.
#include "jcxxsock.h"

#include <cerrno>
#include <memory>
#include <numeric>
#include <thread>

#include "support.h"

namespace {

using support::Call;
using support::Cut;
using support::Fail;
using support::Pass;
using support::Return;
using support::Script;
using support::Step;
using Bytes = std::vector<unsigned char>;

Bytes Counting(std::size_t n) {
  Bytes bytes(n);
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
  return bytes;
}

class SockTest : public support::Test {
 protected:
  void SetUp() override {
    support::Test::SetUp();
    auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
    a.reset(first);
    b.reset(second);
  }
  void TearDown() override {
    a.reset();
    b.reset();
    support::Test::TearDown();
  }
  std::unique_ptr<JCXXSock> a;
  std::unique_ptr<JCXXSock> b;
};

TEST_F(SockTest, AMegabyteCrossesAPipeByteForByte) {
  Bytes sent = Counting(1 << 20);
  std::size_t written = 0;
  std::thread writer([&] { EXPECT_EQ(a->WriteBlocking(sent.data(), sent.size(), written), 0); });
  Bytes received(sent.size());
  std::size_t got = 0;
  EXPECT_EQ(b->ReadBlocking(received.data(), received.size(), got), 0);
  writer.join();
  EXPECT_EQ(got, sent.size());
  EXPECT_EQ(written, sent.size());
  EXPECT_TRUE(sent == received);
}

}  // namespace
