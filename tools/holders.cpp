// holders.cpp - who has a FIFO open, according to /proc.
#include "holders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>

#include "descriptor.h"
#include "formats.h"
#include "report.h"

namespace jpipe {
namespace {

std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// Whether the descriptor that `info` (a file of /proc/PID/fdinfo) describes is only a look
// at the FIFO.
bool IsOnlyALook(const std::string& info) {
  std::ifstream file(info);
  std::string word;
  while (file >> word) {
    if (word == "flags:" && file >> word) {
      const auto flags = std::strtol(word.c_str(), nullptr, 8);
      return (flags & O_ACCMODE) == O_RDONLY && (flags & O_NONBLOCK) != 0;
    }
  }
  return false;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

void AddHolder(std::vector<Holder>& holders, pid_t pid, const std::string& process) {
  if (holders.empty() || holders.back().pid != pid) {
    holders.push_back({pid, FirstLine(process + "/comm")});
  }
}

// Calls `look(folder, name)` for the descriptors of a process, until it returns true.
// Result: whether it did; nothing, and errno, when the process cannot be looked into.
template <class Look>
std::optional<bool> AnyDescriptor(pid_t pid, Look look) {
  const std::string process = "/proc/" + std::to_string(pid);
  const Directory descriptors(::opendir((process + "/fd").c_str()));
  if (descriptors == nullptr) {
    return std::nullopt;
  }
  while (const dirent* entry = ::readdir(descriptors.get())) {
    if (look(process, std::string(entry->d_name))) {
      return true;
    }
  }
  return false;
}

// The FIFO that a descriptor has open, unless it is only a look.
std::optional<FileId> OpenFifo(const std::string& process, const std::string& name) {
  struct stat status = {};
  if (::stat((process + "/fd/" + name).c_str(), &status) != 0 || !S_ISFIFO(status.st_mode) ||
      IsOnlyALook(process + "/fdinfo/" + name)) {
    return std::nullopt;
  }
  return FileId(status.st_dev, status.st_ino);
}

void AddFifosOf(pid_t pid, Holders& found) {
  const auto seen = AnyDescriptor(pid, [&](const std::string& process, const std::string& name) {
    if (const auto id = OpenFifo(process, name)) {
      AddHolder(found.by_file[*id], pid, process);
    }
    return false;
  });
  found.complete = found.complete && (seen || errno != EACCES);
}

// Visits the other processes, in the order of /proc, until `visit` returns true. Result:
// whether /proc could be read.
template <class Visit>
bool VisitOthers(Visit visit) {
  const Directory processes(::opendir("/proc"));
  if (processes == nullptr) {
    return false;
  }
  while (const dirent* entry = ::readdir(processes.get())) {
    char* end = nullptr;
    const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, &end, 10));
    if (*end == '\0' && pid > 0 && pid != ::getpid() && visit(pid)) {
      break;
    }
  }
  return true;
}

constexpr const char* kMark = "jpipe-leaves";

bool HasMark(pid_t pid) {
  const std::string target = std::string("/memfd:") + kMark + " (deleted)";
  return AnyDescriptor(pid,
                       [&](const std::string& process, const std::string& name) {
                         char link[64];
                         const ssize_t length =
                             ::readlink((process + "/fd/" + name).c_str(), link, sizeof link);
                         return length > 0 &&
                                std::string_view(link, static_cast<std::size_t>(length)) == target;
                       })
      .value_or(false);
}

std::optional<FileId> IdOf(int fd) {
  struct stat status = {};
  return ::fstat(fd, &status) == 0 ? std::optional(FileId(status.st_dev, status.st_ino))
                                   : std::nullopt;
}

bool HasOpen(pid_t pid, const FileId& id) {
  return AnyDescriptor(pid, [&](const std::string& process,
                                const std::string& name) { return OpenFifo(process, name) == id; })
      .value_or(false);
}

}  // namespace

std::string Shown(const std::vector<Holder>& holders) {
  std::string shown;
  for (const Holder& holder : holders) {
    shown +=
        Text("%s%d(%s)", shown.empty() ? "" : " ", holder.pid, Harmless(holder.program).c_str());
  }
  return shown;
}

Holders FindHolders() {
  Holders found;
  const bool readable = VisitOthers([&](pid_t pid) {
    AddFifosOf(pid, found);
    return false;
  });
  found.complete = found.complete && readable;
  return found;
}

bool IsHeldElsewhere(int fd) {
  bool held = false;
  if (const auto id = IdOf(fd)) {
    VisitOthers([&](pid_t pid) { return held = HasOpen(pid, *id); });
  }
  return held;
}

void MarkAsLeaving() { static const Descriptor mark(::memfd_create(kMark, MFD_CLOEXEC)); }

// Looks for the mark first: a process that opens the endpoint in between has it by then.
std::optional<pid_t> FindKeeper(int fd) {
  std::optional<pid_t> keeper;
  VisitOthers([&](pid_t pid) {
    if (Keeps(pid, fd)) {
      keeper = pid;
    }
    return keeper.has_value();
  });
  return keeper;
}

bool Keeps(pid_t pid, int fd) {
  const auto id = IdOf(fd);
  return id && !HasMark(pid) && HasOpen(pid, *id);
}

bool HasWriters(int fd) {
  const Pipe copy;
  // 0: the end of the stream, since nobody can write.
  return ::tee(fd, copy.write_end.get(), 1, SPLICE_F_NONBLOCK) != 0;
}

}  // namespace jpipe
