// exit_storm_test.cpp - processes that fork while their threads use the library, and
// that end at bad moments.
//
// Each case runs in a child process, which is killed after a while if it hangs.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "jactor.hpp"
#include "jcxxactorapi.h"
#include "jcxxsock.h"
#include "jlog.h"
#include "wrapper/common.h"

namespace {
std::atomic<int> errors_logged{0};
}  // namespace

extern "C" void jlog_printf(int level, int, const char*, ...) {
  if (level <= 2) {
    ++errors_logged;
  }
}

// A child has none of the threads that hold what the parent allocated.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_thread_leaks=0:report_signal_unsafe=0:die_after_fork=0";
}

namespace {

using namespace jactor;
using wrapper::Echo;

constexpr unsigned kHangs = 30;  // seconds after which a child is killed

// How many times a storm does it, a sanitizer's slower program fewer times;
// JACTOR_STORM_EXITS says otherwise.
int Rounds(int usual) {
#ifdef JACTOR_SANITIZED
  usual /= 4;
#endif
  const char* asked = std::getenv("JACTOR_STORM_EXITS");
  return asked != nullptr ? std::atoi(asked) : usual;
}

// Runs `body` in a child process that ends with exit(0) after it.
template <class Body>
pid_t Child(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(kHangs);
    body();
    std::exit(0);
  }
  return pid;
}

// How a child ends: its exit code, or minus the signal that killed it.
int Outcome(pid_t pid) {
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
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

[[noreturn]] void ExchangeForEver() {
  for (const Pair pair;;) {
    pair.Exchange();
  }
}

// An endpoint, until its FIFO is removed again. Result: whether it could be opened.
bool OpenEndpoint(const std::string& name) {
  JCXXSock* sock = j_pipe_new_pull(("ipc://" + name).c_str());
  const bool opened = sock != nullptr;
  j_sock_destroy(&sock);
  std::filesystem::remove("/var/run/jactor/Jipc_" + name);
  return opened;
}

// Lives longer than the library's own end, since it was made before its first use.
struct Late {
  void (*at_the_end)() = nullptr;
  ~Late() {
    if (at_the_end != nullptr) {
      at_the_end();
    }
  }
};
Late late;

int ready[2];  // a child says here that it is at work

// Kills a child that exchanges messages, and whose handler calls exit(0). It asks for a
// handle at the very end, which takes the registry's lock; to allocate would not be safe.
void TerminateAtWork(bool second_thread) {
  const pid_t pid = Child([=] {
    late.at_the_end = [] {
      JCXXActorAPI::GetInstance()->JCXXMsgPtrIsValid(reinterpret_cast<JCXXMsg*>(&late));
    };
    std::signal(SIGTERM, [](int) { std::exit(0); });
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &term, nullptr);
    if (second_thread) {
      std::thread([] {
        try {
          ExchangeForEver();
        } catch (const error&) {  // refused at the end of the process
          ::pause();
        }
      }).detach();
    }
    const Pair pair;
    pair.Exchange();
    ::pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
    EXPECT_EQ(::write(ready[1], "x", 1), 1);
    ExchangeForEver();
  });
  char byte = 0;
  EXPECT_EQ(::read(ready[0], &byte, 1), 1);
  for (std::atomic<int> moment{std::rand() % 100000}; --moment > 0;) {
  }
  ::kill(pid, SIGTERM);
  ASSERT_EQ(Outcome(pid), 0) << (second_thread ? "beside a busy thread" : "alone");
}

TEST(ExitStorm, ASignalHandlerMayExitWhereverItInterruptsTheLibrary) {
  ASSERT_EQ(::pipe(ready), 0);
  for (int round = Rounds(300); round > 0 && !HasFailure(); --round) {
    TerminateAtWork(round % 2 == 0);
  }
}

// How the endpoints of this run begin: the processes end in the middle of their work.
const std::string names = "exit-storm-" + std::to_string(::getpid()) + "-";

void RemoveFifos() {
  for (const auto& entry : std::filesystem::directory_iterator("/var/run/jactor")) {
    if (entry.path().filename().string().rfind("Jipc_" + names, 0) == 0) {
      std::filesystem::remove(entry.path());
    }
  }
}

// What a child of a parent with busy threads may do: use objects of its own. What fails
// is thrown, and ends it.
void UseEverything() {
  const bool opened = OpenEndpoint(names + std::to_string(::getpid()));
  Pair().Exchange();
  const Actor actor(Echo);
  actor.send(Message{"child"});
  actor.receive().value();
  const mode_t umask_left = ::umask(022);
  if (!opened || umask_left == 0) {
    std::_Exit(opened ? 2 : 1);
  }
}

// The parent's threads exchange messages, start actors and open endpoints meanwhile.
TEST(ExitStorm, AForkedChildUsesTheLibraryWhateverTheParentsThreadsHeld) {
#if defined(JACTOR_SANITIZED) || defined(JACTOR_EMULATED)
  GTEST_SKIP() << "a sanitizer's, or an emulator's, own locks may be held in the child";
#endif
  ::umask(022);
  const pid_t parent = Child([] {
    for (int n = 0; n < 2; ++n) {
      std::thread(ExchangeForEver).detach();
      std::thread([] {
        for (;;) {
          Actor{Echo};
        }
      }).detach();
      std::thread([n] {
        for (;;) {
          OpenEndpoint(names + std::to_string(n));
        }
      }).detach();
    }
    for (int round = Rounds(150); round > 0; --round) {
      const int outcome = Outcome(Child(UseEverything));
      if (outcome != 0) {
        std::fprintf(stderr, "a child ended with %d\n", outcome);
        std::_Exit(3);
      }
    }
    std::_Exit(0);
  });
  EXPECT_EQ(Outcome(parent), 0);
  RemoveFifos();
}

std::size_t Entries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(ExitStorm, NothingIsStartedOnceTheProcessEnds) {
  const pid_t pid = Child([] {
    Pair().Exchange();
    late.at_the_end = [] {
      const std::size_t before = Entries("/proc/self/task") + Entries("/proc/self/fd");
      errors_logged = 0;
      if (j_actor_new([](j_sock_t*, void*) {}, nullptr) != nullptr || errno != ECANCELED ||
          errors_logged != 1) {
        std::_Exit(1);
      }
      errno = 0;
      if (j_pipe_new_pull("ipc://exit-storm") != nullptr || errno != ECANCELED ||
          errors_logged != 2) {
        std::_Exit(2);
      }
      if (Entries("/proc/self/task") + Entries("/proc/self/fd") != before) {
        std::_Exit(3);
      }
    };
  });
  EXPECT_EQ(Outcome(pid), 0);
}

}  // namespace
