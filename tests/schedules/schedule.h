// schedule.h - running a small case with one thread at a time, in an order that a plan
// says.
//
// A program that links shim.cpp replaces the locks, the system calls and the thread
// calls of libc. In a case each thread stops at every one of them, before it and after
// it, and the plan says which thread goes on. A thread that would wait there is not
// asked: the one that finds a held lock, an empty or full pipe, or a thread that has not
// ended. Time passes only when nobody else can go on. What lies between two stops runs
// alone, so that a case may look at plain variables.
//
// Every schedule has a process of its own, a fork of one that has not used the library:
// the same plan gives the same schedule. A write must fit into PIPE_BUF.
#ifndef JACTOR_TESTS_SCHEDULE_H
#define JACTOR_TESTS_SCHEDULE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace schedule {

// At a choice, which is a stop where several threads can go on, the thread that has come
// there goes on, or the first that can. A plan says where it is otherwise: at random, by
// a seed that is not 0; or at these choices.
struct Turn {
  std::uint16_t choice;
  std::uint8_t thread;
};
struct Plan {
  std::uint64_t seed = 0;
  std::array<Turn, 31> turns = {};
  std::uint8_t count = 0;
  std::uint8_t preemptions = 0;  // turns that take it from a thread that could go on
};
std::string Text(const Plan& plan);
std::optional<Plan> Read(const std::string& text);

// What the replaced calls do wrong, to show that it is found.
enum class Mistake { kNone, kOnceTwice, kCloseKeeps };

struct Case {
  const char* name;
  const char* is;  // what happens in it
  void (*body)();  // ends when its threads have ended, or in Exit()
  unsigned bound;  // so many preemptions in the tests, in every order
  Mistake mistake = Mistake::kNone;
  bool wrong = false;  // a schedule that fails must be found
};

// For a case's body. A demand that is not met ends the process, and the schedule fails.
void Demand(bool met, const char* what);
void Pause();              // one more stop
[[noreturn]] void Exit();  // std::exit(0): the schedule passes if that ends in order

// What a run leaves behind, valid until the next one. `fault` is empty if it passed.
struct Choice {
  std::uint8_t able;  // a bit a thread
  std::uint8_t came;  // the thread that has come there
  std::uint8_t chosen;
};
struct Outcome {
  std::string fault;
  const Choice* choices;
  std::size_t count;
};

// Runs one schedule; `aloud` prints its stops to standard output.
Outcome Run(const Case& of, const Plan& plan, bool aloud = false);

// Runs every order with up to `bound` preemptions. Result: how many there were; `failing`
// is the first plan that failed, if one did, and the last that was run.
std::size_t RunAll(const Case& of, unsigned bound, std::optional<Plan>& failing);

}  // namespace schedule

#endif
