// jcxxactorapi.h - the process-wide instance behind every exported call, and the
// registry of live objects that it holds.
//
// Any thread may call any member. The mutex is held for one set operation at a
// time, never while an object works or a caller's function runs (except during
// the search in hybrid_zloop_reader_end).
#ifndef JCXXACTORAPI_H
#define JCXXACTORAPI_H

#include <cstddef>
#include <mutex>
#include <unordered_set>

#include "jactor.h"

// One registration of a sock with an event loop. The loop passes its address to
// the library's callback.
struct hybrid_poller_info {
  int (*handler)(zloop_t*, j_sock_t*, void*);
  void* arg;       // passed on, never read
  JCXXSock* sock;  // watched; not owned
};

struct JACTOR_API JCXXActorAPI {
  // Guards all five sets, reads included. The sets own nothing: an address is in
  // its set from the constructor of the object until its destructor.
  std::mutex mutex;
  std::unordered_set<JCXXSock*> socks;
  std::unordered_set<JCXXActor*> actors;
  std::unordered_set<JCXXFrame*> frames;
  std::unordered_set<JCXXMsg*> msgs;
  std::unordered_set<hybrid_poller_info*> pollers;

  // The instance, made by the first call, in storage that lasts as long as the process.
  // At exit nothing new is started, but handles stay valid while their objects live,
  // whichever static object or exit handler holds them.
  static JCXXActorAPI* GetInstance();

  JCXXActorAPI();

  // Empties the sets; the objects in them are left alone.
  ~JCXXActorAPI();

  // The registry. Each logs a null pointer, a duplicate add and the removal of a missing
  // pointer as an error; for an unknown pointer IsValid only returns false.
  bool JCXXSockPtrIsValid(JCXXSock* p);
  void JCXXSockPtrAdd(JCXXSock* p);
  void JCXXSockPtrRemove(JCXXSock* p);
  bool JCXXActorPtrIsValid(JCXXActor* p);
  void JCXXActorPtrAdd(JCXXActor* p);
  void JCXXActorPtrRemove(JCXXActor* p);
  bool JCXXFramePtrIsValid(JCXXFrame* p);
  void JCXXFramePtrAdd(JCXXFrame* p);
  void JCXXFramePtrRemove(JCXXFrame* p);
  bool JCXXMsgPtrIsValid(JCXXMsg* p);
  void JCXXMsgPtrAdd(JCXXMsg* p);
  void JCXXMsgPtrRemove(JCXXMsg* p);

  // The exported calls of the same names, as jactor.h describes them. Exceptions pass
  // out of these members.
  JCXXMsg* j_msg_new();
  void j_msg_destroy(JCXXMsg** p);
  int j_msg_addstr(JCXXMsg* m, const char* s);
  int j_msg_addmem(JCXXMsg* m, const void* data, std::size_t size);
  JCXXFrame* j_msg_pop(JCXXMsg* m);
  char* j_msg_popstr(JCXXMsg* m);
  int j_msg_signal(JCXXMsg* m);
  void j_frame_destroy(JCXXFrame** p);
  unsigned char* j_frame_data(JCXXFrame* f);
  std::size_t j_frame_size(JCXXFrame* f);

  JCXXActor* j_actor_new(void (*fn)(j_sock_t*, void*), void* args);
  void j_actor_destroy(JCXXActor** p);
  JCXXSock* j_actor_sock(JCXXActor* a);
  void j_sock_destroy(JCXXSock** p);
  int j_msg_send(JCXXMsg** pm, JCXXSock* s);
  int j_msg_send(JCXXMsg** pm, JCXXActor* a);
  JCXXMsg* j_msg_recv(JCXXSock* s);
  JCXXMsg* j_msg_recv(JCXXActor* a);
  int j_sock_signal(JCXXSock* s, unsigned char value);
  int j_sock_signal(JCXXActor* a, unsigned char value);
  int j_sock_fd(JCXXSock* s);
  int j_sock_fd(JCXXActor* a);
  std::size_t j_sock_buffered(JCXXSock* s);
  std::size_t j_sock_buffered(JCXXActor* a);
  int j_sock_wait(JCXXSock* s, int milliseconds);
  int j_sock_wait(JCXXActor* a, int milliseconds);

  JCXXSock* j_pipe_new_pull(char const* name);
  JCXXSock* j_pipe_new_push(char const* name);

  int hybrid_zloop_reader(zloop_t* loop, JCXXSock* sock, int (*handler)(zloop_t*, j_sock_t*, void*),
                          void* arg);
  void hybrid_zloop_reader_end(zloop_t* loop, JCXXSock* sock);

 private:
  // Copy nothing, and log.
  __attribute__((visibility("hidden"))) JCXXActorAPI(JCXXActorAPI const& other);
  __attribute__((visibility("hidden"))) JCXXActorAPI& operator=(JCXXActorAPI const& other);
};

#endif
