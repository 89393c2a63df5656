// cases.cpp - the small cases whose orders of events are tried; see schedule.h.
#include <czmq.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>

#include "jactor_zloop.hpp"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "schedule.h"

namespace schedule {

namespace {

void Send(void* to, const char* text) {
  JCXXMsg* msg = j_msg_new();
  Demand(j_msg_addstr(msg, text) == 0 && j_msg_send(&msg, to) == 0, "a message is not sent");
}

// The frames of a message, one after the other. Destroys the message.
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
    Pause();
  };
  step(false);
  auto* msg = new (place) JCXXMsg();
  step(true);
  step(false);
  msg->~JCXXMsg();
  step(true);
}

// Every answer must be right for some state between the last one that was known before the
// question and the one that may have been reached after it.
void AsksForIt() {
  JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  for (int i = 0; i < 2; ++i) {
    int told = known;
    const bool valid = api.JCXXMsgPtrIsValid(reinterpret_cast<JCXXMsg*>(place));
    told += (told % 4 == 2) == valid ? 0 : 2;
    Demand(told <= state + state % 2, "an answer is older than a known change");
    known = std::max(known, told);
    Pause();
  }
}

void HandleComesAndGoes() {
  const std::jthread first(AsksForIt);
  const std::jthread second(AsksForIt);
  ComesAndGoes();
}

// The first use

void UseAMessage() {
  JCXXMsg* msg = j_msg_new();
  Demand(msg != nullptr && j_msg_addstr(msg, "a") == 0, "a new handle is not good");
  Demand(Take(msg) == "a", "what was put into a message is not there");
}

void FirstUse() {
  const std::jthread other(UseAMessage);
  UseAMessage();
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
  new std::thread([] {
    for (int i = 0; i < 3; ++i) {
      UseAMessage();
    }
  });
  std::exit(0);
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

// Cases that are wrong on purpose

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

void KeepsAnActorsEnd() {
  std::string got;
  JCXXActor* actor = j_actor_new(ReceivesToTheEnd, &got);
  int end = -1;
  j_actor_sock(actor)->GetWriteFD(end);
  ::dup(end);
  j_actor_destroy(&actor);
}

constexpr Case kCases[] = {
    {"actor", ActorStartAndStop, 2},
    {"handle", HandleComesAndGoes, 2},
    {"first-use", FirstUse, 3},
    {"exit", ExitBesideBusyThread, 1},
    {"watch", WatchEndsInItsHandler, 2},
    {"wrong-count", CountsUnlocked, 1, true},
    {"wrong-close", KeepsAnActorsEnd, 0, true},
};

}  // namespace

const std::span<const Case> cases = kCases;

}  // namespace schedule
