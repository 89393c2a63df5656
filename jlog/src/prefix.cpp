// prefix.cpp - JLOG_PREFIX is read once, when the library is loaded.
#include "prefix.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

// Does not use gmtime_r: it takes a lock, which a child can find held after a fork.
int WriteTime(char* text, std::size_t room, int /*level*/) {
  using namespace std::chrono;
  const auto now = floor<microseconds>(system_clock::now());
  const auto today = floor<days>(now);
  const year_month_day date{today};
  const hh_mm_ss time{now - today};
  return std::snprintf(
      text, room, "%04d-%02u-%02uT%02ld:%02ld:%02ld.%06ldZ ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<long>(time.hours().count()), static_cast<long>(time.minutes().count()),
      static_cast<long>(time.seconds().count()), static_cast<long>(time.subseconds().count()));
}

int WritePid(char* text, std::size_t room, int /*level*/) {
  return std::snprintf(text, room, "pid=%d ", ::getpid());
}

int WriteTid(char* text, std::size_t room, int /*level*/) {
  return std::snprintf(text, room, "tid=%d ", ::gettid());
}

int WriteLevel(char* text, std::size_t room, int level) {
  return std::snprintf(text, room, "level=%d ", level);
}

struct Part {
  std::string_view word;
  int (*write)(char* text, std::size_t room, int level);
};

constexpr std::array<Part, 4> kParts{
    {{"time", WriteTime}, {"pid", WritePid}, {"tid", WriteTid}, {"level", WriteLevel}}};

// The parts in the order wanted, each at most once; null after the last.
using Wanted = std::array<const Part*, kParts.size() + 1>;

void Want(Wanted& wanted, std::string_view word) {
  const Part* const part =
      std::find_if(kParts.begin(), kParts.end(), [&](const Part& p) { return p.word == word; });
  if (part == kParts.end()) {
    std::fprintf(stderr, "jlog: JLOG_PREFIX has \"%.*s\", not time, pid, tid or level: ignored\n",
                 static_cast<int>(word.size()), word.data());
    return;
  }
  const Part** place = wanted.data();
  while (*place != nullptr && *place != part) {
    ++place;
  }
  *place = part;
}

Wanted WantedFromEnvironment() {
  constexpr std::string_view kSeparators = ", ";
  Wanted wanted{};
  const char* const text = std::getenv("JLOG_PREFIX");
  std::string_view rest = text != nullptr ? text : "";
  while (true) {
    rest.remove_prefix(std::min(rest.find_first_not_of(kSeparators), rest.size()));
    if (rest.empty()) {
      return wanted;
    }
    const std::string_view word = rest.substr(0, rest.find_first_of(kSeparators));
    Want(wanted, word);
    rest.remove_prefix(word.size());
  }
}

const Wanted wanted_parts = WantedFromEnvironment();

}  // namespace

std::size_t WritePrefix(char* text, int level) {
  std::size_t length = 0;
  for (std::size_t i = 0; wanted_parts[i] != nullptr; ++i) {
    length += static_cast<std::size_t>(
        wanted_parts[i]->write(text + length, kLongestPrefix - length, level));
  }
  return length;
}
