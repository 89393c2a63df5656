// exit_storm_test.cpp - processes that fork while their threads use the library, and
// that end at bad moments.
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "jactor.hpp"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "jlog.h"
#include "require.h"
#include "storm/storm.h"
#include "wrapper/common.h"

namespace {
std::atomic<int> errors_logged{0};
}  // namespace

extern "C" void jlog_printf(int level, int, const char*, ...) {
  if (level <= 2) {
    ++errors_logged;
  }
}

// What still lives at exit is left alone by design, and a child has none of the threads
// that hold what the parent allocated.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_thread_leaks=0:report_signal_unsafe=0:die_after_fork=0";
}

namespace {

using namespace jactor;
using storm::Child;
using storm::Outcome;

// The rounds of a storm: fewer in a sanitizer's slower program.
constexpr int Rounds(int usual) {
#ifdef JACTOR_SANITIZED
  usual /= 4;
#endif
  return usual;
}

// A pair of socks, and a message over it.
struct Pair {
  Pair() {
    const auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
    a.reset(first);
    b.reset(second);
  }
  void Exchange() const {
    SockRef(a.get()).send(Message{"storm", "exit"});
    SockRef(b.get()).receive().value();
  }
  std::unique_ptr<JCXXSock> a;
  std::unique_ptr<JCXXSock> b;
};

void ExchangeForEver(const Pair& pair = {}) {
  try {
    for (;;) {
      pair.Exchange();
    }
  } catch (const error&) {  // refused at the end of the process
    ::pause();
  }
}

// Outlives the library's exit handler, since it is made before the first use.
struct Late {
  void (*at_the_end)() = [] {};
  std::optional<Message> msg = {};
  std::optional<Actor> echo = {};
  ~Late() { at_the_end(); }
};
Late late;

// Exchanges messages until a signal handler calls exit(0) in the middle of that. At the very
// end it asks for a handle, which takes the registry's lock. The allocator's lock would not be
// safe: the handler runs in this thread, whose exchange has all its large blocks by then.
void ExitAtWork(bool second_thread) {
  late.at_the_end = [] {
    JCXXActorAPI::GetInstance()->JCXXMsgPtrIsValid(reinterpret_cast<JCXXMsg*>(&late));
  };
  const Pair pair;
  pair.Exchange();
  sigset_t tick;
  sigemptyset(&tick);
  sigaddset(&tick, SIGVTALRM);
  ::pthread_sigmask(SIG_BLOCK, &tick, nullptr);
  if (second_thread) {
    std::thread([] { ExchangeForEver(); }).detach();
  }
  ::pthread_sigmask(SIG_UNBLOCK, &tick, nullptr);
  std::signal(SIGVTALRM, [](int) { std::exit(0); });
  const itimerval next_tick = {{0, 0}, {0, 1}};
  Require(::setitimer(ITIMER_VIRTUAL, &next_tick, nullptr) == 0);
  ExchangeForEver(pair);
}

TEST(ExitStorm, ASignalHandlerMayExitWhereverItInterruptsTheLibrary) {
  for (int round = Rounds(100); round > 0; --round) {
    const bool second_thread = round % 2 == 0;
    ASSERT_EQ(Outcome(Child([=] { ExitAtWork(second_thread); })), 0)
        << (second_thread ? "beside a busy thread" : "alone");
  }
}

// Opens an endpoint of the thread's own, and removes its FIFO again.
void OpenEndpoint() {
  const std::string name = "exit-storm-" + std::to_string(::gettid());
  Sock::pull("ipc://" + name);
  std::filesystem::remove("/var/run/jactor/Jipc_" + name);
}

// What a child of a parent with busy threads may do: use objects of its own.
void UseEverything() {
  OpenEndpoint();
  Pair().Exchange();
  const Actor actor(wrapper::Echo);
  actor.send(Message{"child"});
  actor.receive().value();
  Require(::umask(022) == 022);
}

// The parent's threads exchange messages, start actors and open endpoints meanwhile.
TEST(ExitStorm, AForkedChildUsesTheLibraryWhateverTheParentsThreadsHeld) {
#if defined(JACTOR_SANITIZED) || defined(JACTOR_EMULATED)
  GTEST_SKIP() << "a sanitizer's, or an emulator's, own locks may be held in the child";
#endif
  const pid_t parent = Child([] {
    ::umask(022);
    std::vector<std::jthread> busy;
    const auto keep_busy = [&](auto work) {
      busy.emplace_back([=](std::stop_token stop) {
        while (!stop.stop_requested()) {
          work();
        }
      });
    };
    for (int n = 0; n < 2; ++n) {
      keep_busy([] { Pair().Exchange(); });
      keep_busy([] { Actor{wrapper::Echo}; });
      keep_busy(OpenEndpoint);
    }
    for (int round = Rounds(150); round > 0; --round) {
      Require(Outcome(Child(UseEverything)) == 0);
    }
  });
  EXPECT_EQ(Outcome(parent), 0);
}

// Nothing can be started any more, and each refusal is one line; what is alive can be used
// and released.
void UseWhatLives() {
  errors_logged = 0;
  Require(j_actor_new([](j_sock_t*, void*) {}, nullptr) == nullptr && errno == ECANCELED);
  Require(j_pipe_new_pull("ipc://exit-storm") == nullptr && errno == ECANCELED);
  Require(errors_logged == 2);
  late.msg->add("late");
  late.echo->send(std::move(*late.msg));
  late.echo->receive().value();
  late.echo.reset();
}

TEST(ExitStorm, TheProcessExitsWhileActorsRunAndStaticObjectsHoldHandles) {
  for (int round = Rounds(8); round > 0; --round) {
    const pid_t pid = Child([] {
      late.msg.emplace();
      late.echo.emplace(wrapper::Echo);
      late.at_the_end = UseWhatLives;
      static const JCXXMsg early;
      for (int n = 0; n < 3; ++n) {
        new Actor([](SockRef sock) {
          sock.ready();
          ExchangeForEver();
        });
      }
      std::exit(0);
    });
    ASSERT_EQ(Outcome(pid), 0);
  }
}

}  // namespace
