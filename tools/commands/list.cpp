// list.cpp - jpipe list: the endpoints in the run directory.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

#include "commands.h"
#include "endpoint.h"
#include "formats.h"
#include "holders.h"
#include "output.h"
#include "report.h"
#include "terminal.h"

namespace jpipe {
namespace {

struct Entry {
  std::string endpoint;
  std::string owner;
  std::string mode;
  std::optional<std::size_t> bytes;  // nothing when the FIFO may not be opened
  std::vector<Holder> holders;
};

struct Endpoints {
  std::vector<Entry> entries;
  bool complete;  // false: there may be more holders
};

std::vector<std::string> FilesInRunDirectory() {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator file(kRunDirectory, error), end; !error && file != end;
       file.increment(error)) {
    names.push_back(file->path().filename());
  }
  // The first endpoint makes the directory.
  if (error && error != std::errc::no_such_file_or_directory) {
    throw Failure(kFailed, std::string("cannot read ") + kRunDirectory + ": " + error.message() +
                               ": ask the administrator for access");
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string OwnerName(uid_t owner) {
  const passwd* entry = ::getpwuid(owner);
  return entry != nullptr ? entry->pw_name : std::to_string(owner);
}

Endpoints FindEndpoints() {
  Holders holders = FindHolders();
  Endpoints found = {{}, holders.complete};
  for (const std::string& name : FilesInRunDirectory()) {
    const std::string endpoint = EndpointOfFifo(name);
    const std::string fifo = std::string(kRunDirectory) + "/" + name;
    struct stat status = {};
    if (endpoint.empty() || ::lstat(fifo.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
      continue;
    }
    Entry entry = {endpoint,
                   OwnerName(status.st_uid),
                   Text("%04o", status.st_mode & 07777u),
                   {},
                   holders.by_file[{status.st_dev, status.st_ino}]};
    if (const Descriptor look = OpenToLook(fifo)) {
      entry.bytes = BytesWaiting(look.get());
    }
    found.entries.push_back(entry);
  }
  return found;
}

// "?" stands for what could not be looked into.
std::string Table(const Endpoints& endpoints) {
  using Row = std::array<std::string, 5>;
  std::vector<Row> rows = {{"ENDPOINT", "OWNER", "MODE", "BYTES", "OPEN IN"}};
  for (const Entry& entry : endpoints.entries) {
    const std::string holders = Shown(entry.holders);
    const std::string more = endpoints.complete ? "" : holders.empty() ? "?" : " ?";
    rows.push_back({Harmless(entry.endpoint), entry.owner, entry.mode,
                    entry.bytes ? std::to_string(*entry.bytes) : "?",
                    holders.empty() && more.empty() ? "-" : holders + more});
  }
  std::array<std::size_t, 5> widths = {};
  for (const Row& row : rows) {
    for (std::size_t k = 0; k < row.size(); ++k) {
      widths[k] = std::max(widths[k], row[k].size());
    }
  }
  std::string table;
  for (const Row& row : rows) {
    for (std::size_t k = 0; k + 1 < row.size(); ++k) {
      table += row[k] + std::string(widths[k] - row[k].size() + 2, ' ');
    }
    table += row.back() + "\n";
  }
  return table;
}

// One object per line. Bytes of a name that are not UTF-8 are replaced.
std::string JsonLines(const Endpoints& endpoints) {
  using Json = nlohmann::ordered_json;
  std::string lines;
  for (const Entry& entry : endpoints.entries) {
    Json holders = Json::array();
    for (const Holder& holder : entry.holders) {
      holders.push_back(Json{{"pid", holder.pid}, {"program", holder.program}});
    }
    const Json object = {
        {"endpoint", entry.endpoint}, {"owner", entry.owner},
        {"mode", entry.mode},         {"bytes", entry.bytes ? Json(*entry.bytes) : Json()},
        {"open_in", holders},         {"open_in_complete", endpoints.complete}};
    lines += object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  return lines;
}

// As much of the table as fits on the terminal, over what is there.
std::string OnScreen(const std::string& table) {
  const TerminalSize size = SizeOfTerminal(STDOUT_FILENO);
  std::istringstream lines(table);
  std::string shown = "\033[H";
  std::string line;
  for (std::size_t row = 1; row < size.rows && std::getline(lines, line); ++row) {
    std::size_t end = std::min(size.columns, line.size());
    while (end < line.size() && (line[end] & 0xc0) == 0x80) {  // inside a character
      --end;
    }
    shown += line.substr(0, end) + "\033[K\n";
  }
  return shown + "\033[J";
}

Exit Watch() {
  constexpr int kRefresh = 500;  // milliseconds
  if (::isatty(STDOUT_FILENO) != 1) {
    throw Failure(kUsage, "--watch needs a terminal: leave it out, or use --json");
  }
  Patience patience(std::nullopt);
  patience.WatchOutput(STDOUT_FILENO);
  std::string before;
  Outcome outcome = Outcome::kTick;
  while (outcome == Outcome::kTick) {
    const std::string now = OnScreen(Table(FindEndpoints()));
    if (now != before) {
      outcome = WriteOut((before.empty() ? "\033[2J" : "") + now, patience);
      before = now;
    }
    if (outcome == Outcome::kTick || outcome == Outcome::kReady) {
      outcome = patience.Wait(-1, 0, false, kRefresh);
    }
  }
  return ExitFor(outcome, true);
}

}  // namespace

int List(const Options& options) {
  if (options.watch) {
    return Watch();
  }
  const Endpoints endpoints = FindEndpoints();
  return Print(options.json ? JsonLines(endpoints) : Table(endpoints));
}

}  // namespace jpipe
