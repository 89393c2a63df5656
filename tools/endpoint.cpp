// endpoint.cpp - names and FIFOs.
#include "endpoint.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include "report.h"

namespace jpipe {
namespace {

constexpr const char* kNameHelp = "name an endpoint like ipc://sensors/temp or inproc://jobs";

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

std::string FifoPath(const std::string& endpoint) {
  std::string name = endpoint;
  if (name.find(',') != std::string::npos) {
    throw Failure(kUsage, "\"" + endpoint + "\" holds a comma: give one endpoint only");
  }
  if (!name.empty() && (name[0] == '@' || name[0] == '>')) {
    name.erase(0, 1);
  }
  const std::size_t at = name.find("://");
  const std::string transport = name.substr(0, at);
  if (at == std::string::npos || at + 3 == name.size()) {
    throw Failure(kUsage, "\"" + endpoint + "\" is no endpoint: " + kNameHelp);
  }
  if (transport != "ipc" && transport != "inproc") {
    throw Failure(kUsage, "\"" + endpoint + "\" is neither ipc:// nor inproc://: " + kNameHelp);
  }
  std::string path = name.substr(at + 3);
  std::replace(path.begin(), path.end(), '/', '_');
  std::replace(path.begin(), path.end(), '\\', '_');
  return std::string(kRunDirectory) + "/J" + transport + "_" + path;
}

std::string EndpointOfFifo(const std::string& file_name) {
  for (const std::string transport : {"ipc", "inproc"}) {
    const std::string prefix = "J" + transport + "_";
    if (file_name.compare(0, prefix.size(), prefix) == 0 && file_name.size() > prefix.size()) {
      return transport + "://" + file_name.substr(prefix.size());
    }
  }
  return {};
}

int OpenToLook(const std::string& fifo) {
  const int fd = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  struct stat status = {};
  if (fd >= 0 && (::fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode))) {
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

std::size_t BytesWaiting(int fd) {
  int count = 0;
  return ::ioctl(fd, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
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

}  // namespace jpipe
