// process.cpp - taking the locks around a fork, and the end of the process.
#include "process.h"

#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <new>
#include <system_error>
#include <thread>
#include <type_traits>

namespace process {

constinit thread_local std::atomic<bool> inside{false};
constinit thread_local const std::mutex* lent = nullptr;
constinit std::mutex umask_mutex;
static_assert(std::is_trivially_destructible_v<std::mutex>, "locks outlive every exit handler");

namespace {

constinit std::atomic<std::mutex*> registry_mutex{nullptr};

// Whether this thread took the locks for a fork.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool forking = false;

// A signal handler may fork inside a section of the thread that it interrupted: that
// section goes on in both processes, and releases its lock in both.
void BeforeFork() {
  if (forking || inside || Gone()) {
    return;
  }
  umask_mutex.lock();
  registry_mutex.load()->lock();
  forking = true;
}

void AfterFork() {
  if (!forking) {
    return;
  }
  forking = false;
  registry_mutex.load()->unlock();
  umask_mutex.unlock();
}

// Whether the lock can be taken. Its holders keep it for less than a microsecond, and
// lose their processor for far less than a second. But if this thread holds it itself,
// below its signal handler, it would wait for itself.
bool CanBeHad(std::mutex& mutex) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (!mutex.try_lock()) {
    if (inside || std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  mutex.unlock();
  return true;
}

void End() { phase = CanBeHad(*registry_mutex.load()) ? Phase::kEnding : Phase::kGone; }

}  // namespace

void ThrowLockFailure(int error) { throw std::system_error(error, std::generic_category()); }

void RefuseToStartAtTheEnd() {
  if (phase.load(std::memory_order_relaxed) != Phase::kRunning) {
    throw std::system_error(std::make_error_code(std::errc::operation_canceled),
                            "the process is ending");
  }
}

void Follow(std::mutex& mutex) {
  registry_mutex = &mutex;
  if (std::atexit(End) != 0 || ::pthread_atfork(BeforeFork, AfterFork, AfterFork) != 0) {
    throw std::bad_alloc();
  }
}

}  // namespace process
