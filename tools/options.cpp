// options.cpp - the command line's options, and the help text.
#include "options.h"

#include <getopt.h>

#include <charconv>
#include <climits>
#include <cstring>

#include "report.h"

namespace jpipe {
namespace {

// The letters are for the table of commands only: every option has its long name,
// and -f, -n, -t, -h, -v for typing.
constexpr option kLongOptions[] = {{"format", required_argument, nullptr, 'f'},
                                   {"count", required_argument, nullptr, 'n'},
                                   {"timeout", required_argument, nullptr, 't'},
                                   {"progress", no_argument, nullptr, 'p'},
                                   {"frames", required_argument, nullptr, 'F'},
                                   {"file", required_argument, nullptr, 'i'},
                                   {"no-wait", no_argument, nullptr, 'w'},
                                   {"bind", no_argument, nullptr, 'b'},
                                   {"connect", no_argument, nullptr, 'c'},
                                   {"hwm", required_argument, nullptr, 'H'},
                                   {"linger", required_argument, nullptr, 'l'},
                                   {"curve-cert", required_argument, nullptr, 'k'},
                                   {"curve-server", required_argument, nullptr, 's'},
                                   {"curve-clients", required_argument, nullptr, 'a'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
constexpr const char* kShortOptions = ":f:n:t:vh";

constexpr const char* kOptionsHelp =
    R"(
Options (each command takes those that make sense for it; see jpipe(1)):
  -f, --format FORMAT    text, quoted, hex, json or raw (pull, drain)
  -n, --count N          end after N messages
  -t, --timeout SECONDS  give up after SECONDS (fractions allowed), exit 124
      --progress         show messages, bytes and rate when on a terminal
      --frames SEP       push: cut each line into frames at SEP;
                         pull: put SEP between frames in text (default: a tab)
      --file FILE        push: send the bytes of FILE (- for standard input)
      --no-wait          push, signal: leave even if that loses what was sent
      --bind, --connect  which side of the ZeroMQ connection to be
      --hwm N            messages that ZeroMQ may hold (default 1000)
      --linger SECONDS   how long to wait at the end for what is on its way
      --curve-cert FILE     own certificate, which turns on encryption
      --curve-server FILE   connecting: the other side's public certificate
      --curve-clients DIR   binding: the certificates that may connect ("*": any)
  -v, --verbose          show the library's log lines as well
  -h, --help             show this text;  jpipe --version shows the version

Exit status: 0 done, 1 failure, 2 usage, 124 timed out.
)";

std::string NameOf(int letter) {
  for (const option* known = kLongOptions; known->name != nullptr; ++known) {
    if (known->val == letter) {
      return std::string("--") + known->name;
    }
  }
  return std::string("-") + static_cast<char>(letter);
}

double Seconds(const char* what, const std::string& text) {
  constexpr double kMost = 1e9;
  double seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  const bool digits = text.find_first_not_of("0123456789.") == std::string::npos;
  if (error != std::errc() || stop != end || !digits || seconds > kMost) {
    throw Failure(kUsage, std::string(what) + " \"" + text +
                              "\": give seconds from 0 to 1000000000, like 2 or 0.25");
  }
  return seconds;
}

Format ReadFormat(const std::string& name) {
  if (const auto format = FormatNamed(name)) {
    return *format;
  }
  throw Failure(kUsage, "--format \"" + name + "\": choose text, quoted, hex, json or raw");
}

std::string Given(const char* what, const std::string& text) {
  if (text.empty()) {
    throw Failure(kUsage, std::string(what) + " needs a value that is not empty");
  }
  return text;
}

void SetLink(Options& options, Link link) {
  if (options.link != Link::kDefault && options.link != link) {
    throw Failure(kUsage, "--bind and --connect exclude each other: give one");
  }
  options.link = link;
}

void Set(Options& options, int letter, const std::string& value) {
  switch (letter) {
    case 'f':
      options.format = ReadFormat(value);
      break;
    case 'n':
      options.count = Number("--count", value, 1, UINT64_MAX);
      break;
    case 't':
      options.timeout = Seconds("--timeout", value);
      break;
    case 'p':
      options.progress = true;
      break;
    case 'F':
      options.frames = Given("--frames", value);
      break;
    case 'i':
      options.file = Given("--file", value);
      break;
    case 'w':
      options.no_wait = true;
      break;
    case 'b':
      SetLink(options, Link::kBind);
      break;
    case 'c':
      SetLink(options, Link::kConnect);
      break;
    case 'H':
      options.high_water = static_cast<int>(Number("--hwm", value, 1, INT_MAX));
      break;
    case 'l':
      options.linger = Seconds("--linger", value);
      break;
    case 'k':
      options.certificate = Given("--curve-cert", value);
      break;
    case 's':
      options.server = Given("--curve-server", value);
      break;
    case 'a':
      options.clients = Given("--curve-clients", value);
      break;
    default:
      ShowLibraryErrors();
      break;
  }
}

std::string Usage(const Command& command) {
  const std::string usage = std::string("jpipe ") + command.name;
  return *command.operands != '\0' ? usage + " " + command.operands : usage;
}

[[noreturn]] void Refuse(const Command& command, const std::string& what) {
  throw Failure(kUsage, what + "; usage: " + Usage(command) + " (jpipe --help tells more)");
}

}  // namespace

std::uint64_t Number(const char* what, const std::string& text, std::uint64_t least,
                     std::uint64_t most) {
  std::uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > most) {
    throw Failure(kUsage, Text("%s \"%s\": give a whole number from %llu to %llu", what,
                               text.c_str(), static_cast<unsigned long long>(least),
                               static_cast<unsigned long long>(most)));
  }
  return number;
}

std::optional<Options> ReadOptions(const Command& command, int argc, char** argv) {
  Options options;
  options.command = command.name;
  int letter = 0;
  while ((letter = ::getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
    if (letter == 'h') {
      return std::nullopt;
    }
    if (letter == ':') {
      Refuse(command, NameOf(optopt) + " needs a value");
    }
    if (letter == '?') {
      // optopt is a known letter when a value stands where none belongs.
      const std::string word = argv[optind - 1];
      Refuse(command,
             word.compare(0, 2, "--") == 0
                 ? word + (optopt != 0 ? ": the option takes no value" : ": no such option")
                 : Text("-%c: no such option", optopt));
    }
    if (letter != 'v' && std::strchr(command.options, letter) == nullptr) {
      Refuse(command, std::string(command.name) + " takes no " + NameOf(letter));
    }
    Set(options, letter, optarg != nullptr ? optarg : "");
  }
  options.operands.assign(argv + optind, argv + argc);
  if (options.operands.size() < command.fewest) {
    Refuse(command, "something is missing");
  }
  if (options.operands.size() > command.most) {
    Refuse(command, "\"" + options.operands[command.most] + "\" is one word too many");
  }
  return options;
}

std::string HelpText(const Command* commands, std::size_t count) {
  std::string text =
      "Usage: jpipe COMMAND [OPTION...] [OPERAND...]\n"
      "Looks into libjactor endpoints, feeds them, and joins them over the network.\n\n";
  for (std::size_t k = 0; k < count; ++k) {
    text += Text("  %-38s %s\n", Usage(commands[k]).c_str(), commands[k].summary);
  }
  return text + kOptionsHelp;
}

}  // namespace jpipe
