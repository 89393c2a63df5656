// calls.h - every exported call that takes a handle, and the member behind it, in one
// table: what the tests of bad handles walk through, and the fuzz target chooses from.
#ifndef JACTOR_TESTS_CALLS_H
#define JACTOR_TESTS_CALLS_H

#include <cerrno>
#include <string>
#include <type_traits>

#include "jcxxactorapi.h"

namespace calls {

// What a call is given besides its handle, and what it leaves.
struct Rest {
  JCXXMsg* msg;  // of j_msg_send: the one of the two that is not the handle
  JCXXSock* sock;
  zloop_t* loop;         // never looked at while the sock is bad
  std::string text;      // to add
  unsigned char value;   // of a signal
  void* made = nullptr;  // what it returned, if that is a pointer
  void* left = nullptr;  // the caller's handle
};

struct Call {
  const char* name;
  char takes;  // m, f, s, a, or e for a sock or an actor

  // Whether the call, or the member of `api`, answers as to a bad handle.
  bool (*fails)(JCXXActorAPI* api, void* handle, Rest& rest);
};

inline bool Fits(char takes, char kind) {
  return takes == kind || (takes == 'e' && (kind == 's' || kind == 'a'));
}

// A call without a result answers to all handles alike. One that works and changes errno
// is taken for one that fails.
template <class Function>
bool Failed(Rest& rest, Function call) {
  using Result = decltype(call());
  constexpr int kBefore = 4711;
  errno = kBefore;
  if constexpr (std::is_void_v<Result>) {
    call();
    return true;
  } else if constexpr (std::is_pointer_v<Result>) {
    rest.made = call();
    return rest.made == nullptr || errno != kBefore;
  } else {
    const Result failure = static_cast<Result>(std::is_signed_v<Result> ? -1 : 0);
    return call() == failure || errno != kBefore;
  }
}

inline int EndsTheLoop(zloop_t*, j_sock_t*, void*) { return -1; }

inline Call Row(const char* name, char takes, decltype(Call::fails) fails) {
  return {name, takes, fails};
}

// A call of the handle `p`, with the arguments that follow.
#define JACTOR_CALL(name, takes, Type, ...)                                         \
  Row(#name, takes, [](JCXXActorAPI* api, void* handle, [[maybe_unused]] Rest& r) { \
    auto* p = static_cast<Type*>(handle);                                           \
    const auto exported = [&] { return ::name(__VA_ARGS__); };                      \
    const auto member = [&] { return api->name(__VA_ARGS__); };                     \
    const bool failed = api == nullptr ? Failed(r, exported) : Failed(r, member);   \
    r.left = p;                                                                     \
    return failed;                                                                  \
  })
#define JACTOR_CALL_OF_EITHER(name, ...) \
  JACTOR_CALL(name, 'e', JCXXSock, __VA_ARGS__), JACTOR_CALL(name, 'e', JCXXActor, __VA_ARGS__)

inline const Call kCalls[] = {
    JACTOR_CALL(j_msg_destroy, 'm', JCXXMsg, &p),
    JACTOR_CALL(j_msg_addstr, 'm', JCXXMsg, p, r.text.c_str()),
    JACTOR_CALL(j_msg_addmem, 'm', JCXXMsg, p, r.text.data(), r.text.size()),
    JACTOR_CALL(j_msg_pop, 'm', JCXXMsg, p),
    JACTOR_CALL(j_msg_popstr, 'm', JCXXMsg, p),
    JACTOR_CALL(j_msg_signal, 'm', JCXXMsg, p),
    JACTOR_CALL(j_msg_send, 'm', JCXXMsg, &p, r.sock),
    JACTOR_CALL(j_frame_destroy, 'f', JCXXFrame, &p),
    JACTOR_CALL(j_frame_data, 'f', JCXXFrame, p),
    JACTOR_CALL(j_frame_size, 'f', JCXXFrame, p),
    JACTOR_CALL(j_sock_destroy, 's', JCXXSock, &p),
    JACTOR_CALL(hybrid_zloop_reader, 's', JCXXSock, r.loop, p, EndsTheLoop, nullptr),
    JACTOR_CALL(hybrid_zloop_reader_end, 's', JCXXSock, r.loop, p),
    JACTOR_CALL(j_actor_destroy, 'a', JCXXActor, &p),
    JACTOR_CALL(j_actor_sock, 'a', JCXXActor, p),
    JACTOR_CALL_OF_EITHER(j_msg_send, &r.msg, p),
    JACTOR_CALL_OF_EITHER(j_msg_recv, p),
    JACTOR_CALL_OF_EITHER(j_sock_signal, p, r.value),
    JACTOR_CALL_OF_EITHER(j_sock_fd, p),
    JACTOR_CALL_OF_EITHER(j_sock_buffered, p),
    JACTOR_CALL_OF_EITHER(j_sock_wait, p, 0),
};

}  // namespace calls

#endif
