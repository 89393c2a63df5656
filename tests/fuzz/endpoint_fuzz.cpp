// endpoint_fuzz.cpp - endpoint strings: accepted exactly when they should be, and the
// FIFO where it should be.
//
// The first byte chooses the direction; the rest is the string.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>

#include "fuzz/check.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

// The file that an endpoint stands for; empty when the string is refused.
std::string FileOf(const std::string& name) {
  static const std::regex kFront("[@>]?(ipc|inproc)://");
  std::smatch front;
  if (!std::regex_search(name, front, kFront, std::regex_constants::match_continuous)) {
    return "";
  }
  const std::string path = front.suffix();
  std::string file = 'J' + front.str(1) + "_" + path;
  const auto separator = [](char c) { return c == '/' || c == '\\'; };
  std::replace_if(file.begin(), file.end(), separator, '_');
  const bool refused =
      path.empty() || path.find(',') != std::string::npos || file.size() > NAME_MAX;
  return refused ? "" : file;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::RunDirectory run;
  const std::string bytes(data, data + size);
  const std::string name = bytes.c_str() + std::min<std::size_t>(size, 1);  // up to its first zero
  const std::string file = FileOf(name);
  support::ClearLog();
  support::KeepLog(support::kErrors);
  JCXXSock* sock =
      bytes[0] % 2 == 0 ? j_pipe_new_pull(name.c_str()) : j_pipe_new_push(name.c_str());
  CHECK((sock != nullptr) == !file.empty());
  CHECK(support::LogLines().size() == (sock != nullptr ? 0 : 1));
  if (sock != nullptr) {
    struct stat status = {};
    CHECK(::lstat(run.path(file).c_str(), &status) == 0 && S_ISFIFO(status.st_mode));
    j_sock_destroy(&sock);
    CHECK(::unlink(run.path(file).c_str()) == 0);
  }
  return 0;
}
