// jcxxactor.cpp - starting an actor, running its function, stopping it.
//
// An actor announces that it is ready with a signal; closing the caller's end of
// the pair asks it to stop.
#include "jcxxactor.h"

#include <memory>
#include <new>
#include <system_error>
#include <tuple>

#include "cancellation.h"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "log.h"
#include "process.h"
#include "registry.h"

namespace {

// Deletes an end of the pair, for `function`; does nothing for null. Its borrower must
// not have destroyed it.
void DeleteEnd(JCXXSock* end, const char* function) {
  if (end != nullptr && !registry::Api().JCXXSockPtrIsValid(end)) {
    JACTOR_ERROR_AS(function, "the actor's sock has been destroyed by somebody else");
    return;
  }
  delete end;
}

}  // namespace

JActorThreadWrapper::JActorThreadWrapper()
    : fn(nullptr), args(nullptr), sock(nullptr), actor(nullptr), thread(nullptr) {}

JActorThreadWrapper::JActorThreadWrapper(void (*function)(j_sock_t*, void*), void* argument,
                                         JCXXSock* actors_end, JCXXActor* owner)
    : fn(function), args(argument), sock(actors_end), actor(owner), thread(nullptr) {}

JActorThreadWrapper::JActorThreadWrapper(JActorThreadWrapper const& /*other*/)
    : JActorThreadWrapper() {
  JACTOR_TRACE("JActorThreadWrapper copy constructor");
}

JActorThreadWrapper& JActorThreadWrapper::operator=(JActorThreadWrapper const& /*other*/) {
  JACTOR_TRACE("JActorThreadWrapper copy assignment constructor");
  fn = nullptr;
  args = nullptr;
  sock = nullptr;
  actor = nullptr;
  thread = nullptr;
  return *this;
}

JActorThreadWrapper::~JActorThreadWrapper() {
  const NoCancellation destroying;
  if (thread != nullptr) {
    try {
      thread->join();
      delete thread;
    } catch (const std::system_error&) {
      // A thread that cannot be joined is left behind: destroying it would end
      // the process.
    }
    thread = nullptr;
  }
  registry::Signalling(sock);  // no longer silent
  DeleteEnd(sock, "~JActorThreadWrapper");
  sock = nullptr;
}

void JActorThreadWrapper::start() {
  thread = new std::thread(&JActorThreadWrapper::the_wrapper_function, this);
}

void JActorThreadWrapper::the_wrapper_function() {
  JACTOR_TRACE("before client function");
  fn(sock, args);
  JACTOR_TRACE("after client function");
  if (registry::IsSilent(sock)) {
    JACTOR_ERROR("actor function returned before its first signal");
  }
}

namespace {

// Closes the caller's end, which the actor function sees as the end of the stream, then
// waits for the function, then releases the rest. At the end of a process that has lost
// its registry the actor's thread may be waiting for it: then all is left as it is.
void StopAndRelease(JCXXActor* actor) {
  if (process::Gone()) {
    return;
  }
  DeleteEnd(actor->sock, "~JCXXActor");
  actor->sock = nullptr;
  delete actor->wrapper;
  actor->wrapper = nullptr;
  registry::Api().JCXXActorPtrRemove(actor);
}

}  // namespace

JCXXActor::JCXXActor() : sock(nullptr), wrapper(nullptr) {
  JACTOR_TRACE("JCXXActor constructor");
  registry::Api().JCXXActorPtrAdd(this);
}

JCXXActor::JCXXActor(void (*fn)(j_sock_t*, void*), void* args) : sock(nullptr), wrapper(nullptr) {
  process::RefuseToStartAtTheEnd();
  registry::Api().JCXXActorPtrAdd(this);
  std::unique_ptr<JCXXActor, void (*)(JCXXActor*)> on_failure(this, StopAndRelease);
  const auto pair = SockFromPipes::MakeSockPairFromPipes();
  sock = std::get<0>(pair);
  std::unique_ptr<JCXXSock> actors_end(std::get<1>(pair));
  wrapper = new JActorThreadWrapper(fn, args, actors_end.get(), this);
  actors_end.release();
  registry::BecomeSilent(wrapper->sock);
  wrapper->start();
  if (JCXXMsg::WaitForSignal(sock) != 0) {
    throw std::bad_alloc();
  }
  on_failure.release();
}

JCXXActor::JCXXActor(JCXXActor const& /*other*/) : sock(nullptr), wrapper(nullptr) {
  JACTOR_TRACE("JCXXActor copy constructor");
  registry::Api().JCXXActorPtrAdd(this);
}

JCXXActor& JCXXActor::operator=(JCXXActor const& other) {
  JACTOR_TRACE("JCXXActor copy assignment operator");
  if (this != &other) {
    registry::Api().JCXXActorPtrAdd(this);
  }
  return *this;
}

JCXXActor::~JCXXActor() {
  const NoCancellation destroying;
  StopAndRelease(this);
}

JCXXSock* JCXXActor::GetSock() { return sock; }
