// part.cpp - one part of a process test, chosen by the argument: logs, or exits
// with library objects alive.
#include <jlog.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "jactor.h"
#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"

namespace {

// Uses the library when the registry may be gone: nothing is found, nothing
// crashes. No message is destroyed by its handle, which may be unknown.
void UseTheLibrary() {
  const std::unique_ptr<JCXXMsg> made(j_msg_new());
  JCXXMsg* msg = made.get();
  SockFromPipes sock;
  j_msg_addstr(msg, "late");
  j_msg_send(&msg, &sock);
  msg->AddStr("later");
  delete j_msg_pop(msg);
}

void Signal(j_sock_t* sock, void*) { j_sock_signal(sock, 0); }

// Made before the registry, and so destroyed after it, with what it holds.
struct Early {
  ~Early() { UseTheLibrary(); }
  std::unique_ptr<JCXXMsg> msg;
  std::unique_ptr<JCXXFrame> frame;
  std::unique_ptr<JCXXActor> actor;
};

// Goes on using the library while the process exits.
std::atomic<int> rounds{0};
void Busy(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  for (;;) {
    UseTheLibrary();
    ++rounds;
  }
}

int ExitWithLiveObjects() {
  static Early early;
  early.msg.reset(j_msg_new());
  early.frame = std::make_unique<JCXXFrame>();
  early.actor.reset(j_actor_new(Signal, nullptr));
  static JCXXMsg late;
  static JCXXActor* busy = j_actor_new(Busy, nullptr);
  while (busy == nullptr || rounds == 0) {
  }
  std::puts("exiting");
  std::exit(0);
}

int Log() {
  for (const int level : {1, 2, 9}) {
    jlog_printf(level, 281, "%s.%d.%s: level %d\n", "part.cpp", 1, "Log", level);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string part = argc > 1 ? argv[1] : "";
  if (part == "exit") {
    return ExitWithLiveObjects();
  }
  return part == "log" ? Log() : 2;
}
