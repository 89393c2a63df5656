// support.cpp - the log, the scripts and the leak check behind the tests.
#include "support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kRunDirectory = "/var/run/jactor";
constexpr int kModule = 281;

// Set while this file works: its own calls are not intercepted.
thread_local bool at_work = false;
class AtWork {
 public:
  AtWork() : was_(std::exchange(at_work, true)) {}
  ~AtWork() { at_work = was_; }

 private:
  bool was_;
};

std::mutex log_mutex;
std::vector<LogLine> log_lines;
std::atomic<int> log_level{kAll};

std::mutex script_mutex;
std::atomic<Script*> scripts[static_cast<std::size_t>(Call::kCount)];
std::atomic<const std::string*> run_directory{nullptr};

std::string Formatted(const char* format, va_list arguments) {
  char* text = nullptr;
  EXPECT_GE(::vasprintf(&text, format, arguments), 0);
  const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
  return text;
}

int ThreadId() { return static_cast<int>(::syscall(SYS_gettid)); }

// The place of a path while a RunDirectory lives.
std::string Place(const char* path) {
  const AtWork own;
  const std::string* directory = run_directory.load();
  if (directory != nullptr && std::string_view(path).starts_with(kRunDirectory)) {
    return *directory + (path + kRunDirectory.size());
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

// What becomes of one intercepted call: `done` with `result`, or the real call
// for at most `limit` bytes.
class Interceptor {
 public:
  explicit Interceptor(Call call, const iovec* iov = nullptr, int n = 0) {
    std::atomic<Script*>& slot = scripts[static_cast<std::size_t>(call)];
    if (at_work || slot.load() == nullptr) {
      return;
    }
    const AtWork own;
    const Step* step = NextStep(slot, iov, n);
    if (step == nullptr) {
      return;
    }
    if (step->before) {
      step->before();
    }
    done = step->kind == Step::kFail || step->kind == Step::kReturn;
    result = step->kind == Step::kFail ? -1 : step->value;
    if (step->kind == Step::kFail) {
      errno = static_cast<int>(step->value);
    } else if (step->kind == Step::kCut) {
      limit = static_cast<std::size_t>(step->value);
    }
  }

  bool done = false;
  long result = 0;
  std::size_t limit = SSIZE_MAX;

 private:
  static const Step* NextStep(std::atomic<Script*>& slot, const iovec* iov, int n) {
    const std::lock_guard<std::mutex> lock(script_mutex);
    Script* script = slot.load();
    if (script == nullptr || (script->thread_ != 0 && script->thread_ != ThreadId())) {
      return nullptr;
    }
    if (iov != nullptr) {
      script->gathered_.emplace_back(iov, iov + n);
    }
    const std::size_t i = script->count_++;
    return i < script->steps_.size() ? &script->steps_[i] : &script->rest_;
  }
};

void ClearLog() {
  const std::lock_guard<std::mutex> lock(log_mutex);
  log_lines.clear();
  log_level = kAll;
}

void KeepLog(int level) { log_level = level; }

std::vector<LogLine> LogLines(int max_level) {
  const std::lock_guard<std::mutex> lock(log_mutex);
  std::vector<LogLine> lines;
  std::copy_if(log_lines.begin(), log_lines.end(), std::back_inserter(lines),
               [=](const LogLine& line) { return line.level <= max_level; });
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

Step Pass(std::function<void()> before) { return {Step::kPass, 0, std::move(before)}; }
Step Fail(int error) { return {Step::kFail, error}; }
Step Return(long value) { return {Step::kReturn, value}; }
Step Cut(std::size_t bytes) { return {Step::kCut, static_cast<long>(bytes)}; }

Script::Script(std::initializer_list<Call> calls, std::vector<Step> steps, Step rest,
               bool this_thread_only)
    : calls_(calls),
      steps_(std::move(steps)),
      rest_(std::move(rest)),
      thread_(this_thread_only ? ThreadId() : 0) {
  for (const Call call : calls_) {
    scripts[static_cast<std::size_t>(call)] = this;
  }
}

Script::~Script() {
  const std::lock_guard<std::mutex> lock(script_mutex);
  for (const Call call : calls_) {
    scripts[static_cast<std::size_t>(call)] = nullptr;
  }
}

std::size_t Script::count() const {
  const std::lock_guard<std::mutex> lock(script_mutex);
  return count_;
}

std::string Bytes(const std::string& hex) {
  std::string bytes;
  std::string digits;
  for (const char digit : hex) {
    digits += digit == ' ' ? "" : std::string(1, digit);
    if (digits.size() == 2) {
      bytes += static_cast<char>(std::stoi(std::exchange(digits, ""), nullptr, 16));
    }
  }
  return bytes;
}

RunDirectory::RunDirectory() : folder_(testing::TempDir() + "jactor-XXXXXX") {
  if (::mkdtemp(folder_.data()) == nullptr) {
    throw fs::filesystem_error("mkdtemp", std::error_code(errno, std::system_category()));
  }
  directory_ = folder_ + "/run";
  run_directory = &directory_;
}

RunDirectory::~RunDirectory() {
  run_directory = nullptr;
  fs::remove_all(folder_);
}

std::string RunDirectory::path(const std::string& name) const {
  return name.empty() ? directory_ : directory_ + "/" + name;
}

UniqueEndpoint::UniqueEndpoint(const std::string& transport) {
  static std::atomic<int> counter{0};
  const std::string pid = std::to_string(::getpid());
  const std::string number = std::to_string(++counter);
  name = transport + "://test/" + pid + "/" + number;
  fifo = std::string(kRunDirectory) + "/J" + transport + "_test_" + pid + "_" + number;
}

UniqueEndpoint::~UniqueEndpoint() { ::unlink(fifo.c_str()); }

Census TakeCensus() {
  Census census = {};
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the descriptor of this very listing
    const fs::path target = fs::read_symlink(entry.path(), gone);
    if (target.string().find("/fd") == std::string::npos) {
      census.descriptors[std::stoi(entry.path().filename())] = target;
    }
  }
  const fs::directory_iterator tasks("/proc/self/task");
  census.threads = static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
  JCXXActorAPI* api = JCXXActorAPI::GetInstance();
  const std::lock_guard<std::mutex> lock(api->mutex);
  census.objects = api->socks.size() + api->actors.size() + api->frames.size() + api->msgs.size() +
                   api->pollers.size();
  return census;
}

std::string LeftSince(const Census& before) {
  Census now = TakeCensus();
  for (int wait = 0; now.threads > before.threads && wait < 1000; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    now = TakeCensus();
  }
  std::string left;
  for (const auto& [fd, target] : now.descriptors) {
    const auto found = before.descriptors.find(fd);
    if (found == before.descriptors.end() || found->second != target) {
      left += "descriptor " + std::to_string(fd) + " (" + target + ") ";
    }
  }
  if (now.threads > before.threads || now.objects != before.objects) {
    left += "threads: " + std::to_string(before.threads) + ", now " + std::to_string(now.threads) +
            "; registered objects: " + std::to_string(before.objects) + ", now " +
            std::to_string(now.objects);
  }
  return left;
}

void Test::SetUp() {
  std::signal(SIGPIPE, SIG_IGN);
  ClearLog();
  std::thread([] {}).join();  // a sanitizer's own thread starts with the first one
  before_ = TakeCensus();
}

void Test::TearDown() { EXPECT_EQ(LeftSince(before_), ""); }

void PairTest::SetUp() {
  Test::SetUp();
  auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
  a.reset(first);
  b.reset(second);
  ClearLog();
}

void PairTest::TearDown() {
  a.reset();
  b.reset();
  Test::TearDown();
}

void PairTest::Feed(const std::string& bytes) {
  int fd = -1;
  ASSERT_EQ(a->GetWriteFD(fd), 0);
  ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
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
    va_list arguments;
    va_start(arguments, format);
    const std::string whole = Formatted(format, arguments);
    va_end(arguments);
    va_start(arguments, format);
    const std::string file = va_arg(arguments, const char*);
    const std::string number = std::to_string(va_arg(arguments, int));
    const std::string function = va_arg(arguments, const char*);
    va_end(arguments);
    const std::string prefix = file + "." + number + "." + function + ": ";
    if (module != kModule || !whole.starts_with(prefix) || !whole.ends_with('\n') ||
        file.find('/') != std::string::npos) {
      ADD_FAILURE() << "a line of another form: " << whole;
    } else {
      const std::lock_guard<std::mutex> lock(log_mutex);
      log_lines.push_back(
          {level, format, function, whole.substr(prefix.size(), whole.size() - prefix.size() - 1)});
    }
  }
  errno = ENOSPC;
}

// A libc call in front of the real one, which is called with the last arguments
// unless a script answers.
#define INTERPOSE(type, name, parameters, suffix, interceptor, ...)                          \
  INTERPOSED type name parameters suffix {                                                   \
    static const auto real = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name)); \
    const Interceptor to interceptor;                                                        \
    return to.done ? static_cast<type>(to.result) : real(__VA_ARGS__);                       \
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
INTERPOSE(ssize_t, read, (int fd, void* buf, size_t n), , (Call::kRead),
          fd, buf, std::min(n, to.limit))
INTERPOSE(ssize_t, write, (int fd, const void* buf, size_t n), , (Call::kWrite),
          fd, buf, std::min(n, to.limit))
INTERPOSE(ssize_t, readv, (int fd, const iovec* iov, int n), , (Call::kReadv),
          fd, CutList(iov, n, to.limit).data(), n)
INTERPOSE(ssize_t, writev, (int fd, const iovec* iov, int n), , (Call::kWritev, iov, n),
          fd, CutList(iov, n, to.limit).data(), n)
INTERPOSE(int, ioctl, (int fd, unsigned long request, ...), noexcept, (Call::kIoctl),
          fd, request, THIRD(request))
INTERPOSE(int, fcntl, (int fd, int command, ...), , (Call::kFcntl), fd, command, THIRD(command))
INTERPOSE(int, pipe, (int* ends), noexcept, (Call::kPipe), ends)

// The descriptor is gone also when the call is made to fail, as on Linux.
INTERPOSED int close(int fd) {
  static const auto real = reinterpret_cast<decltype(&::close)>(::dlsym(RTLD_NEXT, "close"));
  const int rc = real(fd);
  const Interceptor to(Call::kClose);
  return to.done ? static_cast<int>(to.result) : rc;
}

INTERPOSE(int, open, (const char* path, int flags, ...), , (Call::kOpen),
          Place(path).c_str(), flags, THIRD(flags))
INTERPOSE(int, mkfifo, (const char* path, mode_t mode), noexcept, (Call::kMkfifo),
          Place(path).c_str(), mode)
INTERPOSE(int, mkdir, (const char* path, mode_t mode), noexcept, (Call::kMkdir),
          Place(path).c_str(), mode)
INTERPOSE(int, stat, (const char* path, struct stat* status), noexcept, (Call::kStat),
          Place(path).c_str(), status)
INTERPOSE(int, fstat, (int fd, struct stat* status), noexcept, (Call::kFstat), fd, status)
INTERPOSE(int, remove, (const char* path), noexcept, (Call::kRemove), Place(path).c_str())
INTERPOSE(int, fchmodat, (int fd, const char* path, mode_t mode, int flags), noexcept,
          (Call::kFchmodat), fd, Place(path).c_str(), mode, flags)
// clang-format on

// Answers with the error itself.
INTERPOSED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&::pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  const Interceptor to(Call::kPthreadCreate);
  return to.done ? errno : real(thread, attributes, body, argument);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Interceptor(Call::kNew).done ? nullptr : std::malloc(size);
}
void* operator new(std::size_t size) {
  if (void* memory = operator new(size, std::nothrow)) {
    return memory;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
