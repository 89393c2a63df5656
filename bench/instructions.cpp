// instructions.cpp - sends and receives a given number of messages on one thread. The
// difference between two runs is the number of instructions that one message takes.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "messages.h"

namespace {

// Whether a message could not be sent, or arrived wrong.
bool failed = false;

void Expect(bool good) { failed = failed || !good; }

struct Ends {
  JCXXSock* push;
  JCXXSock* pull;
};

void Exchange(Ends ends, std::size_t frames, std::size_t size) {
  JCXXMsg* msg = messages::BuildEqual(frames, size);
  Expect(j_msg_send(&msg, ends.push) == 0);
  Expect(messages::TakeApartEqual(j_msg_recv(ends.pull), frames, size));
}

void Signal(Ends ends) {
  Expect(j_sock_signal(ends.push, 7) == 0);
  JCXXMsg* msg = j_msg_recv(ends.pull);
  Expect(j_msg_signal(msg) == 7);
  j_msg_destroy(&msg);
}

constexpr struct {
  std::string_view name;
  void (*once)(Ends ends);
} kPaths[] = {
    {"message-32", [](Ends ends) { Exchange(ends, 1, 32); }},
    {"message-1k", [](Ends ends) { Exchange(ends, 1, 1024); }},
    {"frames-8", [](Ends ends) { Exchange(ends, 8, 64); }},
    {"build-3", [](Ends) { Expect(messages::TakeApartEqual(messages::BuildEqual(3, 32), 3, 32)); }},
    {"signal", Signal},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: jactor_instructions PATH COUNT\n");
    return 2;
  }
  const std::string name = "jactor_instructions." + std::to_string(::getpid());
  const Ends ends{j_pipe_new_push((">ipc://" + name).c_str()),
                  j_pipe_new_pull(("@ipc://" + name).c_str())};
  Expect(ends.push != nullptr && ends.pull != nullptr);
  bool found = false;
  for (const auto& path : kPaths) {
    if (path.name == argv[1]) {
      found = true;
      for (long i = std::strtol(argv[2], nullptr, 10); i > 0 && !failed; --i) {
        path.once(ends);
      }
    }
  }
  ::unlink(("/var/run/jactor/Jipc_" + name).c_str());
  if (!found || failed) {
    std::fprintf(stderr, "jactor_instructions: %s\n", found ? "a call failed" : "no such path");
    return 1;
  }
  return 0;
}
