// calls.h - every exported call that takes a handle, in one table: what the tests of
// bad handles walk through, and the fuzz target of the calls chooses from.
#ifndef JACTOR_TESTS_CALLS_H
#define JACTOR_TESTS_CALLS_H

#include <string>

#include "fuzz/check.h"
#include "jactor.h"

namespace calls {

// Becomes a pointer to whatever a call takes.
struct Handle {
  void* p;
  template <class Object>
  operator Object*() const {
    return static_cast<Object*>(p);
  }
};

// What a call is given besides its handle, and what it gives.
struct Rest {
  void* other;       // of j_msg_send: the message or the end that `handle` is not
  zloop_t* loop;     // never looked at while the sock is bad
  std::string text;  // to add; its length is the value of a signal
  void* made;        // the frame, message, sock or string
};

struct Call {
  const char* name;
  char takes;                                // m, f, s, a, or e for a sock or an actor
  bool (*fails)(Handle handle, Rest& rest);  // whether it answers as to a bad handle
};

inline bool Fits(char takes, char kind) {
  return takes == kind || (takes == 'e' && (kind == 's' || kind == 'a'));
}

inline bool Nothing(void* made, Rest& rest) {
  rest.made = made;
  return made == nullptr;
}

// Destroys through a variable of its own, which is null afterwards in any case.
template <class Object>
bool Destroys(void (*destroy)(Object**), Handle handle) {
  Object* p = handle;
  destroy(nullptr);
  destroy(&p);
  CHECK(p == nullptr);
  return true;
}

inline bool SendFails(Handle handle, void* dest) {
  JCXXMsg* msg = handle;
  CHECK(j_msg_send(nullptr, dest) == -1);
  const int rc = j_msg_send(&msg, dest);
  CHECK(msg == (rc == 0 ? nullptr : handle.p));
  return rc == -1;
}

inline int EndsTheLoop(zloop_t*, j_sock_t*, void*) { return -1; }

inline const Call kCalls[] = {
    {"j_msg_destroy", 'm', [](Handle h, Rest&) { return Destroys(j_msg_destroy, h); }},
    {"j_msg_addstr", 'm', [](Handle h, Rest& r) { return j_msg_addstr(h, r.text.c_str()) == -1; }},
    {"j_msg_addmem", 'm',
     [](Handle h, Rest& r) { return j_msg_addmem(h, r.text.data(), r.text.size()) == -1; }},
    {"j_msg_pop", 'm', [](Handle h, Rest& r) { return Nothing(j_msg_pop(h), r); }},
    {"j_msg_popstr", 'm', [](Handle h, Rest& r) { return Nothing(j_msg_popstr(h), r); }},
    {"j_msg_signal", 'm', [](Handle h, Rest&) { return j_msg_signal(h) == -1; }},
    {"j_msg_send", 'm', [](Handle h, Rest& r) { return SendFails(h, r.other); }},
    {"j_frame_destroy", 'f', [](Handle h, Rest&) { return Destroys(j_frame_destroy, h); }},
    {"j_frame_data", 'f', [](Handle h, Rest&) { return j_frame_data(h) == nullptr; }},
    {"j_frame_size", 'f', [](Handle h, Rest&) { return j_frame_size(h) == 0; }},
    {"j_sock_destroy", 's', [](Handle h, Rest&) { return Destroys(j_sock_destroy, h); }},
    {"hybrid_zloop_reader", 's',
     [](Handle h, Rest& r) { return hybrid_zloop_reader(r.loop, h, EndsTheLoop, nullptr) == -1; }},
    {"hybrid_zloop_reader_end", 's',
     [](Handle h, Rest& r) { return hybrid_zloop_reader_end(r.loop, h), true; }},
    {"j_actor_destroy", 'a', [](Handle h, Rest&) { return Destroys(j_actor_destroy, h); }},
    {"j_actor_sock", 'a', [](Handle h, Rest& r) { return Nothing(j_actor_sock(h), r); }},
    {"j_msg_send", 'e', [](Handle h, Rest& r) { return SendFails({r.other}, h); }},
    {"j_msg_recv", 'e', [](Handle h, Rest& r) { return Nothing(j_msg_recv(h), r); }},
    {"j_sock_signal", 'e',
     [](Handle h, Rest& r) {
       return j_sock_signal(h, static_cast<unsigned char>(r.text.size())) == -1;
     }},
    {"j_sock_fd", 'e', [](Handle h, Rest&) { return j_sock_fd(h) == -1; }},
    {"j_sock_buffered", 'e', [](Handle h, Rest&) { return j_sock_buffered(h) == 0; }},
};

}  // namespace calls

#endif
