// registry.cpp - making the instance, and what each thread remembers of it.
#include "registry.h"

#include <pthread.h>

#include <new>
#include <type_traits>

namespace registry {

namespace {

// Storage that is never released.
alignas(Instance) constinit unsigned char storage[sizeof(Instance)] = {};
constinit std::once_flag made;

// Frees the memory of an ending thread, after the destructors of its thread-local
// objects.
pthread_key_t key;

void FreeMemory(void* memory) {
  Memory::own = nullptr;
  delete static_cast<Memory*>(memory);
}

// Makes a contended lock spin for a moment before it sleeps: the mutex is held for
// well under a microsecond, and putting a thread to sleep takes longer.
void SpinBeforeSleeping(std::mutex& mutex) {
#ifdef __GLIBC__
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
  pthread_mutex_destroy(mutex.native_handle());
  pthread_mutex_init(mutex.native_handle(), &attributes);
  pthread_mutexattr_destroy(&attributes);
#else
  static_cast<void>(mutex);
#endif
}

}  // namespace

constinit thread_local Memory* Memory::own = nullptr;

Memory* Memory::Make() {
  auto* memory = new (std::nothrow) Memory();
  if (memory != nullptr && ::pthread_setspecific(key, memory) != 0) {
    delete memory;
    return nullptr;
  }
  own = memory;
  return memory;
}

Instance::Instance() {
  SpinBeforeSleeping(mutex);
  constexpr std::size_t kUsualObjects = 1024;
  frames.reserve(kUsualObjects);
  msgs.reserve(kUsualObjects);
}

// pthread_once(), which std::call_once uses, handles forks: if a child has lost the thread
// that was at work here, the child does the work again.
JCXXActorAPI* MakeInstance() {
  std::call_once(made, [] {
    if (::pthread_key_create(&key, FreeMemory) != 0) {
      throw std::bad_alloc();
    }
    auto* instance = new (storage) Instance();
    process::Follow(instance->mutex);
    the_instance.store(instance, std::memory_order_release);
  });
  return the_instance.load(std::memory_order_acquire);
}

void BecomeSilent(const JCXXSock* actors_end) {
  if (!process::Gone()) {
    Instance& instance = *the_instance.load();
    const process::CriticalSection section(instance.mutex);
    instance.silent.insert(actors_end);
    silent_socks = instance.silent.size();
  }
}

bool IsSilent(const JCXXSock* actors_end) {
  if (process::Gone() || silent_socks == 0) {
    return false;
  }
  Instance& instance = *the_instance.load();
  const process::CriticalSection section(instance.mutex);
  return instance.silent.count(actors_end) != 0;
}

void EndSilence(const JCXXSock* actors_end) {
  if (!process::Gone()) {
    Instance& instance = *the_instance.load();
    const process::CriticalSection section(instance.mutex);
    instance.silent.erase(actors_end);
    silent_socks = instance.silent.size();
  }
}

}  // namespace registry
