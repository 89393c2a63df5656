// storm.h - child processes, for the storms.
#ifndef JACTOR_TESTS_STORM_H
#define JACTOR_TESTS_STORM_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace storm {

// Runs `body` in a child process, which ends with 1 when it has failed a test, and is
// killed when it hangs.
template <class Body>
pid_t Child(Body body) {
  constexpr unsigned kHangs = 50;  // seconds
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(kHangs);
    body();
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  return pid;
}

// How a child ends, killed or not: its exit code, or minus its signal.
inline int Outcome(pid_t pid, int signal = 0) {
  int status = 0;
  ::kill(pid, signal);
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace storm

#endif
