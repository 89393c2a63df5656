// storm.h - child processes, for the storms.
#ifndef JACTOR_TESTS_STORM_H
#define JACTOR_TESTS_STORM_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace storm {

// Runs `body` in a child process. It exits with 1 if it has failed a test, and is killed if
// it hangs.
template <class Body>
pid_t Child(Body body) {
  constexpr unsigned kHangs = 50;  // seconds
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(kHangs);
    body();
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  return pid;
}

// Kills a child, if there is a signal to do so, and waits for it. Result: its exit code, or
// minus the signal that ended it.
inline int Outcome(pid_t pid, int signal = 0) {
  int status = 0;
  ::kill(pid, signal);
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace storm

#endif
