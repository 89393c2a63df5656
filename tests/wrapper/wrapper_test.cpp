// wrapper_test.cpp - jactor.hpp: its owners, the exceptions of actors, receives
// with a time limit, and event loops.
// clang-format off
#include "jactor.hpp"  // and again below, which adds the part for event loops
// clang-format on
#include <czmq.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <vector>

#include "jactor.hpp"
#include "support.h"

using namespace std::chrono_literals;
using namespace jactor;

template <class T>
constexpr bool kMoveOnly =
    !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T> &&
    std::is_nothrow_move_constructible_v<T> && std::is_nothrow_move_assignable_v<T>;
static_assert(kMoveOnly<Message> && kMoveOnly<Frame> && kMoveOnly<Sock> && kMoveOnly<Actor> &&
              kMoveOnly<Watch>);
static_assert(std::is_trivially_copyable_v<SockRef>);
static_assert(!std::is_default_constructible_v<Sock> && !std::is_default_constructible_v<Actor>);
static_assert(std::is_convertible_v<Sock&, SockRef> && !std::is_convertible_v<Sock, SockRef>);

// Only what is given away by std::move can be sent, and only what lives on has frames.
template <class Argument, class = void>
constexpr bool kCanSend = false;
template <class Argument>
constexpr bool kCanSend<
    Argument, std::void_t<decltype(std::declval<SockRef>().send(std::declval<Argument>()))>> = true;
static_assert(kCanSend<Message> && !kCanSend<Message&> && !kCanSend<const Message&>);
template <class Owner, class = void>
constexpr bool kHasFrames = false;
template <class Owner>
constexpr bool kHasFrames<Owner, std::void_t<decltype(std::declval<Owner>().frames())>> = true;
static_assert(kHasFrames<Message&> && !kHasFrames<Message>);

namespace {

// Ends a test that hangs, also outside of CTest.
class Wrapper : public support::Test {
 protected:
  Wrapper() { ::alarm(200); }
  ~Wrapper() override { ::alarm(0); }
};

void Echo(SockRef sock) {
  sock.ready();
  while (auto message = sock.receive()) {
    sock.send(std::move(*message));
  }
}

struct LoopDeleter {
  void operator()(zloop_t* loop) const { zloop_destroy(&loop); }
};
using Loop = std::unique_ptr<zloop_t, LoopDeleter>;

// Both ends of an endpoint of the test's own.
struct Endpoint {
  support::UniqueEndpoint endpoint;
  std::optional<Sock> pull{Sock::pull("@" + endpoint.name)};
  Sock push{Sock::push(">" + endpoint.name)};
};

TEST_F(Wrapper, FramesTravelUnchangedAndAreIteratedInOrder) {
  Actor echo(Echo);
  const std::array<unsigned char, 4> array{0, 1, 0, 255};
  Message message{"text", std::string_view("z\0z", 3)};
  message.add(std::vector<unsigned char>{7, 0}).add(array).add(std::string_view()).add("abc", 2);
  echo.send(std::move(message));

  auto reply = echo.receive();
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->signal());
  std::vector<std::string> texts{reply->pop_string().value()};
  std::optional<Frame> kept;
  for (Frame& frame : reply->frames()) {
    texts.emplace_back(frame.text());
    if (texts.size() == 2) {
      frame.bytes()[1] = 9;
      kept = std::move(frame);
    }
  }
  const std::vector<std::string> expected{"text", {"z\0z", 3}, {"\7\0", 2}, {"\0\1\0\377", 4},
                                          "",     "ab"};
  EXPECT_EQ(texts, expected);
  EXPECT_EQ(kept->text(), "z\11z");
  EXPECT_FALSE(reply->pop());

  echo.signal(255);
  EXPECT_EQ(echo.receive()->signal(), 255);
}

TEST_F(Wrapper, SendEmptiesItsMessageOnlyOnSuccess) {
  Actor echo(Echo);
  const std::string half(JACTOR_MAX_SIZE / 2, 'x');
  Message message{half, half, "!"};
  EXPECT_THROW(message.add(std::string(JACTOR_MAX_SIZE + 1, 'x')), error);
  EXPECT_THROW(echo.send(std::move(message)), error);
  ASSERT_TRUE(message);
  EXPECT_EQ(message.pop_string(), half);

  echo.send(std::move(message));
  EXPECT_FALSE(message);
  EXPECT_THROW(echo.send(std::move(message)), error);
  EXPECT_THROW(message.add("more"), error);
  EXPECT_FALSE(message.pop());
  EXPECT_FALSE(message.signal());
  EXPECT_EQ(echo.receive()->pop_string(), half);
}

TEST_F(Wrapper, EndpointsThatCannotBeOpenedAreErrors) {
  const std::string with_zero("ipc://a\0b", 9);
  for (const std::string& endpoint : {std::string(), std::string("tcp://host:1"), with_zero}) {
    EXPECT_THROW(Sock::pull(endpoint), error) << endpoint;
    EXPECT_THROW(Sock::push(endpoint), error) << endpoint;
  }
}

TEST_F(Wrapper, AnActorIsStartedWhateverItsCallableDoes) {
  Actor returns([](SockRef) {});
  Actor sends_first([](SockRef sock) { sock.send(Message{"thrown away"}); });
  Actor exits([](SockRef) { ::pthread_exit(nullptr); });
  for (Actor* ended : {&returns, &sends_first, &exits}) {
    EXPECT_FALSE(ended->receive());
    EXPECT_TRUE(ended->finished());
    EXPECT_NO_THROW(ended->join());
  }
}

TEST_F(Wrapper, AnActorAndItsCallableCanBeMoved) {
  Actor moved([owned = std::make_unique<int>(7)](SockRef sock) { Echo(sock); });
  Actor actor([](SockRef sock) {
    Echo(sock);
    throw std::logic_error("dropped by the assignment");
  });
  actor = std::move(moved);
  actor.signal(1);
  EXPECT_EQ(actor.receive()->signal(), 1);
  EXPECT_THROW(moved.signal(1), error);
  EXPECT_FALSE(moved.receive());
}

TEST_F(Wrapper, AnExceptionReachesTheCreator) {
  const std::function<void(SockRef)> throws_a_number = [](SockRef) { throw 7; };
  EXPECT_THROW(Actor([](SockRef) { throw std::logic_error("early"); }), std::logic_error);
  EXPECT_THROW(Actor{throws_a_number}, int);

  Actor actor([](SockRef sock) {
    sock.ready();
    const auto asked = sock.receive();
    sock.send(Message{"last words"});
    throw std::out_of_range("late");
  });
  EXPECT_NO_THROW(actor.rethrow());
  actor.signal(1);
  EXPECT_EQ(actor.receive()->pop_string(), "last words");
  EXPECT_FALSE(actor.receive());
  EXPECT_TRUE(actor.finished());
  EXPECT_THROW(actor.rethrow(), std::out_of_range);
  EXPECT_THROW(actor.join(), std::out_of_range);
  EXPECT_NO_THROW(actor.join());
}

TEST_F(Wrapper, SendingToACreatorThatHasGoneIsAnErrorInTheActor) {
  const auto ignored = ::signal(SIGPIPE, SIG_DFL);
  Actor actor([](SockRef sock) {
    Echo(sock);
    for (;;) {
      sock.signal(0);
    }
  });
  EXPECT_THROW(actor.join(), error);
  ::signal(SIGPIPE, ignored);
}

TEST_F(Wrapper, ATimeLimitTellsTimeOutFromEnd) {
  const Endpoint jobs;
  jobs.push.send(Message{"1"});
  jobs.push.send(Message{"2"});
  EXPECT_EQ(jobs.pull->receive_for(0s).message->pop_string(), "1");
  EXPECT_GT(jobs.pull->buffered(), 0U);
  const auto past = std::chrono::steady_clock::now() - 1h;
  EXPECT_EQ(jobs.pull->receive_until(past).message->pop_string(), "2");
  EXPECT_TRUE(jobs.pull->receive_until(past).timed_out);
  EXPECT_TRUE(jobs.pull->receive_for(std::chrono::hours::min()).timed_out);

  bool timed_out = true;
  Actor actor([&](SockRef sock) {
    sock.ready();
    sock.send(Message{"3"});
    timed_out = sock.receive_for(std::chrono::duration<double>(1e300)).timed_out;
  });
  EXPECT_EQ(actor.receive_for(std::chrono::hours::max()).message->pop_string(), "3");
  EXPECT_TRUE(actor.receive_for(1ms).timed_out);
  actor.join();
  EXPECT_FALSE(timed_out);
  EXPECT_THROW(actor.receive_for(0s), error);

  Actor over([](SockRef) {});
  const auto end = over.receive_for(1h);
  EXPECT_FALSE(end.message || end.timed_out);
}

TEST_F(Wrapper, ATimeLimitSurvivesSignals) {
  const Endpoint quiet;
  static volatile sig_atomic_t interruptions = 0;
  const auto before = ::signal(SIGALRM, [](int) { interruptions = interruptions + 1; });
  ::ualarm(2000, 2000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(quiet.pull->receive_for(50ms).timed_out);
  ::ualarm(0, 0);
  ::signal(SIGALRM, before);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  EXPECT_GT(interruptions, 1);
}

TEST_F(Wrapper, ALoopSeesAnEndThatComesWithData) {
  for (int i = 0; i < 200; ++i) {
    int handled = 0;
    Actor actor([&](SockRef sock) {
      const Loop loop(zloop_new());
      const auto count = [&](Message) { ++handled; };
      const Watch watching = watch(loop.get(), sock, count, AtEnd::kEndLoop);
      sock.ready();
      zloop_start(loop.get());
    });
    actor.send(Message{"work"});
    actor.join();
    ASSERT_EQ(handled, 1);
  }
}

TEST_F(Wrapper, AnEndThatEndsTheWatchLeavesTheLoopRunning) {
  bool ended_by_timer = false;
  Actor actor([&](SockRef sock) {
    const Loop loop(zloop_new());
    const Watch watching = watch(loop.get(), sock, [](Message) {});
    const auto tick = [](zloop_t*, int, void* arg) {
      return static_cast<const Watch*>(arg)->active() ? 0 : -1;
    };
    zloop_timer(loop.get(), 1, 0, tick, const_cast<Watch*>(&watching));
    sock.ready();
    ended_by_timer = zloop_start(loop.get()) == -1 && !watching.active();
  });
  actor.send(Message{"work"});
  actor.join();
  EXPECT_TRUE(ended_by_timer);
}

TEST_F(Wrapper, AHandlersExceptionEndsTheLoopAndLosesNothing) {
  const Endpoint jobs;
  for (const char* text : {"1", "2", "bad", "4"}) {
    jobs.push.send(Message{text});
  }
  const Loop loop(zloop_new());
  std::string handled;
  Watch watching = watch(loop.get(), *jobs.pull, [&](Message message) {
    handled += message.pop_string().value();
    if (handled == "12bad") {
      throw std::invalid_argument(handled);
    }
  });
  EXPECT_EQ(zloop_start(loop.get()), -1);
  EXPECT_THROW(watching.rethrow(), std::invalid_argument);
  EXPECT_NO_THROW(watching.rethrow());
  EXPECT_TRUE(watching.active());
  EXPECT_EQ(jobs.pull->receive_for(0s).message->pop_string(), "4");
}

TEST_F(Wrapper, AHandlerMayDestroyItsWatchAndThenItsSock) {
  for (const bool sock_too : {false, true}) {
    const Loop loop(zloop_new());
    Endpoint first;
    const Endpoint second;
    int handled = 0;
    std::optional<Watch> gone;
    gone = watch(loop.get(), *first.pull, [&, sock_too](Message) {
      ++handled;
      gone.reset();
      if (sock_too) {
        first.pull.reset();
      }
    });
    const Watch last = watch(loop.get(), *second.pull, [](Message) { return -1; });
    first.push.signal(1);
    first.push.signal(2);
    second.push.signal(3);
    EXPECT_EQ(zloop_start(loop.get()), -1);
    EXPECT_EQ(handled, 1);
  }
}

}  // namespace
