// holders.h - which processes have a FIFO open.
#ifndef JPIPE_HOLDERS_H
#define JPIPE_HOLDERS_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace jpipe {

using FileId = std::pair<dev_t, ino_t>;

struct Holder {
  pid_t pid;
  std::string program;
};

struct Holders {
  std::map<FileId, std::vector<Holder>> by_file;
  bool complete = true;  // false: some processes could not be looked into
};

// "12(cat) 34(pull)", harmless on a terminal.
std::string Shown(const std::vector<Holder>& holders);

// Finds the other processes that have FIFOs open, as far as /proc tells. Who only
// has a look (OpenToLook) does not count.
Holders FindHolders();

// Whether another process is known to have the FIFO `fd` open.
bool IsHeldElsewhere(int fd);

// Marks this process as one that leaves its endpoint by itself. Others see the mark, and do
// not leave their bytes to it. Comes before the endpoint is opened.
void MarkAsLeaving();

// Another process that has the FIFO `fd` open and has no mark: it stays until it is stopped,
// as far as can be told. Nothing when there is none.
std::optional<pid_t> FindKeeper(int fd);

// Whether that process still is one.
bool Keeps(pid_t pid, int fd);

// Whether somebody has the FIFO open for writing, as every user of the library has.
// `fd` is a look into it. Takes nothing.
bool HasWriters(int fd);

}  // namespace jpipe

#endif
