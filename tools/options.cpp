// options.cpp - the options of all commands, read with CLI11.
#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <climits>
#include <sstream>

#include "report.h"

namespace jpipe {
namespace {

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
    throw Failure(kUsage, std::string(what) + " needs a non-empty value");
  }
  return text;
}

// One option. The completion knows the values FILE and DIR, and words between bars.
struct OptionRow {
  const char* commands;  // that take it; empty: all of them
  const char* name;
  const char* value;  // null for a flag
  const char* help;
  void (*set)(Options& options, const std::string& value);
};

constexpr OptionRow kOptions[] = {
    {"pull drain", "-f,--format", "text|quoted|hex|json|raw", "how messages are shown",
     [](Options& o, const std::string& v) { o.format = ReadFormat(v); }},
    {"pull push export", "-n,--count", "N", "end after N messages",
     [](Options& o, const std::string& v) { o.count = Number("--count", v, 1, UINT64_MAX); }},
    {"pull push signal export import", "-t,--timeout", "SECONDS",
     "give up after SECONDS (fractions allowed), exit 124",
     [](Options& o, const std::string& v) { o.timeout = Seconds("--timeout", v); }},
    {"pull", "--frames", "SEP", "put SEP between frames in text (default: a tab)",
     [](Options& o, const std::string& v) { o.frames = Given("--frames", v); }},
    {"push", "--frames", "SEP", "cut each line into frames at SEP",
     [](Options& o, const std::string& v) { o.frames = Given("--frames", v); }},
    {"push", "--file", "FILE", "send the bytes of FILE (- for standard input) as one message",
     [](Options& o, const std::string& v) { o.file = Given("--file", v); }},
    {"push signal", "--no-wait", nullptr, "do not wait for a reader, even if that loses messages",
     [](Options& o, const std::string&) { o.no_wait = true; }},
    {"list", "--json", nullptr, "one object per line, for scripts",
     [](Options& o, const std::string&) { o.json = true; }},
    {"list", "--watch", nullptr, "keep the list on the terminal up to date",
     [](Options& o, const std::string&) { o.watch = true; }},
    {"remove", "--force", nullptr, "remove it even while it is open",
     [](Options& o, const std::string&) { o.force = true; }},
    {"pull push export import", "--progress", nullptr,
     "show messages, bytes and rate when on a terminal",
     [](Options& o, const std::string&) { o.progress = true; }},
    {"export import", "--bind", nullptr, "wait for the other side to connect",
     [](Options& o, const std::string&) { o.link = Link::kBind; }},
    {"export import", "--connect", nullptr, "connect to the other side",
     [](Options& o, const std::string&) { o.link = Link::kConnect; }},
    {"export import", "--window", "N", "messages that may be unconfirmed (default 256)",
     [](Options& o, const std::string& v) { o.window = Number("--window", v, 1, 1 << 20); }},
    {"export import", "--window-bytes", "N", "bytes that may be unconfirmed (default 1048576)",
     [](Options& o, const std::string& v) {
       o.window_bytes = Number("--window-bytes", v, 1, 1 << 30);
     }},
    {"export import", "--connect-timeout", "SECONDS",
     "give up when not connected for SECONDS (default: 10 if refused)",
     [](Options& o, const std::string& v) { o.connect_timeout = Seconds("--connect-timeout", v); }},
    {"export import", "--linger", "SECONDS",
     "how long to wait at the end for messages under way (default 5)",
     [](Options& o, const std::string& v) { o.linger = Seconds("--linger", v); }},
    {"export import", "--curve-cert", "FILE", "this side's certificate; turns on encryption",
     [](Options& o, const std::string& v) { o.certificate = Given("--curve-cert", v); }},
    {"export import", "--curve-server", "FILE", "connecting: the other side's public certificate",
     [](Options& o, const std::string& v) { o.server = Given("--curve-server", v); }},
    {"export import", "--curve-clients", "DIR",
     "binding: the certificates that may connect (\"*\": any)",
     [](Options& o, const std::string& v) { o.clients = Given("--curve-clients", v); }},
    {"", "-v,--verbose", nullptr, "show the library's log lines as well",
     [](Options&, const std::string&) { ShowLibraryErrors(); }},
};

// Pairs that exclude each other, and options that need another one.
constexpr std::pair<const char*, const char*> kExcluding[] = {
    {"--file", "--frames"},
    {"--file", "--count"},
    {"--json", "--watch"},
    {"--bind", "--connect"},
    {"--curve-clients", "--curve-server"}};
constexpr std::pair<const char*, const char*> kNeeding[] = {{"--curve-server", "--curve-cert"},
                                                            {"--curve-clients", "--curve-cert"}};

bool Takes(const std::string& command, const OptionRow& row) {
  const std::string takers = std::string(" ") + row.commands + " ";
  return *row.commands == '\0' || takers.find(" " + command + " ") != std::string::npos;
}

// Shows the usage in jpipe's own form, and after an option only its value.
class HelpFormatter : public CLI::Formatter {
 public:
  explicit HelpFormatter(const Command& command) : usage_(Usage(command)) { column_width(34); }
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "Usage: " + usage_ + "\n";
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string& value = option->get_option_text();
    return value.empty() ? value : " " + value;
  }

 private:
  std::string usage_;
};

// What the command takes. Operands are left over for TakeOperands: CLI11 would read
// "[a,b]" and "{}" among them as lists.
std::unique_ptr<CLI::App> Declare(const Command& command, Options& options) {
  auto app = std::make_unique<CLI::App>(Text("jpipe %s: %s", command.name, command.summary));
  app->formatter(std::make_shared<HelpFormatter>(command));
  app->footer(std::string("Example: ") + command.example);
  app->allow_extras();
  app->set_help_flag("-h,--help", "show this text");
  for (const OptionRow& row : kOptions) {
    if (!Takes(command.name, row)) {
      continue;
    }
    const auto set = [&options, &row](const std::string& value) { row.set(options, value); };
    if (row.value == nullptr) {
      app->add_flag_callback(
             row.name, [set] { set(""); }, row.help)
          ->disable_flag_override();
    } else {
      app->add_option_function<std::string>(row.name, set, row.help)
          ->option_text(row.value)
          ->take_last();
    }
  }
  for (const auto& [one, other] : kExcluding) {
    if (CLI::Option* option = app->get_option_no_throw(one)) {
      option->excludes(app->get_option(other));
    }
  }
  for (const auto& [one, other] : kNeeding) {
    if (CLI::Option* option = app->get_option_no_throw(one)) {
      option->needs(app->get_option(other));
    }
  }
  return app;
}

[[noreturn]] void Refuse(const Command& command, const std::string& what) {
  throw Failure(kUsage, what + "; usage: " + Usage(command) + " (for more: jpipe " + command.name +
                            " --help)");
}

// CLI11 would take the next word for the value.
void RefuseEmptyValues(const Command& command, int argc, char** argv) {
  for (int k = 0; k < argc && std::string(argv[k]) != "--"; ++k) {
    const std::string word = argv[k];
    if (word.size() > 2 && word.compare(0, 2, "--") == 0 && word.find('=') == word.size() - 1) {
      Refuse(command, "\"" + word + "\" needs a non-empty value");
    }
  }
}

// The words that are not options, as many as the command wants.
std::vector<std::string> TakeOperands(const Command& command,
                                      const std::vector<std::string>& words) {
  std::vector<std::string> operands;
  bool only_operands = false;
  for (const std::string& word : words) {
    if (!only_operands && word == "--") {
      only_operands = true;
    } else if (!only_operands && word.size() > 1 && word[0] == '-' && !std::isdigit(word[1])) {
      Refuse(command, std::string(command.name) + " has no option " + word);
    } else {
      operands.push_back(word);
    }
  }
  std::istringstream names(command.operands);
  std::size_t fewest = 0;
  std::size_t most = 0;
  for (std::string name; names >> name; ++most) {
    if (name[0] != '[' && operands.size() == fewest++) {
      Refuse(command, name + " is missing");
    }
    if (name.find("...") != std::string::npos) {
      return operands;
    }
  }
  if (operands.size() > most) {
    Refuse(command, "\"" + operands[most] + "\" is one word too many");
  }
  return operands;
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
  RefuseEmptyValues(command, argc, argv);
  Options options;
  const std::unique_ptr<CLI::App> app = Declare(command, options);
  try {
    app->parse(std::vector<std::string>(std::make_reverse_iterator(argv + argc),
                                        std::make_reverse_iterator(argv)));
  } catch (const CLI::CallForHelp&) {
    return std::nullopt;
  } catch (const CLI::ArgumentMismatch& error) {
    // "--count: 1 required TEXT missing", or a sentence about a flag with a value.
    const std::string what = error.what();
    const std::size_t colon = what.find(':');
    Refuse(command, colon != std::string::npos ? what.substr(0, colon) + " needs a value"
                                               : "an option that takes no value was given one");
  } catch (const CLI::ParseError& error) {
    Refuse(command, error.what());
  }
  options.operands = TakeOperands(command, app->remaining());
  return options;
}

std::string CommandHelp(const Command& command) {
  Options options;
  return Declare(command, options)->help();
}

std::string Usage(const Command& command) {
  const std::string usage = std::string("jpipe ") + command.name + " [OPTION...]";
  return *command.operands != '\0' ? usage + " " + command.operands : usage;
}

}  // namespace jpipe
