// jpipe.cpp - the endpoints from the shell: the table of commands, and main.
#include <jactor.h>

#include <climits>
#include <cstring>
#include <exception>
#include <string>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "waiting.h"

namespace jpipe {
namespace {

constexpr Command kCommands[] = {
    {"pull", "ENDPOINT", 1, 1, "fntpF", "show the messages that arrive", Pull},
    {"push", "ENDPOINT [FRAME...]", 1, INT_MAX, "ntpFiw", "send a message, or a message a line",
     Push},
    {"signal", "ENDPOINT VALUE", 2, 2, "tw", "send a signal, 0 to 255", Signal},
    {"list", "", 0, 0, "", "show the endpoints and who has them open", List},
    {"drain", "ENDPOINT", 1, 1, "f", "throw away what lies in an endpoint", Drain},
    {"decode", "[FILE]", 0, 1, "", "explain captured bytes, offset by offset", Decode},
    {"export", "ENDPOINT tcp://HOST:PORT", 2, 2, "ntpbcHlksa", "endpoint to ZeroMQ", Export},
    {"import", "tcp://*:PORT ENDPOINT", 2, 2, "tpbcHlksa", "ZeroMQ to endpoint", Import},
    {"keygen", "FILE", 1, 1, "", "make a certificate for export and import", MakeCertificate},
};
constexpr std::size_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

const Command& FindCommand(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) {
      return command;
    }
  }
  throw Failure(kUsage, "\"" + name + "\" is no command: jpipe --help shows them all");
}

int Run(int argc, char** argv) {
  if (argc < 2) {
    throw Failure(kUsage, "give a command: jpipe --help shows them all");
  }
  StopRequests::Install();
  const std::string first = argv[1];
  if (first == "--help" || first == "-h") {
    return Print(HelpText(kCommands, kCommandCount));
  }
  if (first == "--version" || first == "-V") {
    return Print(
        Text("jpipe %d.%d.%d\n", JACTOR_VERSION_MAJOR, JACTOR_VERSION_MINOR, JACTOR_VERSION_PATCH));
  }
  const Command& command = FindCommand(first);
  const std::optional<Options> options = ReadOptions(command, argc - 1, argv + 1);
  return options ? command.run(*options) : Print(HelpText(kCommands, kCommandCount));
}

}  // namespace
}  // namespace jpipe

int main(int argc, char** argv) {
  try {
    return jpipe::Run(argc, argv);
  } catch (const jpipe::Failure& failure) {
    jpipe::Note(failure.what());
    return failure.code();
  } catch (const std::exception& error) {
    jpipe::Note(std::string("failed: ") + error.what());
    return jpipe::kFailed;
  }
}
