// require.h - a check that every build makes, for programs without a test framework: the
// process aborts where it fails.
#ifndef JACTOR_TESTS_REQUIRE_H
#define JACTOR_TESTS_REQUIRE_H

#include <cstdio>
#include <cstdlib>

inline void Require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (!holds) {
    std::fprintf(stderr, "%s:%d: the condition does not hold\n", file, line);
    std::abort();
  }
}

#endif
