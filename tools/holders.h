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

// "12(cat) 34(pull)", safe to show on a terminal.
std::string Shown(const std::vector<Holder>& holders);

// Finds the other processes that have FIFOs open, as far as /proc shows. A process that
// only has a look (OpenToLook) does not count.
Holders FindHolders();

// Whether another process is known to have the FIFO `fd` open.
bool IsHeldElsewhere(int fd);

// Marks this process as one that leaves its endpoint on its own. Others see the mark, and do
// not leave their bytes to it. Call it before the endpoint is opened.
void MarkAsLeaving();

// Another process that has the FIFO `fd` open and has no mark: it stays until it is stopped,
// as far as can be told. Nothing when there is none.
std::optional<pid_t> FindKeeper(int fd);

// Whether that process still is such a one.
bool Keeps(pid_t pid, int fd);

// Whether any process has the FIFO open for writing, as every user of the library has.
// `fd` is a look at it. Takes nothing from the FIFO.
bool HasWriters(int fd);

}  // namespace jpipe

#endif
