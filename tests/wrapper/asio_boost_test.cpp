// asio_boost_test.cpp - jactor_asio.hpp with Boost.Asio, in C++17: callbacks.
#define JACTOR_BOOST_ASIO
#include "jactor_asio.hpp"
#include "wrapper/common.h"

using namespace jactor;
namespace asio = boost::asio;

TEST(AsioBoost, AQuestionIsAnsweredInTheLoop) {
  const Actor echo(wrapper::Echo);
  const std::string large(JACTOR_MAX_SIZE, 'x');
  std::string answer;
  asio::io_context loop;
  const auto on_sent = [](asio_error error) { EXPECT_FALSE(error); };
  const auto on_answer = [&](asio_error, std::optional<Message> message) {
    answer = message.value().pop_string().value();
  };
  async_receive(echo, asio::bind_executor(loop, on_answer));
  async_send(echo, Message{large}, asio::bind_executor(asio::make_strand(loop), on_sent));
  loop.run();
  EXPECT_EQ(answer, large);
}
