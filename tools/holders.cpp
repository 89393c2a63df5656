// holders.cpp - who has a FIFO open, as /proc tells.
#include "holders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

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

// Whether the descriptor that `info` (a file of /proc/PID/fdinfo) tells of is only
// a look into the FIFO.
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

void AddFifosOf(pid_t pid, Holders& found) {
  const std::string process = "/proc/" + std::to_string(pid);
  const std::string fd_folder = process + "/fd/";
  const std::string fdinfo_folder = process + "/fdinfo/";
  const Directory descriptors(::opendir(fd_folder.c_str()));
  if (descriptors == nullptr) {
    found.complete = found.complete && errno != EACCES;
    return;
  }
  while (const dirent* entry = ::readdir(descriptors.get())) {
    const std::string name = entry->d_name;
    struct stat status = {};
    if (::stat((fd_folder + name).c_str(), &status) == 0 && S_ISFIFO(status.st_mode) &&
        !IsOnlyALook(fdinfo_folder + name)) {
      AddHolder(found.by_file[{status.st_dev, status.st_ino}], pid, process);
    }
  }
}

// The seconds that a process has been running; 0 when that cannot be told.
double Age(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(file, line)) {
    return 0;
  }
  // The 20th word behind the program's name in brackets is when it started.
  std::istringstream words(line.substr(line.rfind(')') + 1));
  std::string started;
  for (int k = 0; k < 20; ++k) {
    words >> started;
  }
  if (!words) {
    return 0;
  }
  timespec now = {};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const double ticks = std::strtod(started.c_str(), nullptr);
  return static_cast<double>(now.tv_sec) - ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
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
  const Directory processes(::opendir("/proc"));
  if (processes == nullptr) {
    found.complete = false;
    return found;
  }
  while (const dirent* entry = ::readdir(processes.get())) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (*end == '\0' && pid > 0 && pid != ::getpid()) {
      AddFifosOf(static_cast<pid_t>(pid), found);
    }
  }
  return found;
}

bool IsHeldElsewhere(int fd, double seconds) {
  struct stat status = {};
  if (::fstat(fd, &status) != 0) {
    return false;
  }
  const std::vector<Holder> holders = FindHolders().by_file[{status.st_dev, status.st_ino}];
  return std::any_of(holders.begin(), holders.end(), [=](const Holder& holder) {
    return seconds <= 0 || Age(holder.pid) >= seconds;
  });
}

bool HasWriters(int fd) {
  const Pipe copy;
  // 0: the end of the stream, since nobody can write.
  return ::tee(fd, copy.write_end.get(), 1, SPLICE_F_NONBLOCK) != 0;
}

}  // namespace jpipe
