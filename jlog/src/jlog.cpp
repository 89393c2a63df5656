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
#include <cstring>
#include <memory>
#include <new>

#include "prefix.h"
#include "sink.h"

namespace {

constexpr int kDefaultLevel = 2;
constexpr std::size_t kUsualLine = 1024;
static_assert(kLongestPrefix < kUsualLine);

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

void WriteToStandardError(const char* line, std::size_t length) {
  while (::write(STDERR_FILENO, line, length) < 0 && errno == EINTR) {
  }
}

// Passes on a whole line; `line` has a zero after its `length` bytes.
void Deliver(int level, int module, char* line, std::size_t length) {
  if (const SinkCall sink; sink) {
    if (length > 0 && line[length - 1] == '\n') {
      line[length - 1] = '\0';
    }
    sink(level, module, line);
  } else {
    WriteToStandardError(line, length);
  }
}

// Separate from jlog_printf, so that a line above the threshold costs none of it.
[[gnu::noinline]] void WriteFormatted(int level, int module, const char* format,
                                      va_list arguments) {
  char usual[kUsualLine];
  const std::size_t start = WritePrefix(usual, level);
  va_list again;
  va_copy(again, arguments);
  const int needed = std::vsnprintf(usual + start, sizeof usual - start, format, arguments);
  const std::size_t length = start + static_cast<std::size_t>(needed);
  if (needed >= 0 && length < sizeof usual) {
    Deliver(level, module, usual, length);
  } else if (needed >= 0) {
    const std::unique_ptr<char[]> longer(new (std::nothrow) char[length + 1]);
    if (longer != nullptr) {
      std::memcpy(longer.get(), usual, start);
      std::vsnprintf(longer.get() + start, length + 1 - start, format, again);
      Deliver(level, module, longer.get(), length);
    }
  }
  va_end(again);
}

}  // namespace

void jlog_printf(int level, int module, const char* format, ...) {
  if (level > threshold.load(std::memory_order_relaxed)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  WriteFormatted(level, module, format, arguments);
  va_end(arguments);
}

void jlog_set_level(int level) { threshold.store(level, std::memory_order_relaxed); }
