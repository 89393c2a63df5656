// list.cpp - jpipe list: the endpoints in the run directory.
#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "commands.h"
#include "endpoint.h"
#include "formats.h"
#include "holders.h"
#include "output.h"
#include "report.h"

namespace jpipe {
namespace {

using Row = std::vector<std::string>;

std::vector<std::string> FilesInRunDirectory() {
  std::vector<std::string> names;
  DIR* directory = ::opendir(kRunDirectory);
  if (directory == nullptr && errno == ENOENT) {
    return names;  // no endpoint has been opened yet
  }
  if (directory == nullptr) {
    throw Failure(kFailed, std::string("cannot read ") + kRunDirectory + ": " +
                               std::strerror(errno) + ": have the administrator open it for you");
  }
  while (const dirent* entry = ::readdir(directory)) {
    names.emplace_back(entry->d_name);
  }
  ::closedir(directory);
  std::sort(names.begin(), names.end());
  return names;
}

std::string OwnerName(uid_t owner) {
  const passwd* entry = ::getpwuid(owner);
  return entry != nullptr ? entry->pw_name : std::to_string(owner);
}

// "?" when the FIFO may not be opened.
std::string ShownWaiting(const std::string& fifo) {
  const Descriptor fd = OpenToLook(fifo);
  return fd ? std::to_string(BytesWaiting(fd.get())) : "?";
}

// "?" stands for processes that could not be looked into.
std::string ShownHolders(const Holders& holders, const FileId& file) {
  const auto found = holders.by_file.find(file);
  const std::string shown = found != holders.by_file.end() ? Shown(found->second) : "";
  if (holders.complete) {
    return shown.empty() ? "-" : shown;
  }
  return shown.empty() ? "?" : shown + " ?";
}

std::string Table(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths(rows[0].size(), 0);
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

}  // namespace

int List(const Options& /*options*/) {
  const Holders holders = FindHolders();
  std::vector<Row> rows = {{"ENDPOINT", "OWNER", "MODE", "BYTES", "OPEN IN"}};
  for (const std::string& name : FilesInRunDirectory()) {
    const std::string endpoint = EndpointOfFifo(name);
    const std::string fifo = std::string(kRunDirectory) + "/" + name;
    struct stat status = {};
    if (endpoint.empty() || ::lstat(fifo.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
      continue;
    }
    rows.push_back({Harmless(endpoint), OwnerName(status.st_uid),
                    Text("%04o", status.st_mode & 07777u), ShownWaiting(fifo),
                    ShownHolders(holders, {status.st_dev, status.st_ino})});
  }
  return Print(Table(rows));
}

}  // namespace jpipe
