// schedule.h - running a small case with one thread at a time, in an order that a plan
// gives.
//
// A program that links shim.cpp replaces the locks, the thread calls and some system
// calls of libc. In a case each thread stops before and after every one of them, and the
// plan says which thread goes on. A thread that would have to wait is not chosen: one that
// finds a held lock, an empty or full pipe, or a thread that has not ended. The code
// between two stops runs alone, so that a case may look at plain variables.
//
// Every schedule has a process of its own, forked from one that has not used the library,
// so that the same plan gives the same schedule. A write must fit into PIPE_BUF.
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
  void (*body)();      // returns when the threads that it started have ended, or exits with 0
  unsigned bound;      // the tests try every order with up to this many preemptions
  bool wrong = false;  // some schedule must fail
};
extern const std::span<const Case> cases;

// For a case's body. A demand that is not met ends the process, and the schedule has
// failed.
void Demand(bool met, const char* what);
[[noreturn]] void Fail(const std::string& what);
void Pause();  // one more stop

// A stop at which several threads can go on.
struct Choice {
  std::uint8_t able;    // a bit a thread
  std::uint8_t came;    // the thread that has come to the stop
  std::uint8_t chosen;  // the thread that goes on

  bool Allows(unsigned thread) const { return (able >> thread & 1) != 0; }
};

// The schedule under way, which its process shares with the one that started it. The first
// choices are planned; the others are the usual ones, or random if there is a seed.
struct Schedule {
  std::uint64_t seed;  // 0 for none
  std::size_t planned;
  std::size_t count;  // of the choices so far
  Choice choices[8192];
  char fault[512];
  bool aloud;  // its stops are printed
};
extern Schedule& current;

// Usually the thread that has come to the stop goes on, or the first that can.
std::uint8_t Usual(const Choice& choice);

// Runs the body as the first of the case's threads.
void RunThreads(void (*body)());

}  // namespace schedule

#endif
