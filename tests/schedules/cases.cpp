// cases.cpp - the small cases whose orders of events are tried, and the program around
// them. Each looks for what the calls promise, and for what is left behind: see schedule.h.
#include <czmq.h>
#include <sys/personality.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "jactor_zloop.hpp"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "messages.h"
#include "schedule.h"

namespace {

using schedule::Demand;

void Send(void* to, const char* text) {
  JCXXMsg* msg = j_msg_new();
  Demand(j_msg_addstr(msg, text) == 0 && j_msg_send(&msg, to) == 0, "a message is not sent");
}

// The frames of a message, one behind the other; the message is gone then.
std::string Take(JCXXMsg* msg) {
  std::string all;
  while (char* text = j_msg_popstr(msg)) {
    all += text;
    std::free(text);
  }
  j_msg_destroy(&msg);
  return all;
}

// An actor's start and stop

void ReceivesToTheEnd(j_sock_t* sock, void* args) {
  Demand(j_sock_signal(sock, 0) == 0, "the signal is not sent");
  JCXXMsg* msg = nullptr;
  while ((msg = j_msg_recv(sock)) != nullptr) {
    *static_cast<std::string*>(args) += Take(msg);
    msg = j_msg_new();
    const bool sent = j_msg_addstr(msg, "answer") == 0 && j_msg_send(&msg, sock) == 0;
    Demand(sent || errno == EPIPE, "an answer fails for another reason than that nobody is there");
    j_msg_destroy(&msg);
  }
  Demand(errno == 0, "the stream ends with an error");
}

void ActorStartAndStop() {
  std::string got;
  JCXXActor* actor = j_actor_new(ReceivesToTheEnd, &got);
  Demand(actor != nullptr, "the actor does not start");
  Send(actor, "a");
  Send(actor, "b");
  j_actor_destroy(&actor);
  Demand(got == "ab", "a message is lost");
}

// Handles that come and go

// Where an object is made, and how far that is: 0 not there, 1 coming, 2 there, 3 going,
// 4 gone.
alignas(JCXXMsg) unsigned char place[sizeof(JCXXMsg)];
int state = 0;

// The last even state that somebody knows of: its maker, or who was given the answer.
int known = 0;

void ComesAndGoes() {
  const auto step = [](bool done) {
    ++state;
    known = done ? state : known;
    schedule::Pause();
  };
  step(false);
  auto* msg = new (place) JCXXMsg();
  step(true);
  step(false);
  msg->~JCXXMsg();
  step(true);
}

// Every answer has to be right for some state from the last one that was known before the
// question to the one that may be there behind it.
void AsksForIt() {
  JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  for (int i = 0; i < 2; ++i) {
    int told = known;
    const bool valid = api.JCXXMsgPtrIsValid(reinterpret_cast<JCXXMsg*>(place));
    told += (told % 4 == 2) == valid ? 0 : 2;
    Demand(told <= state + state % 2, "an answer is older than a known change");
    known = std::max(known, told);
    schedule::Pause();
  }
}

void HandleComesAndGoes() {
  std::thread first(AsksForIt);
  std::thread second(AsksForIt);
  ComesAndGoes();
  first.join();
  second.join();
}

// The first use

void FirstUse() {
  const auto uses = [] {
    JCXXMsg* msg = j_msg_new();
    Demand(msg != nullptr && j_msg_addstr(msg, "a") == 0, "a new handle is not good");
    Demand(Take(msg) == "a", "what was put into a message is not there");
  };
  std::thread first(uses);
  std::thread second(uses);
  first.join();
  second.join();
}

// The end of the process

JCXXActor* kept = nullptr;
std::string kept_got;

// Runs after the library's own exit handler, which is registered at its first use.
void CallsAtTheEnd() {
  Demand(j_actor_new(ReceivesToTheEnd, &kept_got) == nullptr && errno == ECANCELED,
         "an actor starts at the end");
  Send(kept, "end");
  j_actor_destroy(&kept);
  Demand(kept_got.ends_with("end"), "a message at the end is lost");
}

void ExitBesideBusyThread() {
  std::atexit(CallsAtTheEnd);
  kept = j_actor_new(ReceivesToTheEnd, &kept_got);
  const auto busy = [](void*) -> void* {
    for (int i = 0; i < 3; ++i) {
      JCXXMsg* msg = j_msg_new();
      Demand(j_msg_addstr(msg, "busy") == 0 && Take(msg) == "busy", "a call fails beside the end");
    }
    return nullptr;
  };
  pthread_t thread;
  Demand(::pthread_create(&thread, nullptr, busy, nullptr) == 0, "no thread");
  schedule::Exit();
}

// An endpoint that is made by two threads at once

// Opens an end; whoever finds that another was faster calls again.
JCXXSock* Opened(JCXXSock* (*open)(const char*), const std::string& name) {
  JCXXSock* sock = open(("ipc://" + name).c_str());
  return sock != nullptr || errno != EEXIST ? sock : open(("ipc://" + name).c_str());
}

void EndpointOpenedTwice() {
  const std::string name = "schedules-" + std::to_string(::getppid());
  const mode_t mask = ::umask(027);
  JCXXSock* pull = nullptr;
  std::thread other([&] { pull = Opened(j_pipe_new_pull, name); });
  JCXXSock* push = Opened(j_pipe_new_push, name);
  other.join();
  ::unlink(("/var/run/jactor/Jipc_" + name).c_str());
  Demand(pull != nullptr && push != nullptr, "an endpoint is not opened");
  Send(push, "a");
  Demand(Take(j_msg_recv(pull)) == "a", "the two ends are not of one endpoint");
  j_sock_destroy(&push);
  j_sock_destroy(&pull);
  Demand(::umask(mask) == 027, "the umask stays changed");
}

// A watch that ends in its handler

void SendsTwo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  Send(sock, "a");
  Send(sock, "b");
  Demand(j_msg_recv(sock) == nullptr && errno == 0, "the stream ends with an error");
}

void WatchEndsInItsHandler() {
  JCXXActor* actor = j_actor_new(SendsTwo, nullptr);
  const jactor::SockRef sock(j_actor_sock(actor));
  zloop_t* loop = zloop_new();
  std::string got;
  std::optional<jactor::Watch> watch;
  watch.emplace(jactor::watch(loop, sock, [&](jactor::Message message) {
    got += *message.pop_string();
    watch.reset();
    return -1;
  }));
  Demand(zloop_start(loop) == -1 && got == "a", "the watch does not end in its handler");
  Demand(Take(j_msg_recv(actor)) == "b", "the message behind the end of the watch is lost");
  zloop_destroy(&loop);
  j_actor_destroy(&actor);
}

void WatchesEndInTheirHandlers() {
  std::thread other(WatchEndsInItsHandler);
  WatchEndsInItsHandler();
  other.join();
}

// Objects that enter and leave together

// A message of three frames is received and destroyed beside a thread that does so with
// messages of its own, and with one frame of this one: memory goes from one to the other.
void FramesTogether() {
  const auto [a, b] = SockFromPipes::MakeSockPairFromPipes();
  const std::unique_ptr<JCXXSock> writer(a);
  const std::unique_ptr<JCXXSock> reader(b);
  JCXXMsg* msg = messages::BuildEqual(3, 8);
  Demand(j_msg_send(&msg, writer.get()) == 0, "the message is not sent");
  JCXXFrame* given = nullptr;
  std::thread other([&] {
    for (int i = 0; i < 2; ++i) {
      JCXXMsg* own = messages::BuildEqual(3, 8);
      if (JCXXFrame* frame = std::exchange(given, nullptr)) {
        Demand(j_frame_size(frame) == 8, "a frame that was given is not good");
        j_frame_destroy(&frame);
      }
      Demand(messages::TakeApartEqual(own, 1, 8), "a thread's own message is not good");
    }
  });
  msg = j_msg_recv(reader.get());
  given = j_msg_pop(msg);
  Demand(messages::TakeApartEqual(msg, 1, 8), "a received message is not good");
  other.join();
  Demand(given == nullptr || j_frame_size(given) == 8, "a popped frame is not good");
  if (given != nullptr) {
    j_frame_destroy(&given);
  }
}

// Cases that are wrong

void CountsUnlocked() {
  std::mutex mutex;
  int count = 0;
  const auto counts = [&] {
    std::unique_lock<std::mutex> lock(mutex);
    const int seen = count;
    lock.unlock();
    lock.lock();
    count = seen + 1;
  };
  std::thread other(counts);
  counts();
  other.join();
  Demand(count == 2, "a count is lost");
}

constexpr schedule::Case kCases[] = {
    {"actor", "an actor starts, gets two messages, answers, and stops", ActorStartAndStop, 2},
    {"handle", "two threads ask for a handle that comes and goes", HandleComesAndGoes, 2},
    {"first-use", "two threads use the library first", FirstUse, 2},
    {"exit", "the process ends beside a busy thread", ExitBesideBusyThread, 1},
    {"endpoint", "two threads open the two ends of a new endpoint", EndpointOpenedTwice, 2},
    {"watch", "a watch ends in its handler", WatchEndsInItsHandler, 2},
    {"watches", "two watches in two loops do so", WatchesEndInTheirHandlers, 0},
    {"together", "frames enter and leave together in two threads", FramesTogether, 2},
    {"wrong-count", "a count is read and written under two locks", CountsUnlocked, 1,
     schedule::Mistake::kNone, true},
    {"wrong-once", "the first use happens twice", FirstUse, 2, schedule::Mistake::kOnceTwice, true},
    {"wrong-close", "an actor's end is not closed", ActorStartAndStop, 0,
     schedule::Mistake::kCloseKeeps, true},
};

// What a case has had, and whether that is as it must be.
struct Tally {
  std::size_t schedules = 0;
  std::optional<schedule::Plan> failing;
};

bool Tell(const schedule::Case& of, const Tally& tally, const char* how) {
  const bool good = tally.failing.has_value() == of.wrong;
  std::printf("%-12s %8zu schedules %-8s %s%s\n", of.name, tally.schedules, how,
              good ? "ok" : "FAILED", good && of.wrong ? ", the mistake is found" : "");
  if (tally.failing && !of.wrong) {
    std::printf("  %s\n  scripts/schedules --replay %s %s\n",
                schedule::Run(of, *tally.failing).fault.c_str(), of.name,
                schedule::Text(*tally.failing).c_str());
  }
  return good;
}

void RunSeed(const schedule::Case& of, std::uint64_t seed, Tally& tally) {
  schedule::Plan plan;
  plan.seed = seed;
  ++tally.schedules;
  if (!schedule::Run(of, plan).fault.empty()) {
    tally.failing = plan;
  }
}

// Every order up to the case's bound and `more` preemptions, then 200 seeds.
bool RunBriefly(const schedule::Case& of, unsigned more) {
  constexpr std::uint64_t kSeeds = 200;
  Tally all;
  all.schedules = schedule::RunAll(of, of.bound + more, all.failing);
  Tally some;
  for (std::uint64_t seed = 1; seed <= kSeeds && !some.failing; ++seed) {
    RunSeed(of, seed, some);
  }
  const std::string bounded = "up to " + std::to_string(of.bound + more);
  const bool all_good = Tell(of, all, bounded.c_str());
  return Tell(of, some, "by seed") && all_good;
}

// Seeds that were not tried before, of all cases in turn.
bool RunFor(std::chrono::duration<double> time) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + time;
  std::vector<Tally> tallies(std::size(kCases));
  std::uint64_t seed = std::uint64_t{std::random_device()()} << 24;
  while (Clock::now() < end) {
    ++seed;
    for (std::size_t i = 0; i < tallies.size(); ++i) {
      if (!tallies[i].failing) {
        RunSeed(kCases[i], seed, tallies[i]);
      }
    }
  }
  bool good = true;
  for (std::size_t i = 0; i < tallies.size(); ++i) {
    good = Tell(kCases[i], tallies[i], "by seed") && good;
  }
  return good;
}

bool Replay(const schedule::Case& of, const schedule::Plan& plan) {
  const std::string fault = schedule::Run(of, plan, true).fault;
  std::printf("%s %s: %s\n", of.name, schedule::Text(plan).c_str(),
              fault.empty() ? "passed" : fault.c_str());
  return fault.empty();
}

const schedule::Case* Find(std::string_view name) {
  for (const schedule::Case& each : kCases) {
    if (name == each.name) {
      return &each;
    }
  }
  return nullptr;
}

int Usage() {
  for (const schedule::Case& each : kCases) {
    std::fprintf(stderr, "%-12s %s\n", each.name, each.is);
  }
  std::fputs(
      "usage: jactor_schedules --brief CASE [MORE]   every order, MORE preemptions; 200 seeds\n"
      "       jactor_schedules --seconds N           seeds\n"
      "       jactor_schedules --replay CASE PLAN    a seed, or the turns of an order\n",
      stderr);
  return 2;
}

// Has the program start again with the same addresses in every run, where that is allowed.
void FixAddresses(char** argv) {
  const int personality = ::personality(0xFFFFFFFF);
  if ((personality & ADDR_NO_RANDOMIZE) == 0 &&
      ::personality(static_cast<unsigned long>(personality) | ADDR_NO_RANDOMIZE) != -1) {
    ::execv("/proc/self/exe", argv);
  }
}

}  // namespace

int main(int argc, char** argv) {
  FixAddresses(argv);
  const std::vector<std::string> words(argv + 1, argv + argc);
  const std::string how = words.empty() ? "" : words[0];
  if (how == "--seconds" && words.size() == 2) {
    return RunFor(std::chrono::duration<double>(std::atof(words[1].c_str()))) ? 0 : 1;
  }
  const schedule::Case* of = words.size() > 1 ? Find(words[1]) : nullptr;
  if (how == "--brief" && of != nullptr) {
    return RunBriefly(*of,
                      words.size() > 2 ? static_cast<unsigned>(std::atoi(words[2].c_str())) : 0U)
               ? 0
               : 1;
  }
  const auto plan = words.size() == 3 ? schedule::Read(words[2]) : std::nullopt;
  if (how == "--replay" && of != nullptr && plan) {
    return Replay(*of, *plan) ? 0 : 1;
  }
  return Usage();
}
