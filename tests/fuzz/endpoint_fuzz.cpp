// endpoint_fuzz.cpp - endpoint strings: accepted exactly when they should be, and the
// FIFO where it should be.
//
// The first byte chooses the direction; the rest is the string.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fuzz/check.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

// The file that an endpoint stands for; empty when the string is refused.
std::string FileOf(std::string name) {
  if (name.size() < 5 || name.find(',') != std::string::npos) {
    return "";
  }
  if (name[0] == '@' || name[0] == '>') {
    name.erase(0, 1);
  }
  for (const std::string transport : {"ipc", "inproc"}) {
    const std::string front = transport + "://";
    if (name.starts_with(front) && name.size() > front.size()) {
      std::string path = name.substr(front.size());
      std::replace_if(
          path.begin(), path.end(), [](char c) { return c == '/' || c == '\\'; }, '_');
      const std::string file = "J" + transport + "_" + path;
      return file.size() <= NAME_MAX ? file : "";
    }
  }
  return "";
}

void CheckSplitting(std::string name) {
  std::string joined;
  for (const std::string& piece : SockFromNamedEndpoint::SplitAtCommas(name)) {
    joined += "," + piece;
  }
  CHECK(joined == "," + name);
  std::string transport = "x";
  std::string path = "y";
  SockFromNamedEndpoint::SplitLikeURI(name, transport, path);
  CHECK(transport.empty() == path.empty());
  CHECK(transport.empty() || transport + "://" + path == name);
  CHECK(transport.find("://") == std::string::npos);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::RunDirectory run;
  if (size < 1) {
    return 0;
  }
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  CheckSplitting(bytes);
  const std::string name = bytes.c_str();  // up to its first zero
  const std::string file = FileOf(name);
  support::ClearLog();
  support::KeepLog(support::kErrors);
  JCXXSock* sock = data[0] % 2 == 0 ? j_pipe_new_pull(name.c_str()) : j_pipe_new_push(name.c_str());
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
