// jcxxactor.h - an actor: a function that runs on its own thread, tied to its
// creator by a pair of pipes.
//
// The creator's thread makes and destroys an actor; the actor's thread runs the
// function and nothing else. The two share only the pipe pair.
#ifndef JCXXACTOR_H
#define JCXXACTOR_H

#include <thread>

#include "jactor.h"

// What the actor's thread needs, and the thread.
struct JACTOR_API JActorThreadWrapper {
  void (*fn)(j_sock_t*, void*);
  void* args;           // passed on, never read
  JCXXSock* sock;       // the actor's end of the pair; owned
  JCXXActor* actor;     // the owner; stored only
  std::thread* thread;  // null before start(); owned

  JActorThreadWrapper();
  JActorThreadWrapper(void (*fn)(j_sock_t*, void*), void* args, JCXXSock* sock, JCXXActor* actor);

  // Copy nothing: all fields are null afterwards, and what the target of an
  // assignment held is not released.
  JActorThreadWrapper(JActorThreadWrapper const& other);
  JActorThreadWrapper& operator=(JActorThreadWrapper const& other);

  // Joins the thread, then deletes the actor's end. If the function has destroyed that
  // end, logs an error line instead. Not a cancellation point.
  ~JActorThreadWrapper();

  // Starts the thread. Throws std::system_error or std::bad_alloc; then `thread`
  // stays null.
  void start();

  // The thread's body: calls the function.
  void the_wrapper_function();
};

// In the registry of live actors from its constructor until its destructor.
struct JACTOR_API JCXXActor {
  JCXXSock* sock;                // the caller's end of the pair; owned
  JActorThreadWrapper* wrapper;  // owned

  // An actor without a thread and without a sock.
  JCXXActor();

  // Starts `fn(sock, args)` on a new thread and waits for its first signal.
  // Throws: std::bad_alloc when there are no pipes or no memory, or the wait
  //         failed, std::system_error when the thread cannot be started or the
  //         process is ending. Then nothing is left behind: the caller's end is
  //         closed and the thread joined.
  JCXXActor(void (*fn)(j_sock_t*, void*), void* args);

  // Copies nothing: the new actor has no thread and no sock.
  JCXXActor(JCXXActor const& other);

  // Copies nothing, and logs.
  JCXXActor& operator=(JCXXActor const& other);

  // Closes the caller's end, waits for the function to return, releases the rest. Logs an
  // error line for an end that its borrower has destroyed. Not a cancellation point.
  ~JCXXActor();

  // The caller's end; null when there is none.
  JCXXSock* GetSock();
};

#endif
