// exit_storm_test.cpp - processes that fork while their threads use the library, and
// that end at bad moments.
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

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

// How many times a storm does it, a sanitizer's slower program fewer times;
// JACTOR_STORM_EXITS says otherwise.
int Rounds(int usual) {
#ifdef JACTOR_SANITIZED
  usual /= 4;
#endif
  const char* asked = std::getenv("JACTOR_STORM_EXITS");
  return asked != nullptr ? std::atoi(asked) : usual;
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

void ExchangeForEver() {
  try {
    for (const Pair pair;;) {
      pair.Exchange();
    }
  } catch (const error&) {  // refused at the end of the process
    ::pause();
  }
}

// Lives longer than the library's own end, since it was made before its first use.
struct Late {
  void (*at_the_end)() = [] {};
  std::unique_ptr<JCXXMsg> msg = {};
  JCXXActor* echo = nullptr;
  ~Late() { at_the_end(); }
};
Late late;

// A child that exchanges messages until a handler, in the middle of it, calls exit(0). It
// asks for a handle at the very end, which takes the registry's lock; to allocate would not
// be safe.
void ExitAtWork(bool second_thread) {
  late.at_the_end = [] {
    JCXXActorAPI::GetInstance()->JCXXMsgPtrIsValid(reinterpret_cast<JCXXMsg*>(&late));
  };
  Pair().Exchange();
  if (second_thread) {
    std::thread(ExchangeForEver).detach();
  }
  std::signal(SIGVTALRM, [](int) { std::exit(0); });
  const itimerval next_tick = {{0, 0}, {0, 1}};
  Require(::setitimer(ITIMER_VIRTUAL, &next_tick, nullptr) == 0);
  ExchangeForEver();
}

TEST(ExitStorm, ASignalHandlerMayExitWhereverItInterruptsTheLibrary) {
  for (int round = Rounds(150); round > 0; --round) {
    const bool second_thread = round % 2 == 0;
    ASSERT_EQ(Outcome(Child([=] { ExitAtWork(second_thread); })), 0)
        << (second_thread ? "beside a busy thread" : "alone");
  }
}

// Opens an endpoint, and removes its FIFO again.
void OpenEndpoint(const std::string& number) {
  const std::string name = "exit-storm-" + number;
  Sock::pull("ipc://" + name);
  std::filesystem::remove("/var/run/jactor/Jipc_" + name);
}

// What a child of a parent with busy threads may do: use objects of its own.
void UseEverything() {
  OpenEndpoint(std::to_string(::getpid()));
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
      keep_busy(
          [name = std::to_string(::getpid()) + "-" + std::to_string(n)] { OpenEndpoint(name); });
    }
    for (int round = Rounds(150); round > 0; --round) {
      Require(Outcome(Child(UseEverything)) == 0);
    }
  });
  EXPECT_EQ(Outcome(parent), 0);
}

// Sends back what comes, until it is asked to stop.
std::atomic<bool> echo_stopped{false};
void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (const std::unique_ptr<JCXXMsg> msg{j_msg_recv(sock)}) {
    msg->WriteMessage(sock);
  }
  echo_stopped = true;
}

std::ptrdiff_t ThreadsAndDescriptors() {
  using std::filesystem::directory_iterator;
  return std::distance(directory_iterator("/proc/self/task"), {}) +
         std::distance(directory_iterator("/proc/self/fd"), {});
}

// Nothing is started any more, in a line each; what lives can be used and released.
void UseWhatLives() {
  const std::ptrdiff_t before = ThreadsAndDescriptors();
  errors_logged = 0;
  Require(j_actor_new(Echo, nullptr) == nullptr && errno == ECANCELED && errors_logged == 1);
  Require(j_pipe_new_pull("ipc://exit-storm") == nullptr && errno == ECANCELED);
  Require(errors_logged == 2 && ThreadsAndDescriptors() == before);
  Require(j_msg_addstr(late.msg.get(), "late") == 0);
  Require(late.msg->WriteMessage(j_actor_sock(late.echo)) == 0);
  Require(std::unique_ptr<JCXXMsg>(j_msg_recv(late.echo)) != nullptr);
  j_actor_destroy(&late.echo);
  Require(echo_stopped);
}

TEST(ExitStorm, TheProcessExitsWhileActorsRunAndStaticObjectsHoldHandles) {
  for (int round = Rounds(8); round > 0; --round) {
    const pid_t pid = Child([] {
      late.msg.reset(j_msg_new());
      late.echo = j_actor_new(Echo, nullptr);
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
