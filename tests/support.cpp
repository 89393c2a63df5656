// support.cpp - the log, the scripts and the leak check behind the tests.
#include "support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <new>
#include <string_view>
#include <thread>
#include <utility>

#include "jcxxactorapi.h"
#include "jlog.h"

namespace support {

namespace fs = std::filesystem;

namespace {

// Set while this file works: its own calls are not intercepted.
thread_local bool at_work = false;
struct AtWork {
  const bool was = std::exchange(at_work, true);
  ~AtWork() { at_work = was; }
};

std::mutex log_mutex;
std::vector<LogLine> log_lines;
std::atomic<int> log_level{kAll};

thread_local Script* scripts[static_cast<std::size_t>(Call::kCount)] = {};
std::atomic<const std::string*> run_folder{nullptr};

Script*& SlotOf(Call call) { return scripts[static_cast<std::size_t>(call)]; }

// The place of a path while a RunDirectory lives.
std::string Place(const char* path) {
  constexpr std::string_view kRunDirectory = "/var/run/jactor";
  const AtWork own;
  const std::string* folder = run_folder;
  if (folder != nullptr && std::string_view(path).starts_with(kRunDirectory)) {
    return *folder + "/run" + (path + kRunDirectory.size());
  }
  return path;
}

// The first `limit` bytes of a gather list.
std::vector<iovec> CutList(const iovec* iov, int n, std::size_t limit) {
  std::vector<iovec> list(iov, iov + n);
  for (iovec& entry : list) {
    entry.iov_len = std::min(entry.iov_len, limit);
    limit -= entry.iov_len;
  }
  return list;
}

}  // namespace

// The step of an intercepted call; its `before` has run, and its error is in errno.
Step Take(Call call) {
  Script* const script = SlotOf(call);
  if (at_work || script == nullptr) {
    return {};
  }
  const AtWork own;
  const std::size_t i = script->count_++;
  Step step = i < script->steps_.size() ? script->steps_[i] : script->rest_;
  if (step.before) {
    step.before();
  }
  if ((call == Call::kPthreadCreate || call == Call::kMutexLock) && step.result) {
    step.result = step.error;  // these answer with the error itself
  }
  errno = step.error != 0 ? step.error : errno;
  return step;
}

void ClearLog() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  log_lines.clear();
  log_level = kAll;
}

void KeepLog(int level) { log_level = level; }

std::vector<LogLine> LogLines(int max_level) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  std::vector<LogLine> lines = log_lines;
  std::erase_if(lines, [=](const LogLine& line) { return line.level > max_level; });
  return lines;
}

std::string Log(int max_level, const std::string& function) {
  std::string texts;
  for (const LogLine& line : LogLines(max_level)) {
    if (function.empty() || line.function == function) {
      texts += (texts.empty() ? "" : "; ") + line.text;
    }
  }
  return texts;
}

Script::Script(std::initializer_list<Call> calls, std::vector<Step> steps, Step rest)
    : calls_(calls), steps_(std::move(steps)), rest_(std::move(rest)) {
  for (const Call call : calls_) {
    SlotOf(call) = this;
  }
}

Script::~Script() {
  for (const Call call : calls_) {
    SlotOf(call) = nullptr;
  }
}

RunDirectory::RunDirectory() : folder_(testing::TempDir() + "jactor-XXXXXX") {
  EXPECT_NE(::mkdtemp(folder_.data()), nullptr);
  run_folder = &folder_;
}

RunDirectory::~RunDirectory() {
  run_folder = nullptr;
  fs::remove_all(folder_);
}

std::string RunDirectory::path(const std::string& name) const {
  return folder_ + "/run" + (name.empty() ? "" : "/" + name);
}

Census TakeCensus() {
  const AtWork own;
  Census census;
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the descriptor of this very listing
    const std::string target = fs::read_symlink(entry.path(), gone);
    struct stat file = {};
    if (!target.ends_with("/fd") && ::stat(entry.path().c_str(), &file) == 0) {
      census["descriptor " + entry.path().filename().string() + " of file " +
             std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)] = target;
    }
  }
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/task")) {
    census["thread " + entry.path().filename().string()] = "";
  }
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  const std::lock_guard<std::mutex> lock(api->mutex);
  census["registered objects: " +
         std::to_string(api->socks.size() + api->actors.size() + api->frames.size() +
                        api->msgs.size() + api->pollers.size())] = "";
  return census;
}

std::string LeftSince(const Census& before) {
  for (int wait = 1000;; --wait) {
    std::string left;
    for (const auto& [item, where] : TakeCensus()) {
      left += before.count(item) == 0 ? item + " " + where + "; " : "";
    }
    if (left.empty() || wait == 0) {
      return left;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

Test::Test() {
  std::signal(SIGPIPE, SIG_IGN);
  ClearLog();
  std::thread([] {}).join();  // a sanitizer's own thread starts with the first one
  before_ = TakeCensus();
}

Test::~Test() { EXPECT_EQ(LeftSince(before_), ""); }

PairTest::PairTest() {
  const auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
  a.reset(first);
  b.reset(second);
}

void PairTest::Feed(const std::string& bytes) {
  int fd = -1;
  EXPECT_EQ(a->GetWriteFD(fd), 0);
  EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string PairTest::Drain() {
  std::size_t waiting = 0;
  EXPECT_EQ(b->AvailableToRead(waiting), 0);
  std::string bytes(b->BufferedToRead() + waiting, '\0');
  EXPECT_EQ(b->ReadBlocking(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), waiting),
            0);
  return bytes;
}

}  // namespace support

using namespace support;

#define INTERPOSED extern "C" __attribute__((visibility("default")))

// Leaves another errno than it finds: the library must not judge it.
INTERPOSED void jlog_printf(int level, int module, const char* format, ...) {
  if (level <= log_level) {
    const AtWork own;
    char line[8192];
    char function[64] = "";
    int prefix = 0;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    std::sscanf(line, "%*[a-z].%*[a-z].%*u.%63[^:]:%n", function, &prefix);
    std::string text = line + prefix;
    EXPECT_TRUE(module == 281 && prefix > 0 && text.front() == ' ' && text.back() == '\n')
        << "a line of another form: " << line;
    const std::lock_guard<std::mutex> lock(log_mutex);
    log_lines.push_back({level, function, text.substr(1, text.size() - 2)});
  }
  errno = ENOSPC;
}

// A libc call in front of the real one, which is called with the last arguments
// unless a script answers.
#define INTERPOSE(type, name, call, parameters, ...)                                         \
  INTERPOSED type name parameters {                                                          \
    static const auto real = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name)); \
    const Step step = Take(Call::call);                                                      \
    return step.result ? static_cast<type>(*step.result) : real(__VA_ARGS__);                \
  }

// The third argument of a variadic call: an int, a pointer, or missing.
#define THIRD(last)                    \
  __extension__({                      \
    va_list rest;                      \
    va_start(rest, last);              \
    void* third = va_arg(rest, void*); \
    va_end(rest);                      \
    third;                             \
  })

// clang-format off
INTERPOSE(ssize_t, read, kRead, (int fd, void* buf, size_t n), fd, buf, std::min(n, step.bytes))
INTERPOSE(ssize_t, write, kWrite, (int fd, const void* buf, size_t n),
          fd, buf, std::min(n, step.bytes))
INTERPOSE(ssize_t, readv, kReadv, (int fd, const iovec* iov, int n),
          fd, CutList(iov, n, step.bytes).data(), n)
INTERPOSE(ssize_t, writev, kWritev, (int fd, const iovec* iov, int n),
          fd, CutList(iov, n, step.bytes).data(), n)
INTERPOSE(int, ioctl, kIoctl, (int fd, unsigned long request, ...) noexcept,
          fd, request, THIRD(request))
INTERPOSE(int, fcntl, kFcntl, (int fd, int command, ...), fd, command, THIRD(command))
INTERPOSE(int, pipe, kPipe, (int* ends) noexcept, ends)
INTERPOSE(int, open, kOpen, (const char* path, int flags, ...),
          Place(path).c_str(), flags, THIRD(flags))
INTERPOSE(int, mkfifo, kMkfifo, (const char* path, mode_t mode) noexcept, Place(path).c_str(), mode)
INTERPOSE(int, mkdir, kMkdir, (const char* path, mode_t mode) noexcept, Place(path).c_str(), mode)
INTERPOSE(int, stat, kStat, (const char* path, struct stat* status) noexcept,
          Place(path).c_str(), status)
INTERPOSE(int, fstat, kFstat, (int fd, struct stat* status) noexcept, fd, status)
INTERPOSE(int, remove, kRemove, (const char* path) noexcept, Place(path).c_str())
INTERPOSE(int, fchmodat, kFchmodat, (int fd, const char* path, mode_t mode, int flags) noexcept,
          fd, Place(path).c_str(), mode, flags)
INTERPOSE(int, poll, kPoll, (pollfd* fds, nfds_t n, int timeout), fds, n, timeout)
INTERPOSE(int, pthread_create, kPthreadCreate,
          (pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*), void* arg) noexcept,
          thread, how, body, arg)
INTERPOSE(int, pthread_mutex_lock, kMutexLock, (pthread_mutex_t* mutex) noexcept, mutex)
// clang-format on

// The descriptor is gone also when the call is made to fail, as on Linux.
INTERPOSED int close(int fd) {
  static const auto real = reinterpret_cast<decltype(&::close)>(::dlsym(RTLD_NEXT, "close"));
  const int rc = real(fd);
  return static_cast<int>(Take(Call::kClose).result.value_or(rc));
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Take(Call::kNew).result ? nullptr : std::malloc(size);
}
void* operator new(std::size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
// The standard library's forms for arrays would call these; a sanitizer's do not.
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
