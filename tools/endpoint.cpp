// endpoint.cpp - names and FIFOs.
#include "endpoint.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "report.h"

namespace jpipe {
namespace {

constexpr const char* kNameHelp = "name an endpoint like ipc://sensors/temp or inproc://jobs";

}  // namespace

std::string FifoPath(const std::string& endpoint) {
  std::string name = endpoint;
  if (name.find(',') != std::string::npos) {
    throw Failure(kUsage, "\"" + endpoint + "\" contains a comma: give only one endpoint");
  }
  if (!name.empty() && (name[0] == '@' || name[0] == '>')) {
    name.erase(0, 1);
  }
  const std::size_t at = name.find("://");
  const std::string transport = name.substr(0, at);
  if (at == std::string::npos || at + 3 == name.size()) {
    throw Failure(kUsage, "\"" + endpoint + "\" is not an endpoint: " + kNameHelp);
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

Descriptor OpenToLook(const std::string& fifo) {
  Descriptor fd(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISFIFO(status.st_mode))) {
    fd = Descriptor();
    errno = EINVAL;
  }
  return fd;
}

std::string WhyNoLook(const std::string& fifo) {
  switch (errno) {
    case ENOENT:
      return "nobody has ever opened it (there is no " + fifo + "): jpipe list shows the endpoints";
    case EINVAL:
    case ELOOP:
      return fifo + " is not a FIFO: remove it by hand";
    default:
      return fifo + ": " + std::strerror(errno);
  }
}

std::size_t BytesWaiting(int fd) {
  int count = 0;
  return ::ioctl(fd, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}

}  // namespace jpipe
