// shim.cpp - the threads of a case: their stops, and the choice at each.
#include "shim.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace schedule {

namespace {

// Whether a stopped thread can go on; kIdle if only when nobody else can.
enum class Ability { kNone, kIdle, kFull };

struct Thread {
  void* (*body)(void*);
  void* argument;
  void* result = nullptr;
  pthread_t handle = {};
  pid_t id = 0;
  bool ended = false;
  bool joined = false;
  const char* at = "start";
  Ability (*ability)(const void*) = [](const void*) { return Ability::kFull; };
  const void* stop = nullptr;
  sem_t turn;
};

// All of this is touched by the thread only that has the turn.
Thread threads[kThreads];
std::size_t thread_count = 0;
thread_local Thread* self = nullptr;  // null in a thread that is not of a case
const void* held[16] = {};            // the locks that are held
std::size_t moves = 0;
const Case* running = nullptr;
const Plan* plan = nullptr;
std::size_t turns_taken = 0;
std::mt19937_64 random_numbers;
bool is_aloud = false;
sem_t all_ended;

std::uint8_t NumberOf(const Thread* thread) { return static_cast<std::uint8_t>(thread - threads); }

std::string WhereAllAre() {
  std::string text;
  for (std::size_t i = 0; i < thread_count; ++i) {
    text += threads[i].ended ? "" : "; thread " + std::to_string(i) + " at " + threads[i].at;
  }
  return text;
}

// The threads that can go on, a bit each.
std::uint8_t Able() {
  unsigned able[3] = {};
  for (std::size_t i = 0; i < thread_count; ++i) {
    if (!threads[i].ended) {
      able[static_cast<int>(threads[i].ability(threads[i].stop))] |= 1U << i;
    }
  }
  const unsigned all = able[2] != 0 ? able[2] : able[1];
  return static_cast<std::uint8_t>(all);
}

// Whose turn it is at a choice. How often a seed takes the turn away depends on the seed.
std::uint8_t Decide(std::uint8_t able, std::uint8_t came, std::size_t choice) {
  const bool can_go_on = (able >> came & 1) != 0;
  if (plan->seed != 0) {
    constexpr std::uint64_t kOneIn[] = {2, 6, 20, 60};
    if (can_go_on && random_numbers() % kOneIn[plan->seed % 4] != 0) {
      return came;
    }
    auto skip = random_numbers() % static_cast<unsigned>(std::popcount(able));
    std::uint8_t thread = 0;
    while ((able >> thread & 1) == 0 || skip-- != 0) {
      ++thread;
    }
    return thread;
  }
  if (turns_taken < plan->count && plan->turns[turns_taken].choice == choice) {
    return plan->turns[turns_taken++].thread;
  }
  return can_go_on ? came : static_cast<std::uint8_t>(std::countr_zero(able));
}

Thread& Choose() {
  Shared& shared = TheShared();
  const std::uint8_t able = Able();
  if (able == 0) {
    Fail("all threads wait" + WhereAllAre());
  }
  if (std::has_single_bit(able)) {
    return threads[std::countr_zero(able)];
  }
  if (shared.count == kChoices) {
    Fail("no end" + WhereAllAre());
  }
  Choice& choice = shared.choices[shared.count];
  choice = {able, NumberOf(self), 0};
  choice.chosen = Decide(able, choice.came, shared.count++);
  if ((able >> choice.chosen & 1) == 0) {
    Fail("this plan is of another program");
  }
  return threads[choice.chosen];
}

void Wait(sem_t& semaphore) {
  while (::sem_wait(&semaphore) != 0) {
  }
}

// A thread that has ended is given the time to leave, so that no chance decides on
// what the next one finds.
void AwaitLeaving() {
  for (std::size_t i = 0; i < thread_count; ++i) {
    while (threads[i].ended && threads[i].id != 0) {
      if (::syscall(SYS_tgkill, ::getpid(), threads[i].id, 0) != 0) {
        threads[i].id = 0;
      } else {
        ::syscall(SYS_sched_yield);
      }
    }
  }
}

// Has the thread wait for its turn, at `at`, for as long as it is not `able`.
template <class Able>
void Stop(const char* at, const Able& able) {
  if (self == nullptr) {
    return;
  }
  const int error = errno;
  self->at = at;
  self->stop = &able;
  self->ability = [](const void* stop) { return (*static_cast<const Able*>(stop))(); };
  ++moves;
  Thread& next = Choose();
  if (&next != self) {
    ::sem_post(&next.turn);
    Wait(self->turn);
    AwaitLeaving();
  }
  if (is_aloud) {
    std::printf("thread %d: %s\n", NumberOf(self), at);
    std::fflush(stdout);
  }
  errno = error;
}
void Stop(const char* at) {
  Stop(at, [] { return Ability::kFull; });
}

void* RunThread(void* started) {
  self = static_cast<Thread*>(started);
  self->id = static_cast<pid_t>(::syscall(SYS_gettid));
  Wait(self->turn);
  AwaitLeaving();
  self->result = self->body(self->argument);
  self->ended = true;
  const bool last = std::all_of(threads, threads + thread_count, [](auto& t) { return t.ended; });
  sem_t& next = last ? all_ended : Choose().turn;
  self = nullptr;
  ::sem_post(&next);
  return nullptr;
}

template <class Create>
int StartThread(Create create, pthread_t* handle, const pthread_attr_t* how, void* (*body)(void*),
                void* argument) {
  if (thread_count == kThreads) {
    Fail("too many threads");
  }
  Thread& thread = threads[thread_count];
  thread.body = body;
  thread.argument = argument;
  ::sem_init(&thread.turn, 0, 0);
  const int error = create(&thread.handle, how, RunThread, &thread);
  if (error == 0) {
    *handle = thread.handle;
    ++thread_count;
  }
  return error;
}

Thread* FindThread(pthread_t handle) {
  Thread* end = threads + thread_count;
  Thread* found = std::find_if(threads, end, [=](const Thread& thread) {
    return !thread.joined && ::pthread_equal(thread.handle, handle) != 0;
  });
  return found == end ? nullptr : found;
}

// Where a lock stands among those that are held, or, for null, a free place.
const void** FindHeld(const void* lock) {
  return std::find(std::begin(held), std::end(held) - 1, lock);
}
void Hold(const void* lock) { *FindHeld(nullptr) = lock; }
void LetGo(const void* lock) { *FindHeld(lock) = nullptr; }
Ability Free(const void* lock) { return *FindHeld(lock) == lock ? Ability::kNone : Ability::kFull; }

}  // namespace

void Pause() { Stop("a pause"); }

void RunThreads(const Case& of, const Plan& with, bool aloud) {
  static const auto create =
      reinterpret_cast<decltype(&::pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  running = &of;
  plan = &with;
  is_aloud = aloud;
  random_numbers.seed(with.seed);
  ::sem_init(&all_ended, 0, 0);
  pthread_t first;
  const auto body = [](void*) -> void* {
    running->body();
    return nullptr;
  };
  if (StartThread(create, &first, nullptr, body, nullptr) != 0) {
    Fail("no thread");
  }
  ::sem_post(&threads[0].turn);
  Wait(all_ended);
  ::pthread_join(first, nullptr);
}

// The replaced calls

namespace {

template <class Function>
Function* Real(const char* name, Function* /*replaced*/) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// Whether a poll() with this limit would return at once.
Ability Polling(pollfd* fds, nfds_t n, int milliseconds) {
  static const auto real = Real("poll", &::poll);
  if (milliseconds == 0 || real(fds, n, 0) != 0) {
    return Ability::kFull;
  }
  return milliseconds > 0 ? Ability::kIdle : Ability::kNone;
}
Ability Ready(int fd, short event) {
  pollfd asked = {fd, event, 0};
  return Polling(&asked, 1, -1);
}
Ability Writable(int fd, std::size_t size) {
  if (size > PIPE_BUF) {
    Fail("a write that may wait in its middle");
  }
  return Ready(fd, POLLOUT);
}
std::size_t Sum(const iovec* iov, int n) {
  std::size_t sum = 0;
  std::for_each(iov, iov + n, [&](const iovec& entry) { sum += entry.iov_len; });
  return sum;
}

bool Wrong(Mistake mistake) { return running->mistake == mistake; }

}  // namespace

}  // namespace schedule

using namespace schedule;

#define REPLACED extern "C" __attribute__((visibility("default")))

// A call with a stop before it and one after it, unless it is made outside of a case.
#define REPLACE(type, name, able, parameters, ...)                        \
  REPLACED type name parameters {                                         \
    static const auto real = Real(#name, &::name);                        \
    Stop(#name, [&] { return self == nullptr ? Ability::kFull : able; }); \
    const type result = real(__VA_ARGS__);                                \
    Stop("after " #name);                                                 \
    return result;                                                        \
  }

// The third argument of a variadic call: an int, a pointer, or missing.
#define THIRD(last)                    \
  __extension__({                      \
    va_list rest;                      \
    va_start(rest, last);              \
    void* third = va_arg(rest, void*); \
    va_end(rest);                      \
    third;                             \
  })

// clang-format off
REPLACE(ssize_t, read, Ready(fd, POLLIN), (int fd, void* buf, size_t n), fd, buf, n)
REPLACE(ssize_t, readv, Ready(fd, POLLIN), (int fd, const iovec* iov, int n), fd, iov, n)
REPLACE(ssize_t, write, Writable(fd, n), (int fd, const void* buf, size_t n), fd, buf, n)
REPLACE(ssize_t, writev, Writable(fd, Sum(iov, n)), (int fd, const iovec* iov, int n), fd, iov, n)
REPLACE(int, poll, Polling(fds, n, limit), (pollfd* fds, nfds_t n, int limit), fds, n, limit)
REPLACE(int, ioctl, Ability::kFull, (int fd, unsigned long request, ...) noexcept,
        fd, request, THIRD(request))
REPLACE(int, fcntl, Ability::kFull, (int fd, int command, ...), fd, command, THIRD(command))
REPLACE(int, pipe, Ability::kFull, (int* ends) noexcept, ends)
REPLACE(int, pthread_key_create, Ability::kFull, (pthread_key_t* key, void (*end)(void*)) noexcept,
        key, end)
REPLACE(int, open, Ability::kFull, (const char* path, int flags, ...), path, flags, THIRD(flags))
REPLACE(int, mkfifo, Ability::kFull, (const char* path, mode_t mode) noexcept, path, mode)
REPLACE(int, fstat, Ability::kFull, (int fd, struct stat* status) noexcept, fd, status)
REPLACE(mode_t, umask, Ability::kFull, (mode_t mask) noexcept, mask)
// clang-format on

REPLACED int close(int fd) {
  static const auto real = Real("close", &::close);
  Stop("close");
  const int result = self != nullptr && Wrong(Mistake::kCloseKeeps) ? 0 : real(fd);
  Stop("after close");
  return result;
}

// Others have to move before it can expect a change.
REPLACED int sched_yield() noexcept {
  Stop("sched_yield",
       [seen = moves + 1] { return moves == seen ? Ability::kIdle : Ability::kFull; });
  return 0;
}

REPLACED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real = Real("pthread_mutex_lock", &::pthread_mutex_lock);
  Stop("pthread_mutex_lock", [=] { return Free(mutex); });
  if (self != nullptr) {
    Hold(mutex);
  }
  return real(mutex);
}

REPLACED int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  static const auto real = Real("pthread_mutex_trylock", &::pthread_mutex_trylock);
  Stop("pthread_mutex_trylock");
  const int result = real(mutex);
  if (self != nullptr && result == 0) {
    Hold(mutex);
  }
  return result;
}

REPLACED int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  static const auto real = Real("pthread_mutex_unlock", &::pthread_mutex_unlock);
  Stop("pthread_mutex_unlock");
  const int result = real(mutex);
  if (self != nullptr) {
    LetGo(mutex);
  }
  Stop("after pthread_mutex_unlock");
  return result;
}

// One that throws leaves it to the next caller.
REPLACED int pthread_once(pthread_once_t* once, void (*routine)()) {
  static const auto real = Real("pthread_once", &::pthread_once);
  if (self == nullptr) {
    return real(once, routine);
  }
  if (Wrong(Mistake::kOnceTwice)) {
    if (*once == PTHREAD_ONCE_INIT) {
      routine();
      *once = 2;
    }
    return 0;
  }
  struct Holding {
    explicit Holding(const void* held_once) : lock(held_once) { Hold(lock); }
    ~Holding() { LetGo(lock); }
    const void* lock;
  };
  Stop("pthread_once", [=] { return Free(once); });
  const Holding holding(once);
  return real(once, routine);
}

REPLACED int pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*),
                            void* argument) noexcept {
  static const auto real = Real("pthread_create", &::pthread_create);
  if (self == nullptr) {
    return real(thread, how, body, argument);
  }
  Stop("pthread_create");
  const int error = StartThread(real, thread, how, body, argument);
  Stop("after pthread_create");
  return error;
}

REPLACED int pthread_join(pthread_t handle, void** result) {
  static const auto real = Real("pthread_join", &::pthread_join);
  Thread* thread = self != nullptr ? FindThread(handle) : nullptr;
  if (thread == nullptr) {
    return real(handle, result);
  }
  Stop("pthread_join", [=] { return thread->ended ? Ability::kFull : Ability::kNone; });
  thread->joined = true;
  const int error = real(handle, nullptr);
  if (result != nullptr) {
    *result = thread->result;
  }
  return error;
}

// The end of a stream, an answer that nobody receives, an endpoint that another thread has
// made just before, and what is refused at the end of the process. Any other complaint is
// a fault.
constexpr const char* kUsualLines[] = {".ReadFrameFromSock: irv=-1", "errno=32",
                                       "unable to create fifo", "the process is ending"};

REPLACED void jlog_printf(int level, int, const char* format, ...) {
  if (level <= 2) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (is_aloud) {
      std::fputs(line, stdout);
    }
    const bool usual = std::any_of(std::begin(kUsualLines), std::end(kUsualLines),
                                   [&](const char* part) { return std::strstr(line, part); });
    if (!usual) {
      Fail(line);
    }
  }
  errno = ENOSPC;
}

// What is freed is not what it was.
void operator delete(void* memory) noexcept {
  if (memory != nullptr) {
    std::memset(memory, 0xA5, ::malloc_usable_size(memory));
  }
  __asm__ volatile("" : : "r"(memory) : "memory");  // or the compiler drops it
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
