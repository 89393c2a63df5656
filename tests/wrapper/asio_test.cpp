// asio_test.cpp - jactor_asio.hpp: messages in asio's loop, and what a cancellation leaves.
#include <fcntl.h>

#include <functional>
#include <map>
#include <string>
#include <thread>

#include "jactor_asio.hpp"
#include "messages.h"
#include "support.h"
#include "wrapper/common.h"

using namespace std::chrono_literals;
using namespace jactor;
using namespace wrapper;

namespace {

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

  // For both operations: that of a send has no message.
  auto handler(asio::io_context& loop) {
    const auto note = [this](asio::error_code error,
                             std::optional<Message> message = Message{"sent"}) {
      what = error ? error.message() : Words(std::move(message));
    };
    return asio::bind_cancellation_slot(cancel.slot(), asio::bind_executor(loop, note));
  }
};

std::string Reason(int error) { return std::system_category().message(error); }
const std::string kCancelled = asio::error_code(asio::error::operation_aborted).message();
const std::string kLarge(JACTOR_MAX_SIZE, 'x');  // more than a pipe holds

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

  // What the handler of an operation is told that does not have to wait.
  std::string OutcomeOf(const std::function<void(Outcome&)>& start) {
    Outcome outcome;
    start(outcome);
    EXPECT_EQ(outcome.what, "pending");  // never in the call itself
    Turn();
    return outcome.what;
  }
  std::string Receive() {
    return OutcomeOf([this](Outcome& outcome) { async_receive(here, outcome.handler(loop)); });
  }
  std::string Send(Message message) {
    return OutcomeOf(
        [&](Outcome& outcome) { async_send(from, std::move(message), outcome.handler(loop)); });
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
  EXPECT_EQ(Receive(), "one");
  EXPECT_GT(here.buffered(), 0u);
  EXPECT_EQ(Receive(), "two|parts");
  EXPECT_EQ(Receive(), "signal 7");
  EXPECT_EQ(Receive(), "");
  EXPECT_EQ(Rest(), "last");
}

// A receive that is cancelled must not take a message, even if it is there by then: whoever
// cancels, as a coroutine with a time limit does, drops what comes afterwards. A step is one
// letter: the first part of a message, the second, start, turn the loop, cancel.
TEST_F(Asio, AReceiveThatIsCancelledLeavesItsMessage) {
  using Type = asio::cancellation_type;
  for (const Type type : {Type::terminal, Type::partial, Type::total}) {
    for (const std::string steps : {"12sc", "s12c", "sc12", "st12c", "stc12", "s12tc", "1stc2",
                                    "s1tc2", "st1tc2", "1st2c", "1st2tc"}) {
      Outcome outcome;
      std::string wanted;
      const std::map<char, std::function<void()>> kSteps = {
          {'1', [&] { Write(from, kFirstPart); }},
          {'2', [&] { Write(from, kSecondPart); }},
          {'s', [&] { async_receive(here, outcome.handler(loop)); }},
          {'t', [&] { Turn(); }},
          {'c', [&] {
             wanted = outcome.what == "pending" ? kCancelled : "half";
             outcome.cancel.emit(type);
           }}};
      for (const char step : steps) {
        kSteps.at(step)();
      }
      Turn();
      EXPECT_EQ(outcome.what, wanted) << steps;
      EXPECT_EQ(Rest(), wanted == kCancelled ? "half" : "nothing") << steps;
    }
  }
}

TEST_F(Asio, AnErrorCarriesTheReason) {
  const SockRef nobody(nullptr);
  const auto receive = [this](SockRef sock) {
    return [this, sock](Outcome& outcome) { async_receive(sock, outcome.handler(loop)); };
  };
  const auto send = [this](SockRef sock, JCXXMsg* message) {
    return [this, sock, message](Outcome& outcome) {
      async_send(sock, Message(message), outcome.handler(loop));
    };
  };
  Write(from, kDamage);
  EXPECT_EQ(OutcomeOf(receive(here)), Reason(EBADMSG));
  EXPECT_EQ(OutcomeOf(receive(nobody)), Reason(EINVAL));
  EXPECT_EQ(OutcomeOf(send(here, nullptr)), Reason(EINVAL));
  EXPECT_EQ(OutcomeOf(send(nobody, j_msg_new())), Reason(EINVAL));
  EXPECT_EQ(OutcomeOf(send(here, Message{kLarge, "!"}.release())), Reason(EMSGSIZE));
  a.reset();  // hangs up
  EXPECT_EQ(OutcomeOf(send(here, j_msg_new())), Reason(EPIPE));
  EXPECT_EQ(OutcomeOf(receive(here)), "nothing");
}

// The sends of the C interface are the model, and have a limit that this one has not.
TEST_F(Asio, AMessageTravelsAsInAPlainSend) {
  for (const std::size_t frames : {0U, 1U, 2U, 500U}) {
    from.send(Message(messages::BuildEqual(frames, 40)));
    const std::string wanted = Drain();
    EXPECT_EQ(Send(Message(messages::BuildEqual(frames, 40))), "sent");
    EXPECT_EQ(Drain(), wanted) << frames;
  }
  from.signal(200);
  EXPECT_EQ(Send(std::move(*here.receive())), "sent");
  EXPECT_EQ(Rest(), "signal 200");
}

TEST_F(Asio, ASendWaitsForRoomInTheLoopUnlessItIsCancelled) {
  const std::string text(1000, 'x');  // travels in one piece
  int fd = -1;
  ASSERT_EQ(a->GetWriteFD(fd), 0);
  for (const bool cancelled : {false, true}) {
    Outcome last;
    int sent = -1;
    do {
      last.what = "pending";
      async_send(from, Message{text}, last.handler(loop));
      Turn();
      ++sent;
    } while (last.what == "sent");
    if (cancelled) {
      last.cancel.emit(asio::cancellation_type::all);
    }
    EXPECT_GT(sent, 10);
    for (; sent > 0; --sent) {
      Turn();
      EXPECT_EQ(Rest(), text);
    }
    Turn();
    EXPECT_EQ(last.what, cancelled ? kCancelled : "sent");
    EXPECT_EQ(Rest(), cancelled ? "nothing" : text);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "the descriptor blocks as before";
  }
}

// Where a part is written already, the rest follows.
TEST_F(Asio, OneThreadSendsALargeMessageToItselfWhateverIsCancelled) {
  Outcome received;
  Outcome sent;
  async_receive(here, received.handler(loop));
  async_send(from, Message{kLarge}, sent.handler(loop));
  sent.cancel.emit(asio::cancellation_type::all);
  loop.run();
  EXPECT_EQ(sent.what, "sent");
  EXPECT_EQ(received.what, kLarge);
}

TEST_F(Asio, ASecondOperationIsRefusedWhileOneIsPending) {
  Outcome received[2];
  Outcome sent[2];
  for (int i : {0, 1}) {
    async_receive(here, received[i].handler(loop));
    async_send(from, Message{kLarge}, sent[i].handler(loop));
  }
  loop.run();
  EXPECT_EQ(received[0].what, kLarge);
  EXPECT_EQ(received[1].what, Reason(EBUSY));
  EXPECT_EQ(sent[0].what, "sent");
  EXPECT_EQ(sent[1].what, Reason(EBUSY));
}

TEST_F(Asio, ALoopThatIsDestroyedLeavesTheSockItsDescriptor) {
  Outcome outcome;
  {
    asio::io_context other;
    async_receive(here, outcome.handler(other));
    Write(from, kFirstPart);
    other.poll();
  }
  EXPECT_EQ(outcome.what, "pending");
  Write(from, kSecondPart);
  EXPECT_EQ(Receive(), "half");
}

// The pipe of an actor is not kept open by an operation: its function sees the end.
TEST_F(Asio, AnActorCanBeDestroyedUnderAReceive) {
  Outcome outcome;
  {
    const Actor actor(Echo);
    async_receive(actor.sock(), outcome.handler(loop));
    Turn();
  }
  EXPECT_EQ(outcome.what, "pending");
}

// As the actor's own receive does; its sock alone would wait for ever.
TEST_F(Asio, AReceiveOnAnActorEndsWithItsCallable) {
  for (const bool inside_a_message : {false, true}) {
    const Actor actor(inside_a_message ? EndInsideAMessage : EchoOnce);
    Outcome sent;
    Outcome answer;
    Outcome at_end;
    async_receive(actor, answer.handler(loop));
    Turn();
    async_send(actor, Message{"question"}, sent.handler(loop));
    loop.restart();
    loop.run();
    EXPECT_EQ(answer.what, "question");
    async_receive(actor, at_end.handler(loop));
    loop.restart();
    loop.run();
    EXPECT_EQ(at_end.what, inside_a_message ? Reason(EBADMSG) : "nothing");
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
  for (const std::string& text : {std::string("small"), kLarge}) {
    echo.send(Message{text});
    EXPECT_EQ(Words(echo.receive()), text);
  }
  echo.join();
}

#endif

}  // namespace
