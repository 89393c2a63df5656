// soak.cpp - usage: soak SECONDS. Actors, endpoints and an event loop with messages of
// random sizes, every byte and every order checked, while memory, descriptors and the
// registry must stay flat.
#include <czmq.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jlog.h"
#include "messages.h"
#include "require.h"

namespace {

constexpr std::size_t kMost = 200000;     // bytes in a frame
constexpr std::size_t kMostQueued = 500;  // where ten messages wait in a pipe

std::uint64_t sent = 0;
std::uint64_t received = 0;
std::size_t bytes_received = 0;

// A message: its number, then frames of bytes that follow from it.
JCXXMsg* Make(std::uint64_t number, std::size_t most) {
  std::mt19937 chance(static_cast<std::uint32_t>(number));
  std::vector<unsigned char> bytes(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  JCXXMsg* msg = messages::Build(1 + chance() % 6, [&](std::size_t frame) {
    if (frame != 0) {
      bytes.resize(1 + chance() % (chance() % 50 == 0 ? most : most / 100 + 1));
      std::generate(bytes.begin(), bytes.end(), std::ref(chance));
    }
    return messages::Bytes(bytes);
  });
  Require(msg != nullptr);
  return msg;
}

void Send(void* to, std::size_t most) {
  JCXXMsg* msg = Make(sent++, most);
  Require(j_msg_send(&msg, to) == 0);
}

// The next message must be the next one of those sent.
void Receive(void* from, std::size_t most) {
  const std::unique_ptr<JCXXMsg> msg(j_msg_recv(from));
  const std::unique_ptr<JCXXMsg> wanted(Make(received++, most));
  const auto data = [](const JCXXFrame* frame) -> const auto& { return frame->data; };
  Require(msg != nullptr &&
          std::ranges::equal(msg->GetFrameList(), wanted->GetFrameList(), {}, data, data));
  bytes_received += msg->GetSize();
}

void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (const std::unique_ptr<JCXXMsg> msg{j_msg_recv(sock)}) {
    msg->WriteMessage(sock);
  }
}

int OnMessage(zloop_t*, j_sock_t* sock, void*) {
  do {
    Receive(sock, kMostQueued);
  } while (received < sent && j_sock_buffered(sock) > 0);
  return received == sent ? -1 : 0;
}

// One round: a new actor and a new endpoint, some messages through both, the
// endpoint's received in an event loop.
void Round() {
  static const std::string name = "ipc://soak-" + std::to_string(::getpid());
  JCXXActor* actor = j_actor_new(Echo, nullptr);
  for (int i = 0; i < 50; ++i) {
    Send(actor, kMost);
    Receive(actor, kMost);
  }
  j_actor_destroy(&actor);
  JCXXSock* push = j_pipe_new_push(name.c_str());
  JCXXSock* pull = j_pipe_new_pull(name.c_str());
  for (int i = 0; i < 10; ++i) {
    Send(push, kMostQueued);
  }
  zloop_t* loop = zloop_new();
  Require(hybrid_zloop_reader(loop, pull, OnMessage, nullptr) == 0);
  zloop_start(loop);
  Require(received == sent);
  hybrid_zloop_reader_end(loop, pull);
  zloop_destroy(&loop);
  j_sock_destroy(&push);
  j_sock_destroy(&pull);
  std::filesystem::remove("/var/run/jactor/Jipc_" + name.substr(6));
}

struct Use {
  long kibibytes;
  long descriptors;
};

// What is in use, and nothing in the registry.
Use Measure() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  const std::filesystem::directory_iterator open("/proc/self/fd");
  const JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  Require(api.socks.empty() && api.actors.empty() && api.frames.empty() && api.msgs.empty() &&
          api.pollers.empty());
  return {pages * ::sysconf(_SC_PAGESIZE) / 1024, std::distance(begin(open), end(open))};
}

}  // namespace

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  Require(argc == 2);
  const std::chrono::duration<double> seconds(std::atof(argv[1]));
  const auto end = Clock::now() + seconds;
  jlog_set_level(1);              // the end of each actor is a line
  for (int i = 0; i < 50; ++i) {  // until every cache is as large as it gets
    Round();
  }
  const Use first = Measure();
  Use last = first;
  long most = first.kibibytes;
  while (Clock::now() < end) {
    Round();
    last = Measure();
    most = std::max(most, last.kibibytes);
    Require(last.descriptors == first.descriptors);
    Require(last.kibibytes < first.kibibytes + 16 * 1024);
  }
  std::printf(
      "soak: %.0f s, %lu messages, %zu MiB checked; resident memory %ld KiB at first, "
      "%ld at most, %ld at last; descriptors %ld and %ld\n",
      seconds.count(), received, bytes_received >> 20, first.kibibytes, most, last.kibibytes,
      first.descriptors, last.descriptors);
}
