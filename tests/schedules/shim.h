// shim.h - what runs a case's threads, and what the processes of a schedule share.
#ifndef JACTOR_TESTS_SHIM_H
#define JACTOR_TESTS_SHIM_H

#include <cstddef>
#include <string>

#include "schedule.h"

namespace schedule {

constexpr std::size_t kThreads = 8;
constexpr std::size_t kChoices = 8192;  // of one schedule; more are no end

// What a schedule's process leaves to its parent.
struct Shared {
  bool ended;  // in order
  bool exits;
  char fault[512];
  std::size_t count;
  Choice choices[kChoices];
};
Shared& TheShared();

// Ends this process, and its schedule has failed.
[[noreturn]] void Fail(const std::string& what);

// Runs the body as thread 0, and what it starts; returns when all of them have ended.
void RunThreads(const Case& of, const Plan& plan, bool aloud);

}  // namespace schedule

#endif
