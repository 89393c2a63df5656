// endpoint_fuzz.cpp - endpoint strings: accepted exactly when they should be, with the
// FIFO where it should be.
//
// The first byte chooses the direction; the rest is the string.
#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>

#include "jcxxsock.h"
#include "require.h"
#include "support.h"

namespace {

// The name of an endpoint's FIFO; empty if the string is refused.
std::string FileOf(const std::string& name) {
  static const std::regex kAccepted("[@>]?(ipc|inproc)://([^,]+)");
  static const std::regex kSeparator(R"([/\\])");
  std::smatch parts;
  if (!std::regex_match(name, parts, kAccepted)) {
    return "";
  }
  const std::string file =
      "J" + parts.str(1) + "_" + std::regex_replace(parts.str(2), kSeparator, "_");
  return file.size() <= NAME_MAX ? file : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const support::RunDirectory run;
  const std::string bytes(data, data + size);
  const std::string name = bytes.c_str() + std::min<std::size_t>(size, 1);  // up to its first zero
  const std::string file = FileOf(name);
  support::ClearLog();
  support::KeepLog(support::kErrors);
  const auto open = bytes[0] % 2 == 0 ? j_pipe_new_pull : j_pipe_new_push;
  JCXXSock* sock = open(name.c_str());
  Require((sock != nullptr) == !file.empty());
  Require(support::LogLines().size() == (sock != nullptr ? 0 : 1));
  if (sock != nullptr) {
    j_sock_destroy(&sock);
    Require(std::filesystem::is_fifo(run.path(file)));
    std::filesystem::remove(run.path(file));
  }
  return 0;
}
