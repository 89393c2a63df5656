// wrapper_test.cpp - jactor.hpp: its owners, the exceptions of actors, receives
// with a time limit, and event loops.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "jactor_zloop.hpp"
#include "support.h"
#include "wrapper/common.h"

using namespace std::chrono_literals;
using namespace jactor;
using namespace wrapper;

// No sock that is about to go can be passed on,
static_assert(std::is_convertible_v<Sock&, SockRef> && !std::is_convertible_v<Sock, SockRef>);
// only what is given away by std::move can be sent, and only what lives on has frames.
static_assert(!std::is_invocable_v<decltype(&SockRef::send), SockRef, Message&>);
static_assert(!std::is_invocable_v<decltype(&Message::frames), Message>);

namespace {

using Loop = detail::Owner<zloop_t, zloop_destroy>;

// An endpoint of the test's own, with both ends.
class Wrapper : public support::Test {
 protected:
  const support::RunDirectory run;
  Sock pull = Sock::pull("@ipc://x");
  const Sock push = Sock::push(">ipc://x");
};

// The reason for which `call` throws; 0 when it does not.
template <class Call>
int ReasonOf(Call call) {
  try {
    call();
  } catch (const error& failure) {
    return failure.code().value();
  }
  return 0;
}

TEST_F(Wrapper, FramesTravelUnchangedAndAreIteratedInOrder) {
  Message message{"text", std::string_view("z\0z", 3), ""};
  message.add(std::vector<unsigned char>{0, 255}).add("abc", 2);
  push.send(std::move(message));
  auto received = pull.receive().value();
  EXPECT_FALSE(received.signal());
  EXPECT_EQ(received.pop_string(), "text");
  std::string texts;
  std::optional<Frame> kept;
  for (Frame& frame : received.frames()) {
    texts.append(frame.text()) += '|';
    kept = std::move(frame);
  }
  EXPECT_EQ(texts, std::string("z\0z||\0\377|ab|", 11));
  kept->bytes()[1] = 'c';
  EXPECT_EQ(kept->text(), "ac");
  EXPECT_FALSE(received.pop());
  push.signal(0);
  EXPECT_EQ(pull.receive()->signal(), 0);
}

TEST_F(Wrapper, AnErrorCarriesTheReasonAndLosesNothing) {
  const std::string half(JACTOR_MAX_SIZE / 2, 'x');
  Message large{half, half, "!"};
  Message sent;
  push.send(std::move(sent));
  EXPECT_EQ(pull.receive()->pop_string(), std::nullopt);
  Actor gone([](SockRef) {});
  gone.join();
  const struct {
    int reason;
    std::function<void()> call;
  } kRows[] = {
      {EPROTONOSUPPORT, [] { Sock::pull("tcp://host:1"); }},
      {EINVAL, [] { Sock::push(std::string("ipc://a\0b", 9)); }},
      {EMSGSIZE, [&] { push.send(std::move(large)); }},
      {EMSGSIZE, [&] { large.add(half + half + "!"); }},
      {EINVAL, [&] { push.send(std::move(sent)); }},
      {EINVAL, [&] { gone.signal(1); }},
      {EINVAL, [&] { gone.receive(); }},
      {EINVAL, [&] { gone.receive_for(0s); }},
      {EINVAL, [&] { gone.fd(); }},
      {EBADMSG, [&] { Write(push, kDamage), pull.receive(); }},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(ReasonOf(row.call), row.reason) << &row - kRows;
  }
  EXPECT_FALSE(sent);
  EXPECT_EQ(large.pop_string(), half);
  EXPECT_FALSE(Actor(Echo).try_send(std::move(large)));
  EXPECT_FALSE(large);
}

TEST_F(Wrapper, AnActorIsStartedWhateverItsCallableDoes) {
  Actor returns([owned = std::make_unique<int>(7)](SockRef) {});
  Actor sends_first([](SockRef sock) { sock.send(Message{"thrown away"}); });
  Actor exits([](SockRef) { ::pthread_exit(nullptr); });
  for (Actor* ended : {&returns, &sends_first, &exits}) {
    EXPECT_FALSE(ended->receive());
    EXPECT_TRUE(ended->finished());
    EXPECT_NO_THROW(ended->join());
  }
}

TEST_F(Wrapper, AnExceptionReachesTheCreator) {
  EXPECT_THROW(Actor([](SockRef) { throw 7; }), int);
  Actor actor([](SockRef sock) {
    EchoOnce(sock);
    throw std::out_of_range("late");
  });
  EXPECT_NO_THROW(actor.rethrow());
  actor.signal(1);
  EXPECT_EQ(actor.receive()->signal(), 1);
  EXPECT_FALSE(actor.receive());
  EXPECT_THROW(actor.rethrow(), std::out_of_range);
  Actor moved(Echo);  // stopped by the assignment
  moved = std::move(actor);
  EXPECT_THROW(moved.join(), std::out_of_range);
  EXPECT_NO_THROW(moved.join());
}

TEST_F(Wrapper, SendingToACreatorThatHasGoneIsAnErrorInTheActor) {
  const auto ignored = ::signal(SIGPIPE, SIG_DFL);
  Actor actor([](SockRef sock) {
    Echo(sock);
    for (;;) {
      sock.signal(0);
    }
  });
  EXPECT_EQ(ReasonOf([&] { actor.join(); }), EPIPE);
  ::signal(SIGPIPE, ignored);
}

TEST_F(Wrapper, ATimeLimitTellsTimeOutFromEnd) {
  push.send(Message{"1"});
  push.send(Message{"2"});
  EXPECT_EQ(pull.receive_for(0s).message->pop_string(), "1");
  const auto past = std::chrono::steady_clock::now() - 1h;
  EXPECT_EQ(pull.receive_until(past).message->pop_string(), "2");
  EXPECT_TRUE(pull.receive_until(past).timed_out);
  EXPECT_TRUE(pull.receive_for(std::chrono::hours::min()).timed_out);

  Actor actor([](SockRef sock) {
    sock.ready();
    sock.send(std::move(*sock.receive_for(std::chrono::duration<double>(1e300)).message));
  });
  EXPECT_TRUE(actor.receive_for(1ms).timed_out);
  actor.signal(3);
  EXPECT_EQ(actor.receive_for(std::chrono::hours::max()).message->signal(), 3);
  const Received end = actor.receive_for(1h);
  EXPECT_FALSE(end.message || end.timed_out);
}

TEST_F(Wrapper, ATimeLimitCoversTheWholeMessage) {
  Write(push, kFirstPart);
  EXPECT_TRUE(pull.receive_for(1ms).timed_out);
  Write(push, kSecondPart);
  EXPECT_EQ(pull.receive_for(0s).message->pop_string(), "half");

  Actor actor(EndInsideAMessage);
  actor.signal(1);
  EXPECT_EQ(actor.receive()->signal(), 1);
  EXPECT_EQ(ReasonOf([&] { actor.receive(); }), EBADMSG);
}

TEST_F(Wrapper, ATimeLimitSurvivesSignals) {
  ::signal(SIGALRM, [](int) {});
  ::ualarm(2000, 2000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(pull.receive_for(50ms).timed_out);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  ::ualarm(0, 0);
  ::signal(SIGALRM, SIG_DFL);
}

// A loop that handles the messages of the endpoint.
class WrapperWatch : public Wrapper {
 protected:
  // Runs the loop until a handler ends it, at the latest at the second tick of a timer:
  // it has looked at every sock by then. Result: whether it was a handler.
  static bool Run(const Loop& loop) {
    int ticks = 0;
    const auto tick = [](zloop_t*, int, void* arg) {
      return ++*static_cast<int*>(arg) == 2 ? -1 : 0;
    };
    const int timer = zloop_timer(loop.get(), 1, 0, tick, &ticks);
    EXPECT_EQ(zloop_start(loop.get()), -1);
    zloop_timer_end(loop.get(), timer);
    return ticks < 2;
  }

  Watch Begin() {
    return watch(loop.get(), pull, [this](Message message) {
      handled += message.pop_string().value();
      if (handled.back() == '!') {
        throw error("an exclamation mark", ++thrown);
      }
    });
  }

  const Loop loop{zloop_new()};
  std::string handled;
  int thrown = 0;
};

// An end that comes together with data is easily lost, and the actor's destruction
// waits for ever then.
TEST_F(WrapperWatch, SeesAnEndThatComesWithData) {
  for (int i = 0; i < 200; ++i) {
    const AtEnd at_end = i % 2 == 0 ? AtEnd::kEndLoop : AtEnd::kEndWatch;
    int messages = 0;
    Actor actor([&](SockRef sock) {
      const Loop own(zloop_new());
      const Watch watched = watch(
          own.get(), sock, [&](Message) { ++messages; }, at_end);
      sock.ready();
      bool ended = false;
      while (watched.active()) {
        ended = Run(own);
      }
      EXPECT_EQ(ended, at_end == AtEnd::kEndLoop);
    });
    actor.send(Message{"work"});
    actor.join();
    ASSERT_EQ(messages, 1);
  }
}

TEST_F(WrapperWatch, HalfAMessageDoesNotStopTheLoopAndDamageDoes) {
  Watch watching = Begin();
  Write(push, kFirstPart);
  EXPECT_FALSE(Run(loop));
  EXPECT_EQ(handled, "");
  Write(push, kSecondPart);
  EXPECT_FALSE(Run(loop));
  EXPECT_EQ(handled, "half");
  EXPECT_NO_THROW(watching.rethrow());

  Write(push, kDamage);
  EXPECT_TRUE(Run(loop));
  EXPECT_FALSE(watching.active());
  EXPECT_EQ(ReasonOf([&] { watching.rethrow(); }), EBADMSG);
}

TEST_F(WrapperWatch, IsTheOnlyOneOfItsSock) {
  const Loop second(zloop_new());
  Watch watching = Begin();
  EXPECT_EQ(ReasonOf([&] { auto more = watch(second.get(), pull, [](Message) {}); }), EBUSY);
  Watch& same = watching;
  watching = std::move(same);
  push.send(Message{"1"});
  Run(loop);
  EXPECT_EQ(handled, "1");

  watching.end();
  watching = watch(second.get(), pull, [](Message) { return -1; });
  push.send(Message{"2"});
  EXPECT_TRUE(Run(second));
}

// What the sock has read ahead is not seen by poll().
TEST_F(WrapperWatch, NothingIsLostThatWasReadAheadOrLeftByAnException) {
  for (const char* text : {"0", "1", "2!", "3", "4!"}) {
    push.send(Message{text});
  }
  pull.receive();
  Watch watching = Begin();
  EXPECT_EQ(handled, "") << "not inside the call";
  EXPECT_TRUE(Run(loop));
  EXPECT_EQ(handled, "12!");
  EXPECT_TRUE(watching.active());
  EXPECT_TRUE(Run(loop));
  EXPECT_EQ(handled, "12!34!");
  EXPECT_EQ(ReasonOf([&] { watching.rethrow(); }), 1) << "the first";
  EXPECT_NO_THROW(watching.rethrow());
}

TEST_F(WrapperWatch, AHandlerMayDestroyItsWatchAndThenItsSock) {
  std::optional<Watch> watching = watch(loop.get(), pull, [&](Message message) {
    handled += message.pop_string().value();
    watching.reset();
    const Sock taken = std::move(pull);
  });
  push.send(Message{"1"});
  push.send(Message{"2"});
  EXPECT_FALSE(Run(loop));
  EXPECT_EQ(handled, "1");
}

}  // namespace
