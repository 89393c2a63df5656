// sink.cpp - which function takes the lines, and who is in it.
//
// No lock is held while a sink runs: it may wait for threads that themselves log.
// Instead its calls are counted, those of the present sink separately from those of
// former ones, so that jlog_set_sink waits only for the latter.
#include "sink.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace {

// Nothing here has a destructor: threads may log until the process has ended.
std::atomic<bool> has_sink{false};  // for the usual case, which takes no lock
thread_local bool inside = false;   // this thread is in a sink

std::mutex mutex;  // for what follows; held for a few instructions
jlog_sink_fn present = nullptr;
void* present_arg = nullptr;
unsigned long changes = 0;
int present_calls = 0;
int former_calls = 0;
pthread_cond_t former_returned = PTHREAD_COND_INITIALIZER;  // former_calls is 0

void CountPresentAsFormer() {
  former_calls += present_calls;
  present_calls = 0;
  ++changes;
}

void LockForFork() { mutex.lock(); }
void UnlockAfterFork() { mutex.unlock(); }

// Only the thread that forked is in the child; its call of a sink ends there too.
void UnlockInChild() {
  CountPresentAsFormer();
  former_calls = inside ? 1 : 0;
  former_returned = PTHREAD_COND_INITIALIZER;
  mutex.unlock();
}

[[maybe_unused]] const int at_fork = ::pthread_atfork(LockForFork, UnlockAfterFork, UnlockInChild);

}  // namespace

SinkCall::SinkCall() {
  if (inside || !has_sink.load(std::memory_order_relaxed)) {
    return;
  }
  const std::lock_guard<std::mutex> lock(mutex);
  sink_ = present;
  arg_ = present_arg;
  change_ = changes;
  if (sink_ != nullptr) {
    ++present_calls;
    inside = true;
  }
}

SinkCall::~SinkCall() {
  if (sink_ == nullptr) {
    return;
  }
  inside = false;
  const std::lock_guard<std::mutex> lock(mutex);
  if (change_ == changes) {
    --present_calls;
  } else if (--former_calls == 0) {
    ::pthread_cond_broadcast(&former_returned);
  }
}

void jlog_set_sink(jlog_sink_fn sink, void* arg) {
  const std::lock_guard<std::mutex> lock(mutex);
  CountPresentAsFormer();
  present = sink;
  present_arg = arg;
  has_sink = sink != nullptr;
  while (former_calls != 0 && !inside) {
    ::pthread_cond_wait(&former_returned, mutex.native_handle());
  }
}
