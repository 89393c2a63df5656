// prefix.h - what the environment variable JLOG_PREFIX puts before each line.
#ifndef JLOG_PREFIX_H
#define JLOG_PREFIX_H

#include <cstddef>

constexpr std::size_t kLongestPrefix = 128;

// Writes the prefix of a line that this thread logs now, with a blank at its end.
// Result: its length, below kLongestPrefix; 0 when none is wanted.
std::size_t WritePrefix(char* text, int level);

#endif
