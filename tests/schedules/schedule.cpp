// schedule.cpp - plans, and the processes that run one each.
#include "schedule.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "jcxxactorapi.h"
#include "shim.h"

namespace schedule {

namespace {

constexpr unsigned kHangs = 60;  // seconds: a wait that is none of the stops

}  // namespace

Shared& TheShared() {
  static auto* shared = static_cast<Shared*>(
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *shared;
}

// Plans

std::string Text(const Plan& of) {
  if (of.seed != 0) {
    return std::to_string(of.seed);
  }
  std::string text = "at";
  for (std::size_t i = 0; i < of.count; ++i) {
    text += ":" + std::to_string(of.turns[i].choice) + "=" + std::to_string(of.turns[i].thread);
  }
  return text;
}

std::optional<Plan> Read(const std::string& text) {
  Plan read;
  if (std::sscanf(text.c_str(), "%" SCNu64, &read.seed) == 1 && read.seed != 0) {
    return text == Text(read) ? std::optional(read) : std::nullopt;
  }
  std::istringstream turns(text);
  std::string word;
  for (std::getline(turns, word, ':'); std::getline(turns, word, ':'); ++read.count) {
    Turn& turn = read.turns[read.count];
    if (read.count + 1U == read.turns.size() ||
        std::sscanf(word.c_str(), "%" SCNu16 "=%" SCNu8, &turn.choice, &turn.thread) != 2) {
      return std::nullopt;
    }
  }
  return text == Text(read) ? std::optional(read) : std::nullopt;
}

// In the process of one schedule

void Fail(const std::string& what) {
  Shared& shared = TheShared();
  std::snprintf(shared.fault, sizeof shared.fault, "%s", what.c_str());
  std::fflush(stdout);
  ::_exit(1);
}

void Demand(bool met, const char* what) {
  if (!met) {
    Fail(what);
  }
}

void Exit() {
  TheShared().exits = true;
  std::exit(0);
}

namespace {

std::size_t OpenDescriptors() {
  std::size_t open = 0;
  for (int fd = 0; fd < 256; ++fd) {
    open += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return open;
}

[[noreturn]] void RunHere(const Case& of, const Plan& plan, bool aloud) {
  ::alarm(kHangs);
  std::signal(SIGPIPE, SIG_IGN);
  const std::size_t open = OpenDescriptors();
  RunThreads(of, plan, aloud);
  const JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  Demand(api.socks.size() + api.actors.size() + api.frames.size() + api.msgs.size() +
                 api.pollers.size() ==
             0,
         "an object is left in the registry");
  Demand(of.mistake != Mistake::kNone || OpenDescriptors() == open, "a descriptor is left");
  TheShared().ended = true;
  ::_exit(0);
}

std::string FaultOf(int status) {
  const Shared& shared = TheShared();
  if (shared.fault[0] != '\0') {
    return shared.fault;
  }
  if (WIFSIGNALED(status)) {
    return std::string("signal: ") + ::strsignal(WTERMSIG(status));
  }
  const bool passed = WEXITSTATUS(status) == 0 && (shared.ended || shared.exits);
  return passed ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

// The plans that follow from one that has run: each has one turn more, behind the last.
void AddFollowing(const Plan& after, const Outcome& outcome, unsigned bound,
                  std::vector<Plan>& waiting) {
  std::size_t i = after.count == 0 ? 0 : after.turns[after.count - 1].choice + 1;
  for (; i < outcome.count && after.count < after.turns.size(); ++i) {
    const Choice& choice = outcome.choices[i];
    Plan following = after;
    following.preemptions += choice.able >> choice.came & 1;
    for (std::uint8_t thread = 0; thread < kThreads && following.preemptions <= bound; ++thread) {
      if ((choice.able >> thread & 1) != 0 && thread != choice.chosen) {
        following.turns[after.count] = {static_cast<std::uint16_t>(i), thread};
        following.count = after.count + 1;
        waiting.push_back(following);
      }
    }
  }
}

}  // namespace

Outcome Run(const Case& of, const Plan& plan, bool aloud) {
  Shared& shared = TheShared();
  shared.ended = shared.exits = false;
  shared.fault[0] = '\0';
  shared.count = 0;
  std::fflush(stdout);
  const pid_t child = ::fork();
  if (child == 0) {
    RunHere(of, plan, aloud);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return {FaultOf(status), shared.choices, shared.count};
}

// The plans wait in memory that is there from the beginning: every child finds its heap
// and its address space as the others did.
std::size_t RunAll(const Case& of, unsigned bound, std::optional<Plan>& failing) {
  constexpr std::size_t kWaiting = 1 << 20;
  static auto& waiting = *new std::vector<Plan>;  // a child that exits leaves it alone
  waiting.reserve(kWaiting);
  waiting.assign(1, Plan());
  std::size_t count = 0;
  while (!waiting.empty()) {
    const Plan next = waiting.back();
    waiting.pop_back();
    const Outcome outcome = Run(of, next);
    ++count;
    if (!outcome.fault.empty()) {
      failing = next;
      break;
    }
    AddFollowing(next, outcome, bound, waiting);
  }
  return count;
}

}  // namespace schedule
