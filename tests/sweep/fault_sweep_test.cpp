// fault_sweep_test.cpp - every allocation and every system call of the library
// fails once, at every place where it is made.
//
// Each scenario runs again and again while its n-th call of one kind fails, for
// n = 1, 2, ... until it runs through; once with that call alone failing, once
// with all later ones too. Only calls of the scenario's own thread fail.
#include <czmq.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

using support::Call;

// The malloc family, as the library and what works for it call it. The test's own
// allocations and CZMQ's, which end the process when they fail, are left alone;
// operator new is one of the scripted calls.

thread_local unsigned long heap_calls = 0;  // counted from the moment it is not 0
thread_local unsigned long heap_fail_from = 0;
thread_local unsigned long heap_fail_to = 0;
std::atomic<long> live_blocks{0};

struct Range {
  std::uintptr_t from, to;
};
std::vector<Range> LibraryCode() {
  std::vector<Range> ranges;
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* found) {
        for (const char* name : {"libjactor.so", "libstdc++.so", "ld-linux"}) {
          for (int i = 0; std::strstr(info->dlpi_name, name) != nullptr && i < info->dlpi_phnum;
               ++i) {
            const auto from = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
            static_cast<std::vector<Range>*>(found)->push_back(
                {from, from + info->dlpi_phdr[i].p_memsz});
          }
        }
        return 0;
      },
      &ranges);
  return ranges;
}

const std::vector<Range> library_code = LibraryCode();

[[maybe_unused]] bool HeapFails(const void* caller) {
  if (heap_calls == 0) {
    return false;
  }
  const auto at = reinterpret_cast<std::uintptr_t>(caller);
  const bool ours = std::any_of(library_code.begin(), library_code.end(), [=](const Range& range) {
    return at >= range.from && at < range.to;
  });
  if (ours) {
    const unsigned long n = heap_calls++;
    return n >= heap_fail_from && n <= heap_fail_to;
  }
  return false;
}

#ifdef JACTOR_SANITIZED
constexpr bool kHeapInterposed = false;  // the sanitizers own the heap
#else
constexpr bool kHeapInterposed = true;
}  // namespace

extern "C" {
#define INTERPOSED __attribute__((visibility("default")))
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

static void* Counted(void* block) {
  live_blocks += block != nullptr ? 1 : 0;
  return block;
}
INTERPOSED void* malloc(size_t n) noexcept {
  return HeapFails(__builtin_return_address(0)) ? nullptr : Counted(__libc_malloc(n));
}
INTERPOSED void* calloc(size_t n, size_t size) noexcept {
  return HeapFails(__builtin_return_address(0)) ? nullptr : Counted(__libc_calloc(n, size));
}
INTERPOSED void* realloc(void* old, size_t n) noexcept {
  if (HeapFails(__builtin_return_address(0))) {
    return nullptr;
  }
  live_blocks -= old != nullptr ? 1 : 0;
  return Counted(__libc_realloc(old, n));
}
INTERPOSED void free(void* block) noexcept {
  live_blocks -= block != nullptr ? 1 : 0;
  __libc_free(block);
}
}

namespace {
#endif

const std::string block(1048576, 'x');

void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (JCXXMsg* msg = j_msg_recv(sock)) {
    if (j_msg_send(&msg, sock) != 0) {
      j_msg_destroy(&msg);
    }
  }
}

// Answers with half a message, which ends the creator's wait.
void FailsToStart(j_sock_t* sock, void*) {
  int fd = -1;
  sock->GetWriteFD(fd);
  (void)!::write(fd, "\x45\x81", 2);  // fails when the creator has given up
}

// What a scenario works on, made before faults begin and new for each run.
struct World {
  // More objects than the registry keeps spare entries for.
  std::array<JCXXMsg, 65> msgs;
  std::array<JCXXFrame, 65> frames;
  std::array<SockFromPipes, 65> socks;
  std::array<JCXXActor, 65> actors;

  support::RunDirectory run;
  const std::string fifo = run.path("Jipc_sweep");
  JCXXActor* echo = nullptr;
  JCXXSock* push = nullptr;
  JCXXSock* pull = nullptr;
  zloop_t* loop = nullptr;
  ~World() {
    zloop_destroy(&loop);
    j_actor_destroy(&echo);
    j_sock_destroy(&push);
    j_sock_destroy(&pull);
  }
};

// A scenario's result: whether everything worked. What a failed call leaves
// behind it checks itself.
struct Scenario {
  const char* name;
  void (*prepare)(World&);
  bool (*run)(World&);
  bool fails_anyway = false;  // and then the result never changes
};

bool BuildAndTakeApart(World&) {
  JCXXMsg* msg = j_msg_new();
  if (msg == nullptr) {
    return false;
  }
  bool ok = j_msg_addstr(msg, "abc") == 0;
  EXPECT_EQ(msg->GetSize(), ok ? 3U : 0U);
  ok = ok && j_msg_addmem(msg, block.data(), 300) == 0;
  char* text = ok ? j_msg_popstr(msg) : nullptr;
  EXPECT_TRUE(text == nullptr || std::strcmp(text, "abc") == 0);
  EXPECT_TRUE(!ok || msg->GetSize() == (text == nullptr ? 303U : 300U));
  JCXXFrame* frame = text != nullptr ? j_msg_pop(msg) : nullptr;
  ok = frame != nullptr && j_frame_size(frame) == 300 &&
       std::memcmp(j_frame_data(frame), block.data(), 300) == 0;
  std::free(text);
  j_frame_destroy(&frame);
  j_msg_destroy(&msg);
  return ok;
}

// Sends frames of the given sizes and receives them again.
bool Exchange(void* to, void* from, std::initializer_list<std::size_t> sizes) {
  JCXXMsg* msg = j_msg_new();
  bool ok = msg != nullptr;
  for (const std::size_t size : sizes) {
    ok = ok && j_msg_addmem(msg, block.data(), size) == 0;
  }
  if (!ok || j_msg_send(&msg, to) != 0) {
    EXPECT_TRUE(!ok || (msg != nullptr && msg->GetFrameList().size() == sizes.size()));
    j_msg_destroy(&msg);
    return false;
  }
  EXPECT_EQ(msg, nullptr);
  msg = j_msg_recv(from);
  if (msg == nullptr) {
    return false;
  }
  for (const std::size_t size : sizes) {
    JCXXFrame* frame = msg->Pop();
    EXPECT_TRUE(frame != nullptr && frame->GetSize() == size &&
                (size == 0 || std::memcmp(frame->GetData(), block.data(), size) == 0));
    delete frame;
  }
  EXPECT_TRUE(msg->GetFrameList().empty());
  j_msg_destroy(&msg);
  return true;
}

bool ExchangeSignal(World& world) {
  if (j_sock_signal(world.echo, 200) != 0) {
    return false;
  }
  JCXXMsg* msg = j_msg_recv(world.echo);
  EXPECT_TRUE(msg == nullptr || j_msg_signal(msg) == 200);
  const bool ok = msg != nullptr;
  j_msg_destroy(&msg);
  return ok;
}

bool MakePair(World&) {
  try {
    const auto pair = SockFromPipes::MakeSockPairFromPipes();
    delete std::get<0>(pair);
    delete std::get<1>(pair);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool StartAndStop(World&) {
  JCXXActor* actor = j_actor_new(Echo, nullptr);
  const bool ok = actor != nullptr;
  j_actor_destroy(&actor);
  return ok;
}

bool OpenEndpoint(World& world) {
  JCXXSock* sock = j_pipe_new_pull("@ipc://sweep");
  const bool ok = sock != nullptr;
  struct stat status = {};
  EXPECT_TRUE(!ok || (::lstat(world.fifo.c_str(), &status) == 0 && S_ISFIFO(status.st_mode) &&
                      (status.st_mode & 0777) == 0666));
  j_sock_destroy(&sock);
  return ok;
}

bool RegisterAndEnd(World& world) {
  const int rc = hybrid_zloop_reader(
      world.loop, world.pull, [](zloop_t*, j_sock_t*, void*) { return -1; }, nullptr);
  hybrid_zloop_reader_end(world.loop, world.pull);
  return rc == 0;
}

void WithEcho(World& world) { world.echo = j_actor_new(Echo, nullptr); }
void WithEndpoint(World& world) {
  world.push = j_pipe_new_push(">ipc://sweep");
  world.pull = j_pipe_new_pull("@ipc://sweep");
}
void MakeRunDirectory(World& world) { ::mkdir(world.run.path().c_str(), 0777); }

const Scenario kScenarios[] = {
    {"BuildAndTakeApart", [](World&) {}, BuildAndTakeApart},
    {"OneFrame", WithEcho, [](World& w) { return Exchange(w.echo, w.echo, {5}); }},
    {"SeveralFrames", WithEcho,
     [](World& w) {
       return Exchange(w.echo, w.echo, {3, 0, 300, 0, 5000, 1, 1, 1, 1, 1});
     }},
    {"NoFrames", WithEcho, [](World& w) { return Exchange(w.echo, w.echo, {}); }},
    {"Signal", WithEcho, ExchangeSignal},
    {"OneMebibyte", WithEcho, [](World& w) { return Exchange(w.echo, w.echo, {1048576}); }},
    {"OverAnEndpoint", WithEndpoint,
     [](World& w) {
       return Exchange(w.push, w.pull, {9, 9});
     }},
    {"Pair", [](World&) {}, MakePair},
    {"ActorStartAndStop", [](World&) {}, StartAndStop},
    {"FailedActorStart", [](World&) {},
     [](World&) { return j_actor_new(FailsToStart, nullptr) == nullptr; }, true},
    {"EndpointWithoutRunDirectory", [](World&) {}, OpenEndpoint},
    {"EndpointWithoutFifo", MakeRunDirectory, OpenEndpoint},
    {"EndpointThere", [](World& w) { OpenEndpoint(w); }, OpenEndpoint},
    {"FileAtTheFifosPlace",
     [](World& w) {
       MakeRunDirectory(w);
       std::ofstream(w.fifo);
     },
     OpenEndpoint},
    {"FileAtTheRunDirectorysPlace", [](World& w) { std::ofstream(w.run.path()); }, OpenEndpoint},
    {"LoopRegistrationAndEnd",
     [](World& w) {
       WithEndpoint(w);
       w.loop = zloop_new();
     },
     RegisterAndEnd},
};

// A kind of call, and what its failures do to a scenario: nothing for `harmless`
// errors, the documented failure result for the others. `either`: it depends on
// which of several calls failed.
struct Fault {
  const char* name;
  Call call;  // kCount: the malloc family
  std::vector<int> fatal;
  std::vector<int> harmless;
  std::vector<int> either = {};
};

const Fault kFaults[] = {
    {"malloc", Call::kCount, {}, {}, {ENOMEM}},  // an exception can do without
    {"operator new", Call::kNew, {ENOMEM}, {}},
    {"pipe", Call::kPipe, {EMFILE, ENFILE}, {}},
    {"fcntl", Call::kFcntl, {}, {EBADF, EPERM, EBUSY}},
    {"read", Call::kRead, {EIO, EBADF, EISDIR}, {EINTR, EAGAIN}},
    {"readv", Call::kReadv, {EIO, EBADF, EINVAL}, {EINTR, EAGAIN}},
    {"write", Call::kWrite, {EPIPE, EIO, EBADF}, {EINTR, EAGAIN}},
    {"writev", Call::kWritev, {EPIPE, EIO, EINVAL}, {}, {EINTR, EAGAIN}},
    {"ioctl", Call::kIoctl, {}, {EINTR, EAGAIN, EBADF, ENOTTY}},
    {"open", Call::kOpen, {EMFILE, ENFILE, EACCES, EPERM, ENOENT, ELOOP, EINTR, ENOMEM}, {}},
    {"mkfifo", Call::kMkfifo, {EEXIST, EACCES, ENOSPC, EROFS, ENAMETOOLONG}, {}},
    {"mkdir", Call::kMkdir, {EEXIST, EACCES, ENOSPC, EROFS, ENOENT}, {}},
    {"stat", Call::kStat, {EACCES, ELOOP, EIO, ENOMEM}, {}},
    {"fstat", Call::kFstat, {EIO, EOVERFLOW}, {}},
    {"remove", Call::kRemove, {EACCES, EPERM, EBUSY, EROFS}, {}},
    {"close", Call::kClose, {}, {EIO, EINTR}},
    {"pthread_create", Call::kPthreadCreate, {EAGAIN}, {}},
};

// "All later calls": as many as a library that repeats for ever has patience for.
constexpr std::size_t kLater = 40;

class FaultSweep : public support::Test, public ::testing::WithParamInterface<Scenario> {
 protected:
  // One run with the calls `first` to `last` of the fault's kind failing; returns
  // whether that many were made.
  bool Run(const Fault& fault, int error, std::size_t first, std::size_t last, bool& ok,
           std::size_t& calls) {
    const support::Census before = support::TakeCensus();
    auto world = std::make_unique<World>();
    GetParam().prepare(*world);
    support::ClearLog();
    support::KeepLog(support::kErrors);
    if (fault.call == Call::kCount) {
      heap_fail_from = first;
      heap_fail_to = last;
      heap_calls = 1;
      ok = GetParam().run(*world);
      calls = std::exchange(heap_calls, 0) - 1;
    } else {
      std::vector<support::Step> steps(first - 1, support::Pass());
      steps.insert(steps.end(), last + 1 - first, support::Fail(error));
      const support::Script script({fault.call}, std::move(steps), {}, true);
      ok = GetParam().run(*world);
      calls = script.count();
    }
    world.reset();
    EXPECT_EQ(support::LeftSince(before), "");
    return calls >= first;
  }

  // All places of one fault. Returns how many there were.
  unsigned Sweep(const Fault& fault, int error, const char* mode, std::size_t later, int expected) {
    std::size_t calls = 0;
    bool ok = false;
    for (std::size_t n = 1;; ++n) {
      SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(n) + mode + ": " +
                   std::strerror(error));
      const long blocks = LiveBlocks();
      const bool reached = Run(fault, error, n, n + later, ok, calls);
      const bool logged = !support::LogLines().empty();
      support::ClearLog();
      if (!reached) {
        EXPECT_TRUE(ok) << "without a fault";
        return static_cast<unsigned>(n - 1);
      }
      if (expected >= 0) {
        EXPECT_EQ(ok, expected == 1 || GetParam().fails_anyway);
      }
      EXPECT_TRUE(ok || logged || GetParam().run == MakePair) << "a failure without a line";
      // A cache may grow once, a leak grows every time.
      for (int again = 0; LiveBlocks() > blocks && again < 4; ++again) {
        const long now = LiveBlocks();
        Run(fault, error, n, n + later, ok, calls);
        support::ClearLog();
        EXPECT_TRUE(again < 3 || LiveBlocks() <= now) << "leaks";
      }
      Run(fault, error, 1, 0, ok, calls);
      EXPECT_TRUE(ok) << "the next ordinary use";
      if (HasFailure()) {
        return static_cast<unsigned>(n);
      }
    }
  }

  static long LiveBlocks() { return live_blocks.load(); }
};

TEST_P(FaultSweep, EveryCallFails) {
  static unsigned long total = 0;
  unsigned long points = 0;
  for (const Fault& fault : kFaults) {
    const std::vector<int>* const groups[] = {&fault.fatal, &fault.harmless, &fault.either};
    for (int expected : {0, 1, -1}) {
      for (const int error : *groups[expected >= 0 ? expected : 2]) {
        if (fault.call != Call::kCount || kHeapInterposed) {
          points += Sweep(fault, error, "", 0, expected);
          points += Sweep(fault, error, " and later", kLater, expected);
        }
      }
    }
    if (HasFailure()) {
      break;
    }
  }
  total += points;
  std::printf("fault sweep: %s: %lu points failed, %lu so far\n", GetParam().name, points, total);
}

INSTANTIATE_TEST_SUITE_P(All, FaultSweep, ::testing::ValuesIn(kScenarios),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
