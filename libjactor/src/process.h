// process.h - what the library has to know about its process: when it forks, and when it
// ends.
//
// A fork leaves the child with one thread. So that no lock stays held by a thread that
// does not exist there, the library's locks are taken before a fork and released after it,
// in both processes.
//
// A process may end while other threads run, or in a signal handler that interrupted a
// thread inside the registry. Nothing here is ever destroyed, and nothing waits for ever:
// see Phase.
#ifndef JACTOR_PROCESS_H
#define JACTOR_PROCESS_H

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace process {

enum class Phase {
  kRunning,
  // exit() has reached the library. Existing objects can be used and released, by static
  // objects and exit handlers that run later, but nothing new is started.
  kEnding,
  // As kEnding, and the registry's lock is held for ever: exit() was called by a signal
  // handler that interrupted its holder, or in a child that lost its holder to a fork
  // unknown to the library. The registry is left alone.
  kGone,
};
inline constinit std::atomic<Phase> phase{Phase::kRunning};

inline bool Gone() { return phase.load(std::memory_order_relaxed) == Phase::kGone; }

// Throws std::system_error (ECANCELED), whose text says so, once the process is ending.
void RefuseToStartAtTheEnd();

// Whether this thread is in a critical section, or entering or leaving one.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local std::atomic<bool> inside;

// The lock that this thread holds with no work in progress under it; usually null.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local const std::mutex* lent;

// Lends the lock of the enclosing section to calls made inside it: a function of the
// program, such as a log sink, may call the library.
class Lending {
 public:
  explicit Lending(const std::mutex& mutex) { lent = &mutex; }
  Lending(Lending const&) = delete;
  Lending& operator=(Lending const&) = delete;
  ~Lending() { lent = nullptr; }
};

[[noreturn]] void ThrowLockFailure(int error);

// Holds one of the library's locks. Sections nest only where the lock is lent. Throws
// std::system_error when the lock fails.
class CriticalSection {
 public:
  [[gnu::always_inline]] explicit CriticalSection(std::mutex& mutex)
      : mutex_(lent == &mutex ? nullptr : &mutex) {
    if (mutex_ == nullptr) {
      return;
    }
    inside.store(true, std::memory_order_relaxed);
    if (const int error = ::pthread_mutex_lock(mutex.native_handle()); error != 0) [[unlikely]] {
      inside.store(false, std::memory_order_relaxed);
      ThrowLockFailure(error);
    }
  }
  CriticalSection(CriticalSection const&) = delete;
  CriticalSection& operator=(CriticalSection const&) = delete;
  ~CriticalSection() {
    if (mutex_ != nullptr) {
      mutex_->unlock();
      inside.store(false, std::memory_order_relaxed);
    }
  }

 private:
  std::mutex* mutex_;
};

// The lock over the process's umask while it is changed.
extern constinit std::mutex umask_mutex;

// Watches for forks and the end of the process from now on, for the registry's lock, which
// must last as long as the process. Throws std::bad_alloc.
void Follow(std::mutex& registry_mutex);

}  // namespace process

#endif
