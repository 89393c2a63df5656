// wrapper_test.cpp - jactor.hpp: its owners, the exceptions of actors, receives
// with a time limit, and event loops.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "jactor_zloop.hpp"
#include "support.h"
#include "wrapper/common.h"

using namespace std::chrono_literals;
using namespace jactor;
using namespace wrapper;

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
template <class Argument>
constexpr bool kCanSend = std::is_invocable_v<decltype(&SockRef::send), SockRef, Argument>;
static_assert(kCanSend<Message> && !kCanSend<Message&> && !kCanSend<const Message&>);
template <class Owner>
constexpr bool kHasFrames = std::is_invocable_v<decltype(&Message::frames), Owner>;
static_assert(kHasFrames<Message&> && !kHasFrames<Message>);

namespace {

using Wrapper = support::Test;

using Loop = detail::Owner<zloop_t, zloop_destroy>;

// Both ends of an endpoint of the test's own.
struct Endpoint {
  support::UniqueEndpoint endpoint;
  std::optional<Sock> pull{Sock::pull("@" + endpoint.name)};
  Sock push{Sock::push(">" + endpoint.name)};
};

// The reason for which `call` throws; 0 when it does not.
template <class Call>
int ReasonOf(Call call) {
  try {
    call();
  } catch (const std::system_error& failure) {
    EXPECT_EQ(failure.code().category(), std::generic_category());
    return failure.code().value();
  }
  return 0;
}

TEST_F(Wrapper, FramesTravelUnchangedAndAreIteratedInOrder) {
  Actor echo(Echo);
  Message message{"text", std::string_view("z\0z", 3), ""};
  message.add(std::vector<unsigned char>{0, 255}).add("abc", 2);
  echo.send(std::move(message));
  auto reply = echo.receive().value();
  EXPECT_FALSE(reply.signal());
  EXPECT_EQ(reply.pop_string(), "text");
  std::string texts;
  std::optional<Frame> kept;
  for (Frame& frame : reply.frames()) {
    texts.append(frame.text()) += '|';
    kept = std::move(frame);
  }
  EXPECT_EQ(texts, std::string("z\0z||\0\377|ab|", 11));
  kept->bytes()[1] = 'c';
  EXPECT_EQ(kept->text(), "ac");
  EXPECT_FALSE(reply.pop());
  echo.signal(255);
  EXPECT_EQ(echo.receive()->signal(), 255);
}

TEST_F(Wrapper, AnErrorCarriesTheReasonAndLosesNothing) {
  const Endpoint jobs;
  const std::string half(JACTOR_MAX_SIZE / 2, 'x');
  Message large{half, half, "!"};
  Message nothing;
  jobs.push.send(std::move(nothing));
  jobs.pull->receive();
  Actor gone([](SockRef) {});
  gone.join();
  const struct {
    int reason;
    std::function<void()> call;
  } kRows[] = {
      {EPROTONOSUPPORT, [] { Sock::pull("tcp://host:1"); }},
      {EINVAL, [] { Sock::push(std::string("ipc://a\0b", 9)); }},
      {ENAMETOOLONG, [] { Sock::push("ipc://" + std::string(300, 'x')); }},
      {EMSGSIZE, [&] { jobs.push.send(std::move(large)); }},
      {EMSGSIZE, [&] { large.add(half + half + "!"); }},
      {EINVAL, [&] { jobs.push.send(std::move(nothing)); }},
      {EINVAL, [&] { nothing.add("more"); }},
      {EINVAL, [&] { gone.signal(1); }},
      {EINVAL, [&] { gone.receive(); }},
      {EINVAL, [&] { gone.receive_for(0s); }},
      {EBADMSG, [&] { Write(jobs.push, kDamage), jobs.pull->receive(); }},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(ReasonOf(row.call), row.reason) << &row - kRows;
  }
  EXPECT_FALSE(nothing || nothing.pop() || nothing.signal());
  EXPECT_EQ(jobs.push.try_send(std::move(large)), std::errc::message_size);
  EXPECT_EQ(large.pop_string(), half);
  EXPECT_FALSE(Actor(Echo).try_send(std::move(large)));
  EXPECT_FALSE(large);
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
  EXPECT_THROW(moved.receive(), error);
}

TEST_F(Wrapper, AnExceptionReachesTheCreator) {
  EXPECT_THROW(Actor([](SockRef) { throw std::logic_error("early"); }), std::logic_error);
  EXPECT_THROW(Actor([](SockRef) { throw 7; }), int);

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
  EXPECT_EQ(ReasonOf([&] { actor.join(); }), EPIPE);
  ::signal(SIGPIPE, ignored);
}

// In whatever order they and the library's own objects were made, an actor among a
// program's static objects is asked to stop and joined.
TEST(WrapperDeathTest, StaticObjectsEndCleanly) {
  static std::unique_ptr<Actor> before;
  EXPECT_EXIT(
      {
        before = std::make_unique<Actor>([name = std::string(100, 'x')](SockRef sock) {
          Echo(sock);
          EXPECT_EQ(name.size(), 100U);
          ::write(STDERR_FILENO, "joined;", 7);
        });
        static Actor after(Echo);
        static Message message{"kept"};
        static Sock sock = Sock::push(support::UniqueEndpoint().name);
        after.send(Message{"hello"});
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^joined;$");
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

  Actor actor([](SockRef sock) {
    sock.ready();
    while (auto message = sock.receive_for(std::chrono::duration<double>(1e300)).message) {
      sock.send(std::move(*message));
    }
  });
  EXPECT_TRUE(actor.receive_for(1ms).timed_out);
  actor.signal(3);
  EXPECT_EQ(actor.receive_for(std::chrono::hours::max()).message->signal(), 3);
  actor.join();
  EXPECT_THROW(actor.receive_for(0s), error);

  const Received end = Actor([](SockRef) {}).receive_for(1h);
  EXPECT_FALSE(end.message || end.timed_out);
}

TEST_F(Wrapper, ATimeLimitCoversTheWholeMessage) {
  const Endpoint jobs;
  Write(jobs.push, kFirstPart);
  EXPECT_TRUE(jobs.pull->receive_for(1ms).timed_out);
  Write(jobs.push, kSecondPart);
  EXPECT_EQ(jobs.pull->receive_for(0s).message->pop_string(), "half");

  Actor stops_inside(EndInsideAMessage);
  EXPECT_TRUE(stops_inside.receive_for(1ms).timed_out);
  stops_inside.signal(1);
  EXPECT_EQ(stops_inside.receive()->signal(), 1);
  EXPECT_EQ(ReasonOf([&] { stops_inside.receive(); }), EBADMSG);
}

TEST_F(Wrapper, ATimeLimitSurvivesSignals) {
  const Endpoint quiet;
  ::signal(SIGALRM, [](int) {});
  ::ualarm(2000, 2000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(quiet.pull->receive_for(50ms).timed_out);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  ::ualarm(0, 0);
  ::signal(SIGALRM, SIG_DFL);
}

// An end that comes together with data is easily lost, and the actor's destruction
// waits for ever then. Where the end ends the watch alone, a timer ends the loop.
TEST_F(Wrapper, ALoopSeesAnEndThatComesWithData) {
  ::alarm(100);  // the watchdog
  for (int i = 0; i < 200; ++i) {
    const AtEnd at_end = i % 2 == 0 ? AtEnd::kEndLoop : AtEnd::kEndWatch;
    int handled = 0;
    Actor actor([&](SockRef sock) {
      const Loop loop(zloop_new());
      std::optional<Watch> watching = watch(
          loop.get(), sock, [&](Message) { ++handled; }, at_end);
      const auto tick = [](zloop_t*, int, void* arg) {
        auto& watched = *static_cast<std::optional<Watch>*>(arg);
        if (!watched->active()) {
          watched.reset();
        }
        return watched ? 0 : -1;
      };
      zloop_timer(loop.get(), 1, 0, tick, &watching);
      sock.ready();
      zloop_start(loop.get());
      EXPECT_EQ(watching.has_value(), at_end == AtEnd::kEndLoop);
    });
    actor.send(Message{"work"});
    actor.join();
    ASSERT_EQ(handled, 1);
  }
  ::alarm(0);
}

// A loop, and an endpoint whose messages it handles.
class WrapperWatch : public support::Test {
 protected:
  Watch Begin() {
    return watch(loop.get(), *jobs.pull,
                 [this](Message message) { handled += *message.pop_string(); });
  }

  // Runs the loop until a handler ends it, at the latest at the second tick of a timer:
  // it has looked at every sock by then.
  void Run() {
    int ticks = 0;
    const auto tick = [](zloop_t*, int, void* arg) {
      return ++*static_cast<int*>(arg) == 2 ? -1 : 0;
    };
    const int timer = zloop_timer(loop.get(), 1, 0, tick, &ticks);
    EXPECT_EQ(zloop_start(loop.get()), -1);
    zloop_timer_end(loop.get(), timer);
  }

  const Loop loop{zloop_new()};
  Endpoint jobs;
  std::string handled;
};

// What the sock holds when the watch begins is not seen by poll().
TEST_F(WrapperWatch, HandlesWhatWasReadAheadBeforeIt) {
  const std::string large(10000, 'x');
  for (const std::size_t received : {0U, 1U, 2U, 3U}) {
    for (int i = 0; i < 3; ++i) {
      jobs.push.send(Message{large});
    }
    for (std::size_t i = 0; i < received; ++i) {
      jobs.pull->receive();
    }
    handled.clear();
    const Watch watching = Begin();
    EXPECT_EQ(handled, "") << "not inside the call";
    Run();
    EXPECT_EQ(handled.size(), (3 - received) * large.size());
  }
}

TEST_F(WrapperWatch, HalfAMessageDoesNotStopTheLoopAndDamageDoes) {
  Watch watching = Begin();
  Write(jobs.push, kFirstPart);
  Run();
  EXPECT_EQ(handled, "");
  Write(jobs.push, kSecondPart);
  Run();
  EXPECT_EQ(handled, "half");
  EXPECT_NO_THROW(watching.rethrow());

  Write(jobs.push, kDamage);
  EXPECT_EQ(zloop_start(loop.get()), -1);
  EXPECT_FALSE(watching.active());
  EXPECT_EQ(ReasonOf([&] { watching.rethrow(); }), EBADMSG);
}

TEST_F(WrapperWatch, IsTheOnlyOneOfItsSock) {
  const Loop second(zloop_new());
  Watch watching = Begin();
  for (const Loop* any : {&loop, &second}) {
    EXPECT_EQ(ReasonOf([&] { auto more = watch(any->get(), *jobs.pull, [](Message) {}); }), EBUSY);
  }
  Watch& same = watching;
  watching = std::move(same);
  jobs.push.send(Message{"1"});
  Run();
  EXPECT_EQ(handled, "1");

  watching.end();
  const auto stop = [&](Message) { throw std::logic_error("handled"); };
  watching = watch(second.get(), *jobs.pull, stop);
  jobs.push.send(Message{"2"});
  EXPECT_EQ(zloop_start(second.get()), -1);
  EXPECT_THROW(watching.rethrow(), std::logic_error);
}

TEST_F(WrapperWatch, AHandlersExceptionEndsTheLoopAndLosesNothing) {
  for (const char* text : {"1", "2", "bad", "4"}) {
    jobs.push.send(Message{text});
  }
  Watch watching = watch(loop.get(), *jobs.pull, [&](Message message) {
    handled += message.pop_string().value();
    if (handled == "12bad") {
      throw std::invalid_argument(handled);
    }
  });
  Run();
  EXPECT_EQ(handled, "12bad");
  EXPECT_TRUE(watching.active());
  Run();
  EXPECT_EQ(handled, "12bad4");
  EXPECT_THROW(watching.rethrow(), std::invalid_argument);
  EXPECT_NO_THROW(watching.rethrow());
}

TEST_F(WrapperWatch, AHandlerMayDestroyItsWatchAndThenItsSock) {
  std::optional<Watch> watching;
  for (const bool sock_too : {false, true}) {
    watching = watch(loop.get(), *jobs.pull, [&, sock_too](Message message) {
      handled += *message.pop_string();
      watching.reset();
      if (sock_too) {
        jobs.pull.reset();
      }
    });
    jobs.push.send(Message{"1"});
    jobs.push.send(Message{"2"});
    Run();
  }
  EXPECT_EQ(handled, "12");
}

}  // namespace
