// asio_test.cpp - jactor_asio.hpp: messages in asio's loop, and what a cancellation leaves.
#include <fcntl.h>

#include <functional>
#include <map>
#include <string>

#include "jactor_asio.hpp"
#include "messages.h"
#include "support.h"
#include "wrapper/common.h"

using namespace std::chrono_literals;
using namespace jactor;
using namespace wrapper;

namespace {

// What was received, in words; of a message its first frame.
std::string Words(std::optional<Message> message) {
  if (!message) {
    return "nothing";
  }
  return message->signal() ? "a signal" : message->pop_string().value_or("");
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

  // Runs the loop until nothing is pending.
  void Finish() {
    loop.restart();
    loop.run();
  }

  // What a plain receive takes that does not wait.
  std::string Rest() { return Words(here.receive_for(0s).message); }

  // What the handler of an operation is told that does not have to wait.
  std::string Receive(SockRef sock) {
    Outcome outcome;
    async_receive(sock, outcome.handler(loop));
    return AfterATurn(outcome);
  }
  std::string Send(SockRef sock, Message message) {
    Outcome outcome;
    async_send(sock, std::move(message), outcome.handler(loop));
    return AfterATurn(outcome);
  }

  asio::io_context loop;
  SockRef from{a.get()};
  SockRef here{b.get()};

 private:
  std::string AfterATurn(const Outcome& outcome) {
    EXPECT_EQ(outcome.what, "pending");  // the handler is never called in the call itself
    Turn();
    return outcome.what;
  }
};

// A plain send is the model, whose limit of frames this one has not.
TEST_F(Asio, MessagesTravelAsInPlainCalls) {
  for (const std::size_t frames : {0U, 1U, 2U, 500U}) {
    from.send(Message(messages::BuildEqual(frames, 40)));
    const std::string wanted = Drain();
    EXPECT_EQ(Send(from, Message(messages::BuildEqual(frames, 40))), "sent");
    EXPECT_EQ(Drain(), wanted) << frames;
  }
  from.signal(7);
  EXPECT_EQ(Send(from, here.receive().value()), "sent");
  from.send(Message{"one"});
  from.send(Message{"two"});
  EXPECT_EQ(Receive(here), "a signal");
  EXPECT_GT(here.buffered(), 0u);
  EXPECT_EQ(Receive(here), "one");
  EXPECT_EQ(Rest(), "two");
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
  Write(from, kDamage);
  EXPECT_EQ(Receive(here), Reason(EBADMSG));
  EXPECT_EQ(Receive(nobody), Reason(EINVAL));
  EXPECT_EQ(Send(here, Message(static_cast<JCXXMsg*>(nullptr))), Reason(EINVAL));
  EXPECT_EQ(Send(nobody, Message()), Reason(EINVAL));
  EXPECT_EQ(Send(here, Message{kLarge, "!"}), Reason(EMSGSIZE));
  a.reset();  // hangs up
  EXPECT_EQ(Send(here, Message()), Reason(EPIPE));
  EXPECT_EQ(Receive(here), "nothing");
}

TEST_F(Asio, ASendWaitsForRoomInTheLoopUnlessItIsCancelled) {
  int fd = -1;
  ASSERT_EQ(a->GetWriteFD(fd), 0);
  const std::string full(static_cast<std::size_t>(::fcntl(fd, F_GETPIPE_SZ)), '\0');
  for (const bool cancelled : {false, true}) {
    Feed(full);
    Outcome outcome;
    async_send(from, Message{"late"}, outcome.handler(loop));
    Turn();
    EXPECT_EQ(outcome.what, "pending");
    if (cancelled) {
      outcome.cancel.emit(asio::cancellation_type::all);
    }
    EXPECT_EQ(Drain(), full);
    Turn();
    EXPECT_EQ(outcome.what, cancelled ? kCancelled : "sent");
    EXPECT_EQ(Rest(), cancelled ? "nothing" : "late");
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "the descriptor blocks as before";
  }
}

// One thread sends a large message to itself: where a part is written, the rest follows.
TEST_F(Asio, NothingComesBetweenTheFirstByteAndTheLast) {
  Outcome received[2];
  Outcome sent[2];
  for (int i : {0, 1}) {
    async_receive(here, received[i].handler(loop));
    async_send(from, Message{kLarge}, sent[i].handler(loop));
  }
  sent[0].cancel.emit(asio::cancellation_type::all);
  loop.run();
  EXPECT_EQ(received[0].what, kLarge);
  EXPECT_EQ(received[1].what, Reason(EBUSY));
  EXPECT_EQ(sent[0].what, "sent");
  EXPECT_EQ(sent[1].what, Reason(EBUSY));
}

// An operation only borrows the descriptor: a loop that is destroyed does not close it, and
// no copy keeps the pipe of an actor open, whose function would not see its end.
TEST_F(Asio, APendingReceiveLeavesTheSockItsDescriptor) {
  Outcome outcome;
  {
    const Actor actor(Echo);
    {
      asio::io_context other;
      async_receive(actor.sock(), outcome.handler(other));
      other.poll();
    }
    actor.signal(1);
    EXPECT_EQ(actor.receive()->signal(), 1);
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
    Finish();
    EXPECT_EQ(answer.what, "question");
    async_receive(actor, at_end.handler(loop));
    Finish();
    EXPECT_EQ(at_end.what, inside_a_message ? Reason(EBADMSG) : "nothing");
  }
}

}  // namespace
