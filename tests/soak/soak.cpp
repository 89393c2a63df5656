// soak.cpp - usage: soak SECONDS. Actors, endpoints and an event loop with messages of
// random sizes, every byte and every order checked, while memory, descriptors and the
// registry must stay flat.
#include <czmq.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "jcxxactorapi.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jlog.h"
#include "messages.h"

namespace {

// Ends the program when a condition of some line does not hold.
void Require(bool holds, int line = __builtin_LINE()) {
  if (!holds) {
    std::fprintf(stderr, "%s:%d: the condition does not hold\n", __FILE__, line);
    std::abort();
  }
}

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

// Destroys the message, which must be the one of that number.
void Check(JCXXMsg* msg, std::uint64_t number, std::size_t most, std::size_t& bytes) {
  JCXXMsg* wanted = Make(number, most);
  const auto data = [](const JCXXFrame* frame) -> const auto& { return frame->data; };
  Require(msg != nullptr &&
          std::ranges::equal(msg->GetFrameList(), wanted->GetFrameList(), {}, data, data));
  bytes += msg->GetSize();
  j_msg_destroy(&wanted);
  j_msg_destroy(&msg);
}

constexpr std::size_t kMost = 200000;     // bytes in a frame
constexpr std::size_t kMostQueued = 500;  // where ten messages wait in a pipe

void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (JCXXMsg* msg = j_msg_recv(sock)) {
    if (j_msg_send(&msg, sock) != 0) {
      j_msg_destroy(&msg);
    }
  }
}

struct Watched {
  std::uint64_t expected;
  std::uint64_t end;
  std::size_t bytes;
};

int OnMessage(zloop_t*, j_sock_t* sock, void* arg) {
  auto& watched = *static_cast<Watched*>(arg);
  do {
    Check(j_msg_recv(sock), watched.expected++, kMostQueued, watched.bytes);
  } while (watched.expected < watched.end && j_sock_buffered(sock) > 0);
  return watched.expected == watched.end ? -1 : 0;
}

// One round: a new actor and a new endpoint, some messages through both, the
// endpoint's received in an event loop.
void Round(std::uint64_t& number, std::size_t& bytes) {
  static const std::string name = "ipc://soak-" + std::to_string(::getpid());
  JCXXActor* actor = j_actor_new(Echo, nullptr);
  for (int i = 0; i < 50; ++i, ++number) {
    JCXXMsg* msg = Make(number, kMost);
    Require(j_msg_send(&msg, actor) == 0);
    Check(j_msg_recv(actor), number, kMost, bytes);
  }
  j_actor_destroy(&actor);
  JCXXSock* push = j_pipe_new_push(name.c_str());
  JCXXSock* pull = j_pipe_new_pull(name.c_str());
  Watched watched = {number, number + 10, 0};
  for (; number < watched.end; ++number) {
    JCXXMsg* msg = Make(number, kMostQueued);
    Require(j_msg_send(&msg, push) == 0);
  }
  zloop_t* loop = zloop_new();
  Require(hybrid_zloop_reader(loop, pull, OnMessage, &watched) == 0);
  zloop_start(loop);
  Require(watched.expected == watched.end);
  hybrid_zloop_reader_end(loop, pull);
  zloop_destroy(&loop);
  j_sock_destroy(&push);
  j_sock_destroy(&pull);
  ::unlink(("/var/run/jactor/Jipc_" + name.substr(6)).c_str());
  bytes += watched.bytes;
}

struct Use {
  long kibibytes;
  long descriptors;
  std::size_t objects;
};

Use Measure() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  const std::filesystem::directory_iterator open("/proc/self/fd");
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  return {pages * ::sysconf(_SC_PAGESIZE) / 1024, std::distance(begin(open), end(open)),
          api->socks.size() + api->actors.size() + api->frames.size() + api->msgs.size() +
              api->pollers.size()};
}

}  // namespace

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  const double seconds = argc == 2 ? std::atof(argv[1]) : 0;
  Require(seconds > 0);
  jlog_set_level(1);  // the end of each actor is a line
  const auto elapsed = [start = Clock::now()] {
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  std::uint64_t number = 0;
  std::size_t bytes = 0;
  for (int i = 0; i < 50; ++i) {  // until every cache is as large as it gets
    Round(number, bytes);
  }
  const Use first = Measure();
  double told = 0;
  long most = first.kibibytes;
  while (elapsed() < seconds) {
    Round(number, bytes);
    const Use now = Measure();
    most = std::max(most, now.kibibytes);
    Require(now.descriptors == first.descriptors && now.objects == 0);
    Require(now.kibibytes < first.kibibytes + 16 * 1024);
    if (elapsed() > told + 1) {
      told = elapsed();
      std::fprintf(stderr, "\r%.0f s: %lu messages, %zu MiB, %ld KiB resident, %ld descriptors ",
                   told, number, bytes >> 20, now.kibibytes, now.descriptors);
    }
  }
  const Use last = Measure();
  std::printf(
      "\nsoak: %.0f s, %lu messages, %zu MiB checked; resident memory %ld KiB at first, "
      "%ld at most, %ld at last; descriptors %ld and %ld; registered objects %zu and %zu\n",
      elapsed(), number, bytes >> 20, first.kibibytes, most, last.kibibytes, first.descriptors,
      last.descriptors, first.objects, last.objects);
}
