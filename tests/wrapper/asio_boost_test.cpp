// asio_boost_test.cpp - jactor_asio.hpp with Boost.Asio, in C++17: callbacks.
#define JACTOR_BOOST_ASIO
#include <string>

#include "jactor_asio.hpp"
#include "support.h"
#include "wrapper/common.h"

using namespace jactor;
namespace asio = boost::asio;

namespace {

using AsioBoost = support::Test;

TEST_F(AsioBoost, AQuestionIsAnsweredInTheLoop) {
  const Actor echo(wrapper::Echo);
  const std::string large(JACTOR_MAX_SIZE, 'x');
  asio::io_context loop;
  int sent = 0;
  std::string answer;
  const auto on_sent = [&](boost::system::error_code error) { sent += error ? 0 : 1; };
  const auto on_answer = [&](boost::system::error_code, std::optional<Message> message) {
    answer = message.value().pop_string().value();
  };
  async_receive(echo.sock(), asio::bind_executor(loop, on_answer));
  async_send(echo.sock(), Message{large}, asio::bind_executor(asio::make_strand(loop), on_sent));
  loop.run();
  EXPECT_EQ(sent, 1);
  EXPECT_EQ(answer, large);
}

}  // namespace
