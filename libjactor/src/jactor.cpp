// jactor.cpp - the exported C calls.
//
// Each is a shell: a silent null test of its first handle, then the member of
// the same name. No exception leaves: it becomes a log line and the call's
// failure result (-1, null, or a size of 0). errno then says why (reason.h).
#include "jactor.h"

#include <cerrno>
#include <exception>
#include <new>
#include <system_error>
#include <type_traits>
#include <utility>

#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "log.h"
#include "reason.h"
#include "registry.h"

namespace {

// What a call works with: only memory, or system calls, which may change errno even
// when they succeed.
enum class Work { kMemory, kSystem };

// The reason for an exception; a call with a scope may have recorded it before the
// exception was thrown.
int ReasonOf(const std::exception& error, Work work) {
  if (const auto* system = dynamic_cast<const std::system_error*>(&error)) {
    return system->code().value();
  }
  if (work == Work::kSystem && reason::why > 0) {
    return reason::why;
  }
  return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ? ENOMEM : EIO;
}

// What a call returns when it fails.
template <class Result>
Result Failure() {
  if constexpr (std::is_same_v<Result, int>) {
    return -1;
  } else {
    return Result();
  }
}

// The same for a null handle, about which nothing is logged.
template <class Result>
Result NullHandle() {
  errno = EINVAL;
  return Failure<Result>();
}

// Runs `use` on the instance. A std::exception becomes a log line in the name
// of `function`, and the failure result; other exceptions, such as the
// cancellation of the thread, pass through.
template <Work work, class Use>
auto Guarded(const char* function, Use use, int level = JACTOR_LEVEL_ERROR)
    -> decltype(use(std::declval<JCXXActorAPI&>())) {
  [[maybe_unused]] const std::conditional_t<work == Work::kSystem, reason::Scope, Work> scope{};
  try {
    return use(registry::Api());
  } catch (const std::exception& error) {
    JACTOR_LOG_FORMAT(level, function, JACTOR_LINE("%s"), error.what());
    reason::Fail(ReasonOf(error, work));
    return Failure<decltype(use(std::declval<JCXXActorAPI&>()))>();
  }
}

// Makes the call with the member of the API.
template <auto member, Work work, class... Arguments>
auto Call(const char* function, Arguments... arguments) {
  return Guarded<work>(function, [=](JCXXActorAPI& api) { return (api.*member)(arguments...); });
}

// The same on a message or a frame, which may be null.
template <auto member, class Handle, class... Arguments>
auto CallOn(const char* function, Handle* handle, Arguments... arguments) {
  using Result = decltype(Call<member, Work::kMemory>(function, handle, arguments...));
  return handle == nullptr ? NullHandle<Result>()
                           : Call<member, Work::kMemory>(function, handle, arguments...);
}

// Destroys `*p` with the given member of the API, and nulls it in any case.
template <auto member, Work work, class Object>
void Destroy(const char* function, Object** p) {
  if (p == nullptr || *p == nullptr) {
    return;
  }
  Object* object = *p;
  Guarded<work>(function, [&](JCXXActorAPI& api) { (api.*member)(&object); });
  *p = nullptr;
}

// The name of a call that takes a sock or an actor, and its line about a handle that
// is neither.
struct Named {
  const char* call;
  const char* invalid;
};
#define JACTOR_NAMED(call) \
  Named { #call, JACTOR_LINE("invalid pointer passed to " #call) }

// Calls `use` with the sock or the actor that `handle` is, the sock set first.
template <class Use>
auto UseSockOrActor(JCXXActorAPI& api, const Named& name, void* handle, Use use) {
  auto* sock = static_cast<JCXXSock*>(handle);
  if (api.JCXXSockPtrIsValid(sock)) {
    return use(sock);
  }
  auto* actor = static_cast<JCXXActor*>(handle);
  if (api.JCXXActorPtrIsValid(actor)) {
    return use(actor);
  }
  JACTOR_LOG_FORMAT(JACTOR_LEVEL_ERROR, name.call, name.invalid);
  reason::Fail(EINVAL);
  return Failure<decltype(use(sock))>();
}

// Makes a call, `use(api, end)`, on a sock or an actor, which may be null.
template <class Use>
auto CallOnSockOrActor(const Named& name, void* handle, Use use, int level = JACTOR_LEVEL_ERROR) {
  const auto on_instance = [=](JCXXActorAPI& api) {
    return UseSockOrActor(api, name, handle, [&](auto* end) { return use(api, end); });
  };
  using Result = decltype(Guarded<Work::kSystem>(name.call, on_instance));
  return handle == nullptr ? NullHandle<Result>()
                           : Guarded<Work::kSystem>(name.call, on_instance, level);
}

// Sends `*p`, which is not null, and nulls it when it is gone.
int Send(JCXXActorAPI& api, JCXXMsg** p, auto* end) {
  JCXXMsg* msg = *p;
  const int rc = api.j_msg_send(&msg, end);
  if (rc == 0) {
    *p = nullptr;
  }
  return rc;
}

// Signals the sock; an actor with a trace line before and after it.
int Signal(JCXXActorAPI& api, JCXXSock* sock, unsigned char value) {
  return api.j_sock_signal(sock, value);
}
int Signal(JCXXActorAPI& api, JCXXActor* actor, unsigned char value) {
  constexpr const char* kFunction = "j_sock_signal";
  JACTOR_TRACE_AS(kFunction, "before actor");
  const int rc = api.j_sock_signal(actor, value);
  JACTOR_TRACE_AS(kFunction, "after actor");
  return rc;
}

}  // namespace

JCXXMsg* j_msg_new(void) { return Call<&JCXXActorAPI::j_msg_new, Work::kMemory>(__func__); }

void j_msg_destroy(JCXXMsg** p) {
  Destroy<&JCXXActorAPI::j_msg_destroy, Work::kMemory>(__func__, p);
}

int j_msg_addstr(JCXXMsg* msg, const char* s) {
  return CallOn<&JCXXActorAPI::j_msg_addstr>(__func__, msg, s);
}

int j_msg_addmem(JCXXMsg* msg, const void* data, size_t size) {
  return CallOn<&JCXXActorAPI::j_msg_addmem>(__func__, msg, data, size);
}

JCXXFrame* j_msg_pop(JCXXMsg* msg) { return CallOn<&JCXXActorAPI::j_msg_pop>(__func__, msg); }

char* j_msg_popstr(JCXXMsg* msg) { return CallOn<&JCXXActorAPI::j_msg_popstr>(__func__, msg); }

int j_msg_signal(JCXXMsg* msg) { return CallOn<&JCXXActorAPI::j_msg_signal>(__func__, msg); }

void j_frame_destroy(JCXXFrame** p) {
  Destroy<&JCXXActorAPI::j_frame_destroy, Work::kMemory>(__func__, p);
}

unsigned char* j_frame_data(JCXXFrame* frame) {
  return CallOn<&JCXXActorAPI::j_frame_data>(__func__, frame);
}

size_t j_frame_size(JCXXFrame* frame) {
  return CallOn<&JCXXActorAPI::j_frame_size>(__func__, frame);
}

JCXXActor* j_actor_new(j_actor_fn fn, void* args) {
  return Call<&JCXXActorAPI::j_actor_new, Work::kSystem>(__func__, fn, args);
}

void j_actor_destroy(JCXXActor** p) {
  Destroy<&JCXXActorAPI::j_actor_destroy, Work::kSystem>(__func__, p);
}

JCXXSock* j_actor_sock(JCXXActor* actor) {
  return CallOn<&JCXXActorAPI::j_actor_sock>(__func__, actor);
}

int j_msg_send(JCXXMsg** p, void* dest) {
  void* to = p == nullptr || *p == nullptr ? nullptr : dest;
  return CallOnSockOrActor(JACTOR_NAMED(j_msg_send), to,
                           [=](JCXXActorAPI& api, auto* end) { return Send(api, p, end); });
}

JCXXMsg* j_msg_recv(void* source) {
  return CallOnSockOrActor(
      JACTOR_NAMED(j_msg_recv), source,
      [](JCXXActorAPI& api, auto* end) { return api.j_msg_recv(end); }, JACTOR_LEVEL_EXCEPTION);
}

int j_sock_signal(void* self, unsigned char value) {
  return CallOnSockOrActor(JACTOR_NAMED(j_sock_signal), self,
                           [=](JCXXActorAPI& api, auto* end) { return Signal(api, end, value); });
}

void j_sock_destroy(JCXXSock** p) {
  Destroy<&JCXXActorAPI::j_sock_destroy, Work::kSystem>(__func__, p);
}

int j_sock_fd(void* self) {
  return CallOnSockOrActor(JACTOR_NAMED(j_sock_fd), self,
                           [](JCXXActorAPI& api, auto* end) { return api.j_sock_fd(end); });
}

size_t j_sock_buffered(void* self) {
  return CallOnSockOrActor(JACTOR_NAMED(j_sock_buffered), self,
                           [](JCXXActorAPI& api, auto* end) { return api.j_sock_buffered(end); });
}

int j_sock_wait(void* self, int milliseconds) {
  return CallOnSockOrActor(JACTOR_NAMED(j_sock_wait), self, [=](JCXXActorAPI& api, auto* end) {
    return api.j_sock_wait(end, milliseconds);
  });
}

JCXXSock* j_pipe_new_pull(const char* endpoint) {
  return Call<&JCXXActorAPI::j_pipe_new_pull, Work::kSystem>(__func__, endpoint);
}

JCXXSock* j_pipe_new_push(const char* endpoint) {
  return Call<&JCXXActorAPI::j_pipe_new_push, Work::kSystem>(__func__, endpoint);
}

int hybrid_zloop_reader(zloop_t* loop, JCXXSock* sock, j_zloop_fn handler, void* arg) {
  if (loop == nullptr || sock == nullptr) {
    return NullHandle<int>();
  }
  return Call<&JCXXActorAPI::hybrid_zloop_reader, Work::kSystem>(__func__, loop, sock, handler,
                                                                 arg);
}

void hybrid_zloop_reader_end(zloop_t* loop, JCXXSock* sock) {
  if (loop == nullptr || sock == nullptr) {
    return NullHandle<void>();
  }
  Call<&JCXXActorAPI::hybrid_zloop_reader_end, Work::kSystem>(__func__, loop, sock);
}
