// shim.cpp - the threads of a case: their stops, and the choice at each.
#include <dlfcn.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <utility>

#include "schedule.h"

// The libc's own function of a name that is replaced here.
#define REAL(name) reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))

namespace schedule {

namespace {

using Condition = std::function<bool()>;
bool Always() { return true; }

struct Thread {
  void* (*body)(void*) = nullptr;
  void* argument = nullptr;
  void* result = nullptr;
  pthread_t handle = {};
  bool ended = false;
  const char* at = "start";
  const Condition* able = nullptr;  // whether it can go on; null if it can
  sem_t turn = {};
};

// Only the thread whose turn it is touches any of this.
Thread threads[kThreads];
unsigned thread_count = 0;
thread_local Thread* self = nullptr;  // null in a thread that is not of a case
Thread* leaving = nullptr;            // has ended and passed the turn on
std::size_t moves = 0;
thread_local std::size_t last_move = 0;  // of this thread

std::uint8_t NumberOf(const Thread* thread) { return static_cast<std::uint8_t>(thread - threads); }

[[noreturn]] void FailAt(std::string what) {
  for (unsigned i = 0; i < thread_count; ++i) {
    what += threads[i].ended ? "" : "; thread " + std::to_string(i) + " at " + threads[i].at;
  }
  Fail(what);
}

// How often a seed takes the turn away depends on the seed.
std::uint8_t AtRandom(const Choice& choice) {
  static std::mt19937_64 random(current.seed);
  constexpr std::uint64_t kOneIn[] = {2, 6, 20, 60};
  if (choice.Allows(choice.came) && random() % kOneIn[current.seed % 4] != 0) {
    return choice.came;
  }
  for (;;) {
    const auto thread = static_cast<std::uint8_t>(random() % thread_count);
    if (choice.Allows(thread)) {
      return thread;
    }
  }
}

Thread& Choose() {
  Choice choice = {0, NumberOf(self), 0};
  for (unsigned i = 0; i < thread_count; ++i) {
    const Thread& thread = threads[i];
    const bool able = !thread.ended && (thread.able == nullptr || (*thread.able)());
    choice.able |= static_cast<std::uint8_t>(able << i);
  }
  if (choice.able == 0) {
    FailAt("all threads wait");
  }
  if (std::has_single_bit(choice.able)) {
    return threads[std::countr_zero(choice.able)];
  }
  if (current.count == std::size(current.choices)) {
    FailAt("no end");
  }
  Choice& taken = current.choices[current.count];
  if (current.count++ < current.planned) {
    choice.chosen = taken.chosen;
    Demand(choice.Allows(choice.chosen), "this plan is of another program");
  } else {
    choice.chosen = current.seed != 0 ? AtRandom(choice) : Usual(choice);
  }
  taken = choice;
  return threads[choice.chosen];
}

// A thread that has ended is joined here, so that chance does not decide what the next
// one finds.
void AwaitTurn() {
  while (::sem_wait(&self->turn) != 0) {
  }
  if (leaving != nullptr) {
    REAL(pthread_join)(std::exchange(leaving, nullptr)->handle, nullptr);
  }
}

// Makes the thread wait at `at` until it is `able` and it is its turn.
void Stop(const char* at, const Condition& able = Always) {
  if (self == nullptr) {
    return;
  }
  const int error = errno;
  self->at = at;
  self->able = &able;
  last_move = ++moves;
  Thread& next = Choose();
  if (&next != self) {
    ::sem_post(&next.turn);
    AwaitTurn();
  }
  if (current.aloud) {
    std::printf("thread %d: %s\n", NumberOf(self), at);
  }
  errno = error;
}

void* RunThread(void* started) {
  self = static_cast<Thread*>(started);
  AwaitTurn();
  self->result = self->body(self->argument);
  self->ended = true;
  leaving = self;
  Thread& next = Choose();
  self = nullptr;
  ::sem_post(&next.turn);
  return nullptr;
}

// What the replaced calls wait for

bool Polls(pollfd* fds, nfds_t n, int limit) { return limit == 0 || REAL(poll)(fds, n, 0) != 0; }
bool Ready(int fd, short event) {
  pollfd asked = {fd, event, 0};
  return Polls(&asked, 1, -1);
}
bool Free(pthread_mutex_t* mutex) {
  return REAL(pthread_mutex_trylock)(mutex) == 0 && REAL(pthread_mutex_unlock)(mutex) == 0;
}
bool Free(const pthread_once_t* once) { return (*once & 3) != 1; }  // 1: glibc runs the routine

}  // namespace

void Pause() { Stop("a pause"); }

void RunThreads(void (*body)()) {
  for (Thread& thread : threads) {
    ::sem_init(&thread.turn, 0, 0);
  }
  thread_count = 1;
  self = threads;
  body();
  self = nullptr;
}

}  // namespace schedule

using namespace schedule;

#define REPLACED extern "C" __attribute__((visibility("default")))

// A call with a stop before it and one after it.
#define REPLACE(type, name, able, parameters, ...) \
  REPLACED type name parameters {                  \
    static const auto real = REAL(name);           \
    Stop(#name, [&] { return able; });             \
    const type result = real(__VA_ARGS__);         \
    Stop("after " #name);                          \
    return result;                                 \
  }

// clang-format off
REPLACE(ssize_t, read, Ready(fd, POLLIN), (int fd, void* buf, size_t n), fd, buf, n)
REPLACE(ssize_t, readv, Ready(fd, POLLIN), (int fd, const iovec* iov, int n), fd, iov, n)
REPLACE(ssize_t, write, Ready(fd, POLLOUT), (int fd, const void* buf, size_t n), fd, buf, n)
REPLACE(ssize_t, writev, Ready(fd, POLLOUT), (int fd, const iovec* iov, int n), fd, iov, n)
REPLACE(int, poll, Polls(fds, n, limit), (pollfd* fds, nfds_t n, int limit), fds, n, limit)
REPLACE(int, pipe, true, (int* ends) noexcept, ends)
REPLACE(int, close, true, (int fd), fd)
REPLACE(int, pthread_key_create, true, (pthread_key_t* key, void (*end)(void*)) noexcept, key, end)
REPLACE(int, pthread_mutex_lock, Free(mutex), (pthread_mutex_t* mutex) noexcept, mutex)
REPLACE(int, pthread_mutex_trylock, true, (pthread_mutex_t* mutex) noexcept, mutex)
REPLACE(int, pthread_mutex_unlock, true, (pthread_mutex_t* mutex) noexcept, mutex)
REPLACE(int, pthread_once, Free(once), (pthread_once_t* once, void (*routine)()), once, routine)
// clang-format on

// It makes sense to go on when others have moved since this thread's last stop.
REPLACED int sched_yield() noexcept {
  Stop("sched_yield", [last = last_move] { return moves > last + 1; });
  return 0;
}

REPLACED int pthread_create(pthread_t* handle, const pthread_attr_t* how, void* (*body)(void*),
                            void* argument) noexcept {
  Stop("pthread_create");
  Demand(thread_count < kThreads, "too many threads");
  Thread& thread = threads[thread_count];
  thread.body = body;
  thread.argument = argument;
  const int error = REAL(pthread_create)(&thread.handle, how, RunThread, &thread);
  Demand(error == 0, "no thread");
  *handle = thread_count++;
  Stop("after pthread_create");
  return error;
}

REPLACED int pthread_join(pthread_t handle, void** result) {
  const Thread& thread = threads[handle];
  Stop("pthread_join", [&] { return thread.ended; });
  if (result != nullptr) {
    *result = thread.result;
  }
  return 0;
}

// The end of a stream, an answer that nobody receives, and what is refused at the end of
// the process. Any other complaint is a fault.
constexpr const char* kUsualLines[] = {".ReadFrameFromSock: irv=-1", "errno=32",
                                       "the process is ending"};

REPLACED void jlog_printf(int level, int, const char* format, ...) {
  if (level <= 2) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (current.aloud) {
      std::fputs(line, stdout);
    }
    const bool usual = std::any_of(std::begin(kUsualLines), std::end(kUsualLines),
                                   [&](const char* part) { return std::strstr(line, part); });
    Demand(usual, line);
  }
  errno = ENOSPC;
}

// Freed memory does not keep what it held.
void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    std::memset(memory, 0xA5, ::malloc_usable_size(memory));
  }
  __asm__ volatile("" : : "r"(memory) : "memory");  // or the compiler drops it
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
