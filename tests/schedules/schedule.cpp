// schedule.cpp - a process for each schedule, the search through the plans, and the
// program around it.
#include "schedule.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string_view>

#include "jcxxactorapi.h"

namespace schedule {

Schedule& current = *static_cast<Schedule*>(
    ::mmap(nullptr, sizeof(Schedule), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

void Fail(const std::string& what) {
  std::snprintf(current.fault, sizeof current.fault, "%s", what.c_str());
  ::_exit(1);
}

void Demand(bool met, const char* what) {
  if (!met) {
    Fail(what);
  }
}

std::uint8_t Usual(const Choice& choice) {
  return choice.Allows(choice.came) ? choice.came
                                    : static_cast<std::uint8_t>(std::countr_zero(choice.able));
}

namespace {

constexpr unsigned kHangs = 60;  // seconds, for a wait that is not one of the stops

std::size_t OpenDescriptors() {
  std::size_t open = 0;
  for (int fd = 0; fd < 256; ++fd) {
    open += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return open;
}

[[noreturn]] void RunHere(const Case& of) {
  ::alarm(kHangs);
  std::signal(SIGPIPE, SIG_IGN);
  const std::size_t open = OpenDescriptors();
  RunThreads(of.body);
  const JCXXActorAPI& api = *JCXXActorAPI::GetInstance();
  Demand(api.socks.empty() && api.actors.empty() && api.frames.empty() && api.msgs.empty() &&
             api.pollers.empty(),
         "an object is left in the registry");
  Demand(OpenDescriptors() == open, "a descriptor is left");
  ::_exit(0);
}

// Runs the schedule. This process allocates nothing between two of them, so that every
// child starts with the same heap.
bool Passes(const Case& of) {
  current.count = 0;
  current.fault[0] = '\0';
  const pid_t child = ::fork();
  if (child == 0) {
    RunHere(of);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (status != 0 && current.fault[0] == '\0') {
    std::snprintf(current.fault, sizeof current.fault, "the process ends: %s",
                  WIFSIGNALED(status) ? ::strsignal(WTERMSIG(status)) : "it exits");
  }
  return status == 0;
}

// Plans the next order with up to `bound` preemptions, by changing the last choice that
// can be changed. Result: whether there is one.
bool PlanNext(unsigned bound) {
  const auto preempts = [](const Choice& c) { return c.Allows(c.came) && c.chosen != c.came; };
  for (current.planned = current.count; current.planned > 0; --current.planned) {
    Choice& choice = current.choices[current.planned - 1];
    const auto preemptions = std::count_if(current.choices, &choice, preempts);
    if (preemptions + choice.Allows(choice.came) > bound) {
      continue;
    }
    const std::uint8_t usual = Usual(choice);  // was tried first
    choice.chosen = choice.chosen == usual ? 0 : choice.chosen + 1;
    while (choice.chosen < kThreads && (choice.chosen == usual || !choice.Allows(choice.chosen))) {
      ++choice.chosen;
    }
    if (choice.chosen < kThreads) {
      return true;
    }
  }
  return false;
}

// A plan in words is a seed, or "t" and the thread that goes on at each choice.
void PrintPlan() {
  if (current.seed != 0) {
    std::printf("%llu", static_cast<unsigned long long>(current.seed));
  } else {
    std::putchar('t');
    std::for_each_n(current.choices, current.planned,
                    [](const Choice& choice) { std::putchar('0' + choice.chosen); });
  }
}

void ReadPlan(std::string_view words) {
  current.seed = std::strtoull(words.data(), nullptr, 10);
  current.planned = 0;
  if (words.starts_with('t')) {
    for (const char digit : words.substr(1)) {
      current.choices[current.planned++].chosen = static_cast<std::uint8_t>(digit - '0');
    }
  }
}

// Runs the schedules that `plan` makes, given the number of those before, until it has no
// more or one fails, and prints the outcome. Result: whether that is the right one. What
// fails must fail again.
template <class MakePlan>
bool Search(const Case& of, const char* how, MakePlan plan) {
  std::size_t schedules = 0;
  bool passed = true;
  for (current.seed = current.planned = 0; passed && plan(schedules); ++schedules) {
    passed = Passes(of);
  }
  const bool good = passed != of.wrong && (passed || !Passes(of));
  std::printf("%-12s %8zu schedules %-8s %s\n", of.name, schedules, how, good ? "ok" : "FAILED");
  if (!passed) {
    std::printf("  %s\n  scripts/schedules --replay %s ", current.fault, of.name);
    PrintPlan();
    std::putchar('\n');
  }
  return good;
}

// Every order up to the case's bound, then some seeds.
bool RunBriefly(const Case& of) {
  constexpr std::size_t kSeeds = 200;
  const bool good =
      Search(of, "in order", [&](std::size_t number) { return number == 0 || PlanNext(of.bound); });
  return Search(of, "by seed",
                [](std::size_t number) {
                  current.seed = number + 1;
                  return number < kSeeds;
                }) &&
         good;
}

// Seeds that were not tried before, for the same time in each case.
bool RunFor(std::chrono::duration<double> seconds) {
  using Clock = std::chrono::steady_clock;
  const std::uint64_t first = std::uint64_t{std::random_device()()} << 24;
  bool good = true;
  for (const Case& of : cases) {
    const auto end = Clock::now() + seconds / cases.size();
    good = Search(of, "by seed",
                  [&](std::size_t number) {
                    current.seed = first + number;
                    return Clock::now() < end;
                  }) &&
           good;
  }
  return good;
}

bool Replay(const Case& of, const char* plan) {
  ReadPlan(plan);
  current.aloud = true;
  const bool passed = Passes(of);
  std::printf("%s %s: %s\n", of.name, plan, passed ? "passed" : current.fault);
  return passed;
}

// Starts the program again with the same addresses in every run, where that is allowed.
void FixAddresses(char** argv) {
  const int personality = ::personality(0xFFFFFFFF);
  if ((personality & ADDR_NO_RANDOMIZE) == 0 &&
      ::personality(static_cast<unsigned long>(personality) | ADDR_NO_RANDOMIZE) != -1) {
    ::execv("/proc/self/exe", argv);
  }
}

}  // namespace

}  // namespace schedule

int main(int argc, char** argv) {
  using namespace schedule;
  FixAddresses(argv);
  std::setbuf(stdout, nullptr);  // a child must not write again what waits there
  const std::string_view how = argc > 1 ? argv[1] : "";
  const auto of = std::find_if(cases.begin(), cases.end(), [=](const Case& each) {
    return argc > 2 && std::string_view(each.name) == argv[2];
  });
  bool good = false;
  if (how == "--seconds" && argc == 3) {
    good = RunFor(std::chrono::duration<double>(std::atof(argv[2])));
  } else if (how == "--brief" && argc == 3 && of != cases.end()) {
    good = RunBriefly(*of);
  } else if (how == "--replay" && argc == 4 && of != cases.end()) {
    good = Replay(*of, argv[3]);
  } else {
    std::puts("usage: jactor_schedules --seconds N | --brief CASE | --replay CASE PLAN");
  }
  return good ? 0 : 1;
}
