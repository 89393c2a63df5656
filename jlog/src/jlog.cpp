// jlog.cpp - the stand-in for the platform's log library.
//
// The threshold is read from the environment once, when the library is loaded.
#include "jlog.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

constexpr int kDefaultLevel = 2;
constexpr std::size_t kUsualLine = 1024;

int LevelFromEnvironment() {
  const char* text = std::getenv("JLOG_LEVEL");
  if (text == nullptr || *text == '\0') {
    return kDefaultLevel;
  }
  char* end = nullptr;
  errno = 0;
  const long level = std::strtol(text, &end, 10);
  if (*end != '\0' || errno != 0 || level < 0 || level > 9) {
    std::fprintf(stderr, "jlog: JLOG_LEVEL is \"%s\", not a number from 0 to 9: using %d\n", text,
                 kDefaultLevel);
    return kDefaultLevel;
  }
  return static_cast<int>(level);
}

std::atomic<int> threshold{LevelFromEnvironment()};

void WriteLine(const char* line, std::size_t length) {
  while (::write(STDERR_FILENO, line, length) < 0 && errno == EINTR) {
  }
}

// Apart from jlog_printf, so that a rejected line pays for none of it.
[[gnu::noinline]] void WriteFormatted(const char* format, va_list arguments) {
  char usual[kUsualLine];
  va_list again;
  va_copy(again, arguments);
  const int needed = std::vsnprintf(usual, sizeof usual, format, arguments);
  const auto length = static_cast<std::size_t>(needed);
  if (needed >= 0 && length < sizeof usual) {
    WriteLine(usual, length);
  } else if (needed >= 0) {
    const std::unique_ptr<char[]> longer(new (std::nothrow) char[length + 1]);
    if (longer != nullptr) {
      std::vsnprintf(longer.get(), length + 1, format, again);
      WriteLine(longer.get(), length);
    }
  }
  va_end(again);
}

}  // namespace

void jlog_printf(int level, int /*module*/, const char* format, ...) {
  if (level > threshold.load(std::memory_order_relaxed)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  WriteFormatted(format, arguments);
  va_end(arguments);
}

void jlog_set_level(int level) { threshold.store(level, std::memory_order_relaxed); }
