// jactor.cpp - the exported C calls.
//
// Each is a shell: a silent null test of its first handle, then the member of
// the same name. No exception leaves: it becomes a log line and the call's
// failure result.
#include "jactor.h"

#include <exception>
#include <type_traits>

#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "log.h"

namespace {

// Runs `call` on the instance. A std::exception becomes a log line in the name
// of `function`, and `failure` the result; other exceptions, such as the
// cancellation of the thread, pass.
template <class Result, class Call>
Result Guarded(const char* function, Result failure, Call call, int level = JACTOR_LEVEL_ERROR) {
  try {
    return call(*JCXXActorAPI::GetInstance());
  } catch (const std::exception& error) {
    JACTOR_LOG_FORMAT(level, function, JACTOR_LINE("%s"), error.what());
    return failure;
  }
}

// Destroys `*p` with the member of the API that does so, and nulls it in any case.
template <class Object>
void Destroy(const char* function, Object** p, void (JCXXActorAPI::*destroy)(Object**)) {
  if (p == nullptr || *p == nullptr) {
    return;
  }
  Object* object = *p;
  Guarded(function, 0, [&](JCXXActorAPI& api) {
    (api.*destroy)(&object);
    return 0;
  });
  *p = nullptr;
}

// Calls `use` with the sock or the actor that `handle` is, the sock set first.
// Result: `failure`, and a log line, when it is neither.
template <class Result, class Use>
Result AsSockOrActor(JCXXActorAPI& api, const char* function, const char* invalid, void* handle,
                     Result failure, Use use) {
  auto* sock = static_cast<JCXXSock*>(handle);
  if (api.JCXXSockPtrIsValid(sock)) {
    return use(sock);
  }
  auto* actor = static_cast<JCXXActor*>(handle);
  if (api.JCXXActorPtrIsValid(actor)) {
    return use(actor);
  }
  JACTOR_LOG_FORMAT(JACTOR_LEVEL_ERROR, function, invalid);
  return failure;
}

}  // namespace

JCXXMsg* j_msg_new(void) {
  return Guarded<JCXXMsg*>(__func__, nullptr, [](JCXXActorAPI& api) { return api.j_msg_new(); });
}

void j_msg_destroy(JCXXMsg** p) { Destroy(__func__, p, &JCXXActorAPI::j_msg_destroy); }

int j_msg_addstr(JCXXMsg* msg, const char* s) {
  if (msg == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) { return api.j_msg_addstr(msg, s); });
}

int j_msg_addmem(JCXXMsg* msg, const void* data, size_t size) {
  if (msg == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1,
                 [=](JCXXActorAPI& api) { return api.j_msg_addmem(msg, data, size); });
}

JCXXFrame* j_msg_pop(JCXXMsg* msg) {
  if (msg == nullptr) {
    return nullptr;
  }
  return Guarded<JCXXFrame*>(__func__, nullptr,
                             [=](JCXXActorAPI& api) { return api.j_msg_pop(msg); });
}

char* j_msg_popstr(JCXXMsg* msg) {
  if (msg == nullptr) {
    return nullptr;
  }
  return Guarded<char*>(__func__, nullptr,
                        [=](JCXXActorAPI& api) { return api.j_msg_popstr(msg); });
}

int j_msg_signal(JCXXMsg* msg) {
  if (msg == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) { return api.j_msg_signal(msg); });
}

void j_frame_destroy(JCXXFrame** p) { Destroy(__func__, p, &JCXXActorAPI::j_frame_destroy); }

unsigned char* j_frame_data(JCXXFrame* frame) {
  if (frame == nullptr) {
    return nullptr;
  }
  return Guarded<unsigned char*>(__func__, nullptr,
                                 [=](JCXXActorAPI& api) { return api.j_frame_data(frame); });
}

size_t j_frame_size(JCXXFrame* frame) {
  if (frame == nullptr) {
    return 0;
  }
  return Guarded<size_t>(__func__, 0, [=](JCXXActorAPI& api) { return api.j_frame_size(frame); });
}

JCXXActor* j_actor_new(j_actor_fn fn, void* args) {
  return Guarded<JCXXActor*>(__func__, nullptr,
                             [=](JCXXActorAPI& api) { return api.j_actor_new(fn, args); });
}

void j_actor_destroy(JCXXActor** p) { Destroy(__func__, p, &JCXXActorAPI::j_actor_destroy); }

JCXXSock* j_actor_sock(JCXXActor* actor) {
  if (actor == nullptr) {
    return nullptr;
  }
  return Guarded<JCXXSock*>(__func__, nullptr,
                            [=](JCXXActorAPI& api) { return api.j_actor_sock(actor); });
}

int j_msg_send(JCXXMsg** p, void* dest) {
  if (p == nullptr || *p == nullptr || dest == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) {
    JCXXMsg* msg = *p;
    const int rc =
        AsSockOrActor(api, "j_msg_send", JACTOR_LINE("invalid pointer passed to j_msg_send"), dest,
                      -1, [&](auto* end) { return api.j_msg_send(&msg, end); });
    if (rc == 0) {
      *p = nullptr;
    }
    return rc;
  });
}

JCXXMsg* j_msg_recv(void* source) {
  if (source == nullptr) {
    return nullptr;
  }
  return Guarded<JCXXMsg*>(
      __func__, nullptr,
      [=](JCXXActorAPI& api) {
        return AsSockOrActor<JCXXMsg*>(api, "j_msg_recv",
                                       JACTOR_LINE("invalid pointer passed to j_msg_recv"), source,
                                       nullptr, [&](auto* end) { return api.j_msg_recv(end); });
      },
      JACTOR_LEVEL_EXCEPTION);
}

int j_sock_signal(void* self, unsigned char value) {
  if (self == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) {
    constexpr const char* kFunction = "j_sock_signal";
    return AsSockOrActor(api, kFunction, JACTOR_LINE("invalid pointer passed to j_sock_signal"),
                         self, -1, [&](auto* end) {
                           if constexpr (std::is_same_v<decltype(end), JCXXActor*>) {
                             JACTOR_TRACE_AS(kFunction, "before actor");
                           }
                           const int rc = api.j_sock_signal(end, value);
                           if constexpr (std::is_same_v<decltype(end), JCXXActor*>) {
                             JACTOR_TRACE_AS(kFunction, "after actor");
                           }
                           return rc;
                         });
  });
}

void j_sock_destroy(JCXXSock** p) { Destroy(__func__, p, &JCXXActorAPI::j_sock_destroy); }

int j_sock_fd(void* self) {
  if (self == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) {
    return AsSockOrActor(api, "j_sock_fd", JACTOR_LINE("invalid pointer passed to j_sock_fd"), self,
                         -1, [&](auto* end) { return api.j_sock_fd(end); });
  });
}

size_t j_sock_buffered(void* self) {
  if (self == nullptr) {
    return 0;
  }
  return Guarded<size_t>(__func__, 0, [=](JCXXActorAPI& api) {
    return AsSockOrActor<size_t>(api, "j_sock_buffered",
                                 JACTOR_LINE("invalid pointer passed to j_sock_buffered"), self, 0,
                                 [&](auto* end) { return api.j_sock_buffered(end); });
  });
}

JCXXSock* j_pipe_new_pull(const char* endpoint) {
  return Guarded<JCXXSock*>(__func__, nullptr,
                            [=](JCXXActorAPI& api) { return api.j_pipe_new_pull(endpoint); });
}

JCXXSock* j_pipe_new_push(const char* endpoint) {
  return Guarded<JCXXSock*>(__func__, nullptr,
                            [=](JCXXActorAPI& api) { return api.j_pipe_new_push(endpoint); });
}

int hybrid_zloop_reader(zloop_t* loop, JCXXSock* sock, j_zloop_fn handler, void* arg) {
  if (loop == nullptr || sock == nullptr) {
    return -1;
  }
  return Guarded(__func__, -1, [=](JCXXActorAPI& api) {
    return api.hybrid_zloop_reader(loop, sock, handler, arg);
  });
}

void hybrid_zloop_reader_end(zloop_t* loop, JCXXSock* sock) {
  if (loop == nullptr || sock == nullptr) {
    return;
  }
  Guarded(__func__, 0, [=](JCXXActorAPI& api) {
    api.hybrid_zloop_reader_end(loop, sock);
    return 0;
  });
}
