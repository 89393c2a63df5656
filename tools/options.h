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
  std::vector<std::string> operands;

  std::optional<Format> format;
  std::optional<std::uint64_t> count;
  std::optional<double> timeout;      // seconds
  std::optional<std::string> frames;  // the separator
  std::optional<std::string> file;
  bool progress = false;
  bool no_wait = false;
  bool force = false;
  bool json = false;
  bool watch = false;

  Link link = Link::kDefault;
  std::size_t window = 256;  // messages
  std::size_t window_bytes = 1048576;
  std::optional<double> linger;           // seconds
  std::optional<double> connect_timeout;  // seconds
  std::optional<std::string> certificate;
  std::optional<std::string> server;
  std::optional<std::string> clients;
};

// One command. The table of options says which options it takes.
struct Command {
  const char* name;
  const char* operands;  // as its usage shows them: "ENDPOINT [FRAME...]"
  const char* summary;
  const char* example;
  int (*run)(const Options&);
};

// The number in `text`, decimal and from `least` to `most`. Fails with kUsage; the
// message begins with `what`.
std::uint64_t Number(const char* what, const std::string& text, std::uint64_t least,
                     std::uint64_t most);

// Reads the words after the command's name. Result: nullopt when --help was asked for.
// Fails with kUsage.
std::optional<Options> ReadOptions(const Command& command, int argc, char** argv);

// What `jpipe COMMAND --help` shows. The completion reads it too: the usage line, and
// the value after each option.
std::string CommandHelp(const Command& command);

// "jpipe COMMAND [OPTION...] OPERAND..."
std::string Usage(const Command& command);

}  // namespace jpipe

#endif
