// schedule.h - running a small case with one thread at a time, in an order that a plan
// says.
//
// A program that links shim.cpp replaces the locks, the system calls and the thread
// calls of libc. In a case each thread stops at every one of them, before it and after
// it, and the plan says which thread goes on. A thread that would wait there is not
// asked: the one that finds a held lock, an empty or full pipe, or a thread that has not
// ended. What lies between two stops runs alone, so that a case may look at plain
// variables.
//
// Every schedule has a process of its own, a fork of one that has not used the library:
// the same plan gives the same schedule. A write must fit into PIPE_BUF.
#ifndef JACTOR_TESTS_SCHEDULE_H
#define JACTOR_TESTS_SCHEDULE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace schedule {

constexpr unsigned kThreads = 8;  // of a case, at most

struct Case {
  const char* name;
  void (*body)();      // ends when the threads that it has started have ended, or exits with 0
  unsigned bound;      // so many preemptions in the tests, in every order
  bool wrong = false;  // a schedule that fails must be found
};
extern const std::span<const Case> cases;

// For a case's body. A demand that is not met ends the process, and the schedule fails.
void Demand(bool met, const char* what);
[[noreturn]] void Fail(const std::string& what);
void Pause();  // one more stop

// A stop where several threads can go on.
struct Choice {
  std::uint8_t able;    // a bit a thread
  std::uint8_t came;    // the thread that has come there
  std::uint8_t chosen;  // the thread that goes on

  bool Allows(unsigned thread) const { return (able >> thread & 1) != 0; }
};

// The schedule under way: what its process shares with the one that has started it. The
// first choices are planned; the others are the usual ones, or random if there is a seed.
struct Schedule {
  std::uint64_t seed;  // 0 for none
  std::size_t planned;
  std::size_t count;  // of the choices so far
  Choice choices[8192];
  char fault[512];
  bool aloud;  // its stops are printed
};
extern Schedule& current;

// Usually the thread that has come there goes on, or the first that can.
std::uint8_t Usual(const Choice& choice);

// Runs the body as the first of the case's threads.
void RunThreads(void (*body)());

}  // namespace schedule

#endif
