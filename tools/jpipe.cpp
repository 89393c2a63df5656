// jpipe.cpp - endpoints from the shell: the table of commands, and main.
#include <jactor.h>

#include <exception>
#include <string>

#include "commands.h"
#include "output.h"
#include "report.h"
#include "waiting.h"

namespace jpipe {
namespace {

constexpr Command kCommands[] = {
    {"pull", "ENDPOINT", "show the messages that arrive",
     "jpipe pull --format json ipc://sensors/temp", Pull},
    {"push", "ENDPOINT [FRAME...]", "send a message, or a message for each line of input",
     "jpipe push ipc://sensors/temp kitchen 21.5", Push},
    {"signal", "ENDPOINT VALUE", "send a signal, 0 to 255", "jpipe signal ipc://jobs 3", Signal},
    {"list", "", "show the endpoints and who has them open", "jpipe list", List},
    {"drain", "ENDPOINT", "throw away the contents of an endpoint", "jpipe drain -f hex ipc://jobs",
     Drain},
    {"remove", "ENDPOINT", "remove an endpoint's FIFO", "jpipe remove ipc://jobs", Remove},
    {"decode", "[FILE]", "explain captured bytes, offset by offset", "jpipe decode capture.bin",
     Decode},
    {"export", "ENDPOINT tcp://HOST:PORT", "carry an endpoint to another machine",
     "jpipe export ipc://jobs tcp://receiver:5555", Export},
    {"import", "tcp://*:PORT ENDPOINT", "receive messages from export into an endpoint",
     "jpipe import 'tcp://*:5555' ipc://jobs", Import},
    {"keygen", "FILE", "make a certificate for export and import", "jpipe keygen sender",
     MakeCertificate},
};

std::string HelpText() {
  std::string text =
      "Usage: jpipe COMMAND [OPTION...] [OPERAND...]\n"
      "Reads, writes and manages libjactor endpoints, and connects them over the network.\n\n";
  for (const Command& command : kCommands) {
    text += Text("  %-8s%-26s%s\n", command.name, command.operands, command.summary);
  }
  return text +
         "\njpipe COMMAND --help shows the command's options, jpipe --version the version."
         "\nFor the rest see jpipe(1).\n\n"
         "Exit status: 0 done, 1 failure, 2 usage, 124 timed out.\n";
}

const Command& FindCommand(const std::string& name) {
  for (const Command& command : kCommands) {
    if (name == command.name) {
      return command;
    }
  }
  throw Failure(kUsage, "\"" + name + "\" is not a command: jpipe --help lists the commands");
}

int Run(int argc, char** argv) {
  if (argc < 2) {
    throw Failure(kUsage, "give a command: jpipe --help lists them");
  }
  StopRequests::Install();
  const std::string first = argv[1];
  if (first == "--help" || first == "-h") {
    return Print(HelpText());
  }
  if (first == "--version" || first == "-V") {
    return Print(
        Text("jpipe %d.%d.%d\n", JACTOR_VERSION_MAJOR, JACTOR_VERSION_MINOR, JACTOR_VERSION_PATCH));
  }
  const Command& command = FindCommand(first);
  const std::optional<Options> options = ReadOptions(command, argc - 2, argv + 2);
  return options ? command.run(*options) : Print(CommandHelp(command));
}

}  // namespace
}  // namespace jpipe

int main(int argc, char** argv) {
  jpipe::OccupyStandardDescriptors();
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
