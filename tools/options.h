// options.h - the command line.
#ifndef JPIPE_OPTIONS_H
#define JPIPE_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "formats.h"

namespace jpipe {

enum class Link { kDefault, kBind, kConnect };

struct Options {
  std::string command;
  std::vector<std::string> operands;

  std::optional<Format> format;
  std::optional<std::uint64_t> count;
  std::optional<double> timeout;      // seconds
  std::optional<std::string> frames;  // the separator
  std::optional<std::string> file;
  bool progress = false;
  bool no_wait = false;

  Link link = Link::kDefault;
  int high_water = 1000;         // messages
  std::optional<double> linger;  // seconds
  std::optional<std::string> certificate;
  std::optional<std::string> server;
  std::optional<std::string> clients;
};

// One command: its operands, and the letters of the options that it takes.
struct Command {
  const char* name;
  const char* operands;
  std::size_t fewest;
  std::size_t most;
  const char* options;
  const char* summary;
  int (*run)(const Options&);
};

// The number in `text`, decimal and from `least` to `most`. Fails with kUsage; the
// message begins with `what`.
std::uint64_t Number(const char* what, const std::string& text, std::uint64_t least,
                     std::uint64_t most);

// Reads the command line, whose first word is the command's name. Result: nothing
// when --help was asked for. Fails with kUsage.
std::optional<Options> ReadOptions(const Command& command, int argc, char** argv);

// What --help shows.
std::string HelpText(const Command* commands, std::size_t count);

}  // namespace jpipe

#endif
