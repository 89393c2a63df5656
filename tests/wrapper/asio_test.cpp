// asio_test.cpp - jactor_asio.hpp: messages in asio's loop, and what a cancellation leaves.
#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "jactor_asio.hpp"

#ifdef ASIO_HAS_CO_AWAIT
#include <asio/experimental/awaitable_operators.hpp>
#endif

#include "support.h"

using namespace std::chrono_literals;
using namespace jactor;

namespace {

// One message, "half", cut where a sender may have stopped, and a message with a signal inside.
constexpr std::string_view kFirstPart("\4ha", 3);
constexpr std::string_view kSecondPart("lf", 2);
constexpr std::string_view kDamage("\x45\x81", 2);

// Words of what was received, with a bar between frames.
std::string Words(std::optional<Message> message) {
  if (!message) {
    return "nothing";
  }
  if (const auto value = message->signal()) {
    return "signal " + std::to_string(*value);
  }
  std::string words;
  while (auto word = message->pop_string()) {
    words += (words.empty() ? "" : "|") + *word;
  }
  return words;
}

// What a handler was called with: words for what came, or for the error.
struct Outcome {
  std::string what = "pending";
  asio::cancellation_signal cancel;

  auto handler(asio::io_context& loop) {
    return asio::bind_cancellation_slot(
        cancel.slot(),
        asio::bind_executor(loop, [this](asio::error_code error, std::optional<Message> message) {
          what = error ? error.message() : Words(std::move(message));
        }));
  }
  auto send_handler(asio::io_context& loop) {
    return asio::bind_cancellation_slot(cancel.slot(),
                                        asio::bind_executor(loop, [this](asio::error_code error) {
                                          what = error ? error.message() : "sent";
                                        }));
  }
};

const std::string kCancelled = asio::error_code(asio::error::operation_aborted).message();

// `from` is one end, which the test writes on; `here` is the other, used in the loop.
class Asio : public support::PairTest {
 protected:
  // Runs the loop until nothing is left that is ready.
  void Turn() {
    loop.restart();
    loop.poll();
  }

  // What a plain receive takes that does not wait.
  std::string Rest() { return Words(here.receive_for(0s).message); }

  std::string ReceiveWithLoop() {
    Outcome outcome;
    async_receive(here, outcome.handler(loop));
    EXPECT_EQ(outcome.what, "pending");  // never in the call itself
    Turn();
    return outcome.what;
  }

  asio::io_context loop;
  SockRef from{a.get()};
  SockRef here{b.get()};
};

TEST_F(Asio, ReceivesWhatIsThereAndWhatWasReadAhead) {
  from.send(Message{"one"});
  from.send(Message{"two", "parts"});
  from.signal(7);
  from.send(Message());
  from.send(Message{"last"});
  EXPECT_EQ(ReceiveWithLoop(), "one");
  EXPECT_GT(here.buffered(), 0u);
  EXPECT_EQ(ReceiveWithLoop(), "two|parts");
  EXPECT_EQ(ReceiveWithLoop(), "signal 7");
  EXPECT_EQ(ReceiveWithLoop(), "");
  EXPECT_EQ(Rest(), "last");
}

TEST_F(Asio, HalfAMessageHoldsUpNothing) {
  Outcome outcome;
  async_receive(here, outcome.handler(loop));
  Turn();
  Feed(std::string(kFirstPart));
  int ticks = 0;
  asio::steady_timer timer(loop, 1ms);
  timer.async_wait([&](asio::error_code) { ++ticks; });
  loop.restart();
  while (ticks == 0) {
    loop.run_one();
  }
  EXPECT_EQ(outcome.what, "pending");
  Feed(std::string(kSecondPart));
  Turn();
  EXPECT_EQ(outcome.what, "half");
}

TEST_F(Asio, ACancelledReceiveLosesNothing) {
  const std::string wire = "\4half";
  using Type = asio::cancellation_type;
  for (const Type type : {Type::terminal, Type::partial, Type::total}) {
    for (std::size_t cut = 0; cut < wire.size(); ++cut) {
      Outcome outcome;
      async_receive(here, outcome.handler(loop));
      Feed(wire.substr(0, cut));
      Turn();
      outcome.cancel.emit(type);
      Turn();
      EXPECT_EQ(outcome.what, kCancelled) << cut;
      Feed(wire.substr(cut));
      EXPECT_EQ(ReceiveWithLoop(), "half") << cut;
    }
  }
}

// A receive that is cancelled must not take a message, even if it is there by then: whoever
// cancels, as a coroutine with a time limit does, drops what comes afterwards.
TEST_F(Asio, AMessageIsLeftWhenTheCancellationComesFirst) {
  using Steps = std::vector<std::string_view>;
  for (const Steps& steps :
       {Steps{"message", "start", "cancel"}, Steps{"start", "message", "cancel"},
        Steps{"start", "cancel", "message"}, Steps{"start", "turn", "message", "cancel"},
        Steps{"start", "turn", "cancel", "message"}, Steps{"start", "message", "turn", "cancel"}}) {
    Outcome outcome;
    std::string wanted = "pending";
    for (const std::string_view step : steps) {
      if (step == "start") {
        async_receive(here, outcome.handler(loop));
      } else if (step == "message") {
        from.send(Message{"work"});
      } else if (step == "turn") {
        Turn();
      } else {
        wanted = outcome.what == "pending" ? kCancelled : outcome.what;
        outcome.cancel.emit(asio::cancellation_type::all);
      }
    }
    Turn();
    EXPECT_EQ(outcome.what, wanted);
    EXPECT_EQ(Rest(), wanted == kCancelled ? "work" : "nothing");
  }
}

TEST_F(Asio, TheEndAndDamageAndBadHandlesAreTold) {
  Outcome no_sock;
  async_receive(SockRef(nullptr), no_sock.handler(loop));
  Turn();
  EXPECT_EQ(no_sock.what, asio::error_code(EINVAL, std::system_category()).message());
  Feed(std::string(kDamage));
  EXPECT_EQ(ReceiveWithLoop(), asio::error_code(EBADMSG, std::system_category()).message());
  Outcome at_end;
  async_receive(here, at_end.handler(loop));
  Turn();
  a.reset();  // hangs up
  Turn();
  EXPECT_EQ(at_end.what, "nothing");
  Outcome to_nobody;
  async_send(here, Message{"?"}, to_nobody.send_handler(loop));
  Turn();
  EXPECT_EQ(to_nobody.what, asio::error_code(EPIPE, std::system_category()).message());

  const std::string half(JACTOR_MAX_SIZE / 2, 'x');
  for (auto& [sock, message, reason] : std::vector<std::tuple<SockRef, Message*, int>>{
           {here, new Message(nullptr), EINVAL},
           {SockRef(nullptr), new Message{"lost"}, EINVAL},
           {here, new Message{half, half, "!"}, EMSGSIZE}}) {
    const std::unique_ptr<Message> owner(message);
    Outcome outcome;
    async_send(sock, std::move(*message), outcome.send_handler(loop));
    Turn();
    EXPECT_EQ(outcome.what, asio::error_code(reason, std::system_category()).message());
  }
}

// The sends of the C interface are the model, and have a limit that this one has not.
TEST_F(Asio, AMessageTravelsAsInAPlainSend) {
  for (const int frames : {0, 1, 2, 500}) {
    Message plain;
    Message in_loop;
    for (int i = 0; i < frames; ++i) {
      plain.add(std::string(static_cast<std::size_t>(i % 40), 'x'));
      in_loop.add(std::string(static_cast<std::size_t>(i % 40), 'x'));
    }
    from.send(std::move(plain));
    const std::string wanted = Drain();
    Outcome outcome;
    async_send(from, std::move(in_loop), outcome.send_handler(loop));
    EXPECT_EQ(outcome.what, "pending");
    Turn();
    EXPECT_EQ(outcome.what, "sent");
    EXPECT_EQ(Drain(), wanted) << frames;
  }
  from.signal(200);
  Outcome outcome;
  async_send(from, std::move(*here.receive()), outcome.send_handler(loop));
  Turn();
  EXPECT_EQ(Rest(), "signal 200");
}

// Sends until the pipe is full. Result: how many messages of `size` bytes it took.
int Fill(SockRef sock, std::size_t size, asio::io_context& loop, Outcome& last) {
  for (int count = 0;; ++count) {
    last.what = "pending";
    async_send(sock, Message{std::string(size, 'x')}, last.send_handler(loop));
    loop.restart();
    loop.poll();
    if (last.what == "pending") {
      return count;
    }
  }
}

TEST_F(Asio, ASendWaitsForRoomInTheLoopAndLeavesTheDescriptorBlocking) {
  int fd = -1;
  ASSERT_EQ(a->GetWriteFD(fd), 0);
  Outcome outcome;
  int count = Fill(from, 1000, loop, outcome);
  EXPECT_GT(count, 10);
  for (; count >= 0; --count) {
    EXPECT_EQ(Rest(), std::string(1000, 'x'));
    Turn();
  }
  EXPECT_EQ(outcome.what, "sent");
  EXPECT_EQ(Rest(), "nothing");
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Asio, ACancelledSendSendsAllOrNothing) {
  Outcome outcome;
  int count = Fill(from, 1000, loop, outcome);  // at most PIPE_BUF: in one piece or not at all
  outcome.cancel.emit(asio::cancellation_type::all);
  Turn();
  EXPECT_EQ(outcome.what, kCancelled);
  for (; count > 0; --count) {
    EXPECT_EQ(Rest(), std::string(1000, 'x'));
  }
  EXPECT_EQ(Rest(), "nothing");

  const std::string large(JACTOR_MAX_SIZE, 'y');  // more than the pipe holds
  outcome.what = "pending";
  async_send(from, Message{large}, outcome.send_handler(loop));
  outcome.cancel.emit(asio::cancellation_type::all);
  Turn();
  EXPECT_EQ(outcome.what, "pending");
  std::string got = "nothing";
  while (got == "nothing") {
    got = Rest();
    Turn();
  }
  EXPECT_EQ(got, large);
  EXPECT_EQ(outcome.what, "sent");
}

TEST_F(Asio, ASecondOperationIsRefusedWhileOneIsPending) {
  const std::string busy = asio::error_code(EBUSY, std::system_category()).message();
  Outcome outcomes[4];
  async_receive(here, outcomes[0].handler(loop));
  async_receive(here, outcomes[1].handler(loop));
  const std::string large(JACTOR_MAX_SIZE, 'x');
  async_send(here, Message{large}, outcomes[2].send_handler(loop));  // the other way
  async_send(here, Message{"?"}, outcomes[3].send_handler(loop));
  Turn();
  EXPECT_EQ(outcomes[1].what, busy);
  EXPECT_EQ(outcomes[3].what, busy);
  from.send(Message{"one"});
  Turn();
  EXPECT_EQ(outcomes[0].what, "one");
  std::string got = "nothing";
  while (got == "nothing") {
    Turn();
    got = Words(from.receive_for(0s).message);
  }
  EXPECT_EQ(got, large);
  Turn();
  EXPECT_EQ(outcomes[2].what, "sent");
}

TEST_F(Asio, AHandlerStartsTheNextOperation) {
  std::string got;
  const std::function<void()> receive = [&] {
    async_receive(here,
                  asio::bind_executor(loop, [&](asio::error_code, std::optional<Message> message) {
                    got += Words(std::move(message)) + ";";
                    receive();
                  }));
  };
  receive();
  for (const char* text : {"one", "two", "three"}) {
    Turn();
    from.send(Message{text});
  }
  Turn();
  a.reset();
  loop.run_one();
  EXPECT_EQ(got, "one;two;three;nothing;");
}

TEST_F(Asio, OneThreadSendsLargeMessagesToItself) {
  const std::string large(JACTOR_MAX_SIZE, 'z');
  Outcome sent;
  Outcome received;
  async_receive(here, received.handler(loop));
  async_send(from, Message{large}, sent.send_handler(loop));
  loop.run();
  EXPECT_EQ(sent.what, "sent");
  EXPECT_EQ(received.what, large);
}

TEST_F(Asio, ALoopThatIsDestroyedLeavesTheSockItsDescriptor) {
  Outcome outcome;
  {
    asio::io_context other;
    async_receive(here, outcome.handler(other));
    other.poll();
    Feed(std::string(kFirstPart));
    other.poll();
  }
  EXPECT_EQ(outcome.what, "pending");
  Feed(std::string(kSecondPart));
  EXPECT_EQ(ReceiveWithLoop(), "half");
}

// The pipe of an actor is not kept open by an operation: its function sees the end.
TEST_F(Asio, AnActorCanBeDestroyedUnderAReceive) {
  Outcome outcome;
  {
    Actor actor([](SockRef sock) {
      sock.ready();
      while (sock.receive()) {
      }
    });
    async_receive(actor.sock(), outcome.handler(loop));
    Turn();
  }
  EXPECT_EQ(outcome.what, "pending");
}

// As the actor's own receive does; its sock alone would wait for ever.
TEST_F(Asio, AReceiveOnAnActorEndsWithItsCallable) {
  for (const bool inside_a_message : {false, true}) {
    Actor actor([&](SockRef sock) {
      sock.ready();
      Message request = *sock.receive();
      sock.send(std::move(request));
      int fd = -1;
      if (inside_a_message && sock.get()->GetWriteFD(fd) == 0) {
        EXPECT_EQ(::write(fd, kFirstPart.data(), kFirstPart.size()), ssize_t(kFirstPart.size()));
      }
    });
    Outcome answer;
    Outcome at_end;
    Outcome sent;
    async_receive(actor, answer.handler(loop));
    Turn();
    EXPECT_EQ(answer.what, "pending");
    async_send(actor, Message{"question"}, sent.send_handler(loop));
    loop.restart();
    loop.run();
    async_receive(actor, at_end.handler(loop));
    loop.restart();
    loop.run();
    EXPECT_EQ(answer.what, "question");
    EXPECT_EQ(at_end.what, inside_a_message
                               ? asio::error_code(EBADMSG, std::system_category()).message()
                               : "nothing");
  }
}

TEST_F(Asio, AFutureCanBeWaitedForWhileAnotherThreadRunsTheLoop) {
  auto received = async_receive(here, asio::bind_executor(loop, asio::use_future));
  std::thread thread([this] { loop.run(); });
  from.send(Message{"for later"});
  EXPECT_EQ(Words(received.get()), "for later");
  thread.join();
}

#ifdef ASIO_HAS_CO_AWAIT

asio::awaitable<void> Serve(SockRef sock) {
  while (auto message = co_await async_receive(sock, asio::use_awaitable)) {
    co_await async_send(sock, std::move(*message), asio::use_awaitable);
  }
}

TEST_F(Asio, AnActorRunsALoopOfCoroutinesUntilItIsStopped) {
  Actor echo([](SockRef sock) {
    asio::io_context own;
    asio::co_spawn(own, Serve(sock), asio::detached);
    sock.ready();
    own.run();
  });
  const std::string large(JACTOR_MAX_SIZE, 'z');
  for (const std::string& text : {std::string("small"), large}) {
    echo.send(Message{text});
    EXPECT_EQ(Words(echo.receive()), text);
  }
  echo.join();
}

asio::awaitable<void> ReceiveWithin(SockRef sock, std::chrono::milliseconds limit,
                                    std::string& what) {
  using namespace asio::experimental::awaitable_operators;
  asio::steady_timer timer(co_await asio::this_coro::executor, limit);
  auto first =
      co_await (async_receive(sock, asio::use_awaitable) || timer.async_wait(asio::use_awaitable));
  what = first.index() == 0 ? Words(std::move(std::get<0>(first))) : "too late";
}

TEST_F(Asio, ATimeLimitInsideAMessageLosesNothing) {
  std::string what;
  Feed(std::string(kFirstPart));
  asio::co_spawn(loop, ReceiveWithin(here, 1ms, what), asio::detached);
  loop.run();
  EXPECT_EQ(what, "too late");
  Feed(std::string(kSecondPart));
  asio::co_spawn(loop, ReceiveWithin(here, 1h, what), asio::detached);
  loop.restart();
  loop.run();
  EXPECT_EQ(what, "half");
}

#endif

}  // namespace
