// plugin_host.cpp - a host that has used up nearly all of the static thread-local storage
// that a process reserves for libraries loaded by dlopen().
//
//   plugin_host TAKER LIBRARY...
//
// TAKER is a library with 64 bytes of such storage. A child process loads copies of it until
// there is no room; then this process loads two fewer of them, and each LIBRARY.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

// Loads copies of the taker, at most `most`. Result: how many could be loaded.
int Take(const fs::path& folder, const char* taker, int most) {
  for (int n = 0; n < most; ++n) {
    const fs::path copy = folder / (std::to_string(n) + ".so");
    fs::copy_file(taker, copy, fs::copy_options::skip_existing);
    if (::dlopen(copy.c_str(), RTLD_NOW) == nullptr) {
      return n;
    }
  }
  return most;
}

int CountRoom(const fs::path& folder, const char* taker) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    std::_Exit(Take(folder, taker, 255));
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  char name[] = "/tmp/plugin-host-XXXXXX";
  const fs::path folder = ::mkdtemp(name);
  const int room = CountRoom(folder, argv[1]);
  int rc = room >= 2 && room < 255 && Take(folder, argv[1], room - 2) == room - 2 ? 0 : 1;
  std::printf("room for %d takers of 64 bytes\n", room);
  for (int i = 2; i < argc && rc == 0; ++i) {
    if (::dlopen(argv[i], RTLD_NOW | RTLD_GLOBAL) == nullptr) {
      std::printf("%s\n", ::dlerror());
      rc = 1;
    }
  }
  fs::remove_all(folder);
  return rc;
}
