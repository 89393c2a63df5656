// part.cpp - one part of a process test, chosen by the first argument: sends or
// receives over an endpoint, lists its descriptors, logs, or exits with library
// objects alive.
#include <jlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "jactor.h"
#include "jcxxactor.h"
#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"

namespace {

constexpr int kMessages = 1000;

// Sends numbered messages, then a signal.
int Push(const char* endpoint) {
  JCXXSock* sock = j_pipe_new_push(endpoint);
  for (int i = 0; i < kMessages; ++i) {
    JCXXMsg* msg = j_msg_new();
    j_msg_addstr(msg, "number");
    j_msg_addmem(msg, &i, sizeof i);
    if (j_msg_send(&msg, sock) != 0) {
      return 2;
    }
  }
  const int rc = j_sock_signal(sock, 200);
  j_sock_destroy(&sock);
  return rc;
}

// Starts itself anew as the part that lists descriptors, with a pair, an actor
// and an endpoint open.
void Signal(j_sock_t* sock, void*) { j_sock_signal(sock, 0); }
int Exec(const char* self, const char* endpoint) {
  j_pipe_new_pull(endpoint);
  j_actor_new(Signal, nullptr);
  SockFromPipes::MakeSockPairFromPipes();
  return ::execl(self, self, "list", nullptr);
}

int List() {
  int open = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    open += std::stoi(entry.path().filename()) > 2 && target.find("/proc/") != 0 ? 1 : 0;
  }
  std::printf("%d descriptors\n", open);
  return 0;
}

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
  const char* endpoint = argc > 2 ? argv[2] : "";
  if (part == "push") {
    return Push(endpoint);
  }
  if (part == "exec") {
    return Exec("/proc/self/exe", endpoint);
  }
  if (part == "list") {
    return List();
  }
  if (part == "exit") {
    return ExitWithLiveObjects();
  }
  return part == "log" ? Log() : 2;
}
