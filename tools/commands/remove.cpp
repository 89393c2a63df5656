// remove.cpp - jpipe remove: removes an endpoint's FIFO.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "commands.h"
#include "endpoint.h"
#include "holders.h"
#include "output.h"
#include "report.h"
#include "tally.h"

namespace jpipe {
namespace {

// Who has the FIFO open, in words; empty when it is certain that nobody has.
std::string WhoHasItOpen(const FileId& file, const Descriptor& look) {
  const Holders holders = FindHolders();
  if (const auto found = holders.by_file.find(file); found != holders.by_file.end()) {
    return "open in " + Shown(found->second);
  }
  if (look) {
    return HasWriters(look.get()) ? "open in a process that this user may not see" : "";
  }
  return holders.complete ? "" : "another user's, whose processes this user may not see";
}

}  // namespace

int Remove(const Options& options) {
  RequireOutput();
  const std::string& endpoint = options.operands[0];
  const std::string problem = "cannot remove " + endpoint + ": ";
  const std::string fifo = FifoPath(endpoint);
  const Descriptor look = OpenToLook(fifo);
  struct stat status = {};
  if (!look && errno != EACCES) {
    throw Failure(kFailed, problem + WhyNoLook(fifo));
  }
  if (::lstat(fifo.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
    errno = EINVAL;
    throw Failure(kFailed, problem + WhyNoLook(fifo));
  }
  const std::string who = WhoHasItOpen({status.st_dev, status.st_ino}, look);
  if (!who.empty() && !options.force) {
    throw Failure(kFailed, problem + "it is " + who + " (--force removes it anyway)");
  }
  if (::unlink(fifo.c_str()) != 0) {
    throw Failure(kFailed, problem + fifo + ": " + std::strerror(errno));
  }
  if (!who.empty()) {
    Note(endpoint + " was " + who +
         ": processes that have the old FIFO open do not reach those that open the new one");
  }
  Patience patience(std::nullopt);
  return Print(endpoint + ": removed, " +
               (look ? DrainAll(look.get(), BytesWaiting(look.get()), nullptr, patience).Told()
                     : "with its contents, which this user may not read") +
               "\n");
}

}  // namespace jpipe
