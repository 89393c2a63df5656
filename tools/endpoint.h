// endpoint.h - endpoint names, their FIFOs, and who has a FIFO open.
#ifndef JPIPE_ENDPOINT_H
#define JPIPE_ENDPOINT_H

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace jpipe {

constexpr const char* kRunDirectory = "/var/run/jactor";

// The FIFO of an endpoint. Fails with kUsage when `endpoint` is not a name that
// the library accepts.
std::string FifoPath(const std::string& endpoint);

// The endpoint of a FIFO's file name, as far as it can be told: where the name
// had "/" or "\" it now has "_". Empty when it is no endpoint's FIFO.
std::string EndpointOfFifo(const std::string& file_name);

// A look into a FIFO: opened for reading only and without waiting, so that it is
// told apart from the endpoint's own users. Result: the descriptor, or -1 and
// errno.
int OpenToLook(const std::string& fifo);

// The bytes that wait in the FIFO.
std::size_t BytesWaiting(int fd);

using FileId = std::pair<dev_t, ino_t>;

struct Holder {
  pid_t pid;
  std::string program;
};

struct Holders {
  std::map<FileId, std::vector<Holder>> by_file;
  bool complete = true;  // false: some processes could not be looked into
};

// Finds the other processes that have FIFOs open, as far as /proc tells. Who only
// has a look (OpenToLook) does not count.
Holders FindHolders();

// Whether another process, running for at least `seconds`, is known to have the FIFO
// `fd` open.
bool IsHeldElsewhere(int fd, double seconds = 0);

}  // namespace jpipe

#endif
