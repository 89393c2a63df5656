// fault_sweep_test.cpp - every allocation and every system call of the library
// fails once, at every place where it is made.
//
// Each scenario runs again and again while its n-th call of one kind fails, for
// n = 1, 2, ... until it runs through; once with that call alone failing, once
// with all later ones too. Only calls of the scenario's own thread fail.
#include <czmq.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>

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

thread_local struct {
  std::size_t calls, fail_from, fail_to;  // counted from the moment it is not 0
} heap = {};
std::atomic<long> live_blocks{0};

[[maybe_unused]] bool HeapFails(const void* caller) {
  Dl_info code = {};
  if (heap.calls == 0 || ::dladdr(caller, &code) == 0) {
    return false;
  }
  for (const char* name : {"libjactor.so", "libstdc++.so", "ld-linux"}) {
    if (std::strstr(code.dli_fname, name) != nullptr) {
      const std::size_t n = heap.calls++;
      return n >= heap.fail_from && n <= heap.fail_to;
    }
  }
  return false;
}

}  // namespace

#ifndef JACTOR_SANITIZED  // the sanitizers own the heap
#define INTERPOSED extern "C" __attribute__((visibility("default")))
#define ALLOCATOR(name, parameters, old, ...)                   \
  extern "C" void* __libc_##name parameters;                    \
  INTERPOSED void* name parameters noexcept {                   \
    const bool fails = HeapFails(__builtin_return_address(0));  \
    void* made = fails ? nullptr : __libc_##name(__VA_ARGS__);  \
    live_blocks += made != nullptr && (old) == nullptr ? 1 : 0; \
    return made;                                                \
  }
ALLOCATOR(malloc, (size_t n), nullptr, n)
ALLOCATOR(calloc, (size_t n, size_t size), nullptr, n, size)
ALLOCATOR(realloc, (void* old, size_t n), old, old, n)

extern "C" void __libc_free(void*);
INTERPOSED void free(void* block) noexcept {
  live_blocks -= block != nullptr ? 1 : 0;
  __libc_free(block);
}
#endif

namespace {

const std::string block(1048576, 'x');

void Echo(j_sock_t* sock, void*) {
  j_sock_signal(sock, 0);
  while (const std::unique_ptr<JCXXMsg> msg{j_msg_recv(sock)}) {
    msg->WriteMessage(sock);
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
  std::shared_ptr<void> to;  // the actor or the sock to send to, and to receive from
  std::shared_ptr<void> from;
};

void Nothing(World&) {}
void WithEcho(World& world) {
  world.to = world.from = std::shared_ptr<JCXXActor>(j_actor_new(Echo, nullptr));
}
void WithEndpoint(World& world) {
  world.to = std::shared_ptr<JCXXSock>(j_pipe_new_push(">ipc://sweep"));
  world.from = std::shared_ptr<JCXXSock>(j_pipe_new_pull("@ipc://sweep"));
}
void WithRunDirectory(World& world) { ::mkdir(world.run.path().c_str(), 0777); }
void WithFileForDirectory(World& world) { std::ofstream(world.run.path()); }
void WithFileForFifo(World& world) {
  WithRunDirectory(world);
  std::ofstream(world.fifo);
}

// The scenarios: whether everything worked. What a failed call leaves behind it
// they check themselves.

// Frames of an odd size are strings.
bool AddFrame(JCXXMsg* msg, std::size_t size) {
  return (size % 2 == 0 ? j_msg_addmem(msg, block.data(), size)
                        : j_msg_addstr(msg, &block[block.size() - size])) == 0;
}

bool TakeFrame(JCXXMsg* msg, std::size_t size) {
  const std::string_view expected = std::string_view(block).substr(0, size);
  if (size % 2 != 0) {
    const std::unique_ptr<char, void (*)(void*)> text(j_msg_popstr(msg), std::free);
    EXPECT_TRUE(text == nullptr || text.get() == expected);
    return text != nullptr;
  }
  const std::unique_ptr<JCXXFrame> frame(j_msg_pop(msg));
  EXPECT_EQ(j_frame_size(frame.get()), size);
  EXPECT_TRUE(size == 0 || std::memcmp(j_frame_data(frame.get()), block.data(), size) == 0);
  return frame != nullptr;
}

// Builds a message of frames of the given sizes, sends and receives it where there is
// somebody, and takes it apart.
template <std::size_t... sizes>
bool Exchange(World& world) {
  JCXXMsg* msg = j_msg_new();
  bool ok = msg != nullptr && (... && AddFrame(msg, sizes));
  EXPECT_TRUE(msg == nullptr || ok == (msg->GetFrameList().size() == sizeof...(sizes)));
  if (ok && world.to != nullptr) {
    ok = j_msg_send(&msg, world.to.get()) == 0;
    EXPECT_TRUE(ok ? msg == nullptr : msg->GetFrameList().size() == sizeof...(sizes));
    msg = ok ? j_msg_recv(world.from.get()) : msg;
    ok = ok && msg != nullptr;
  }
  if (ok) {
    ok = (... && TakeFrame(msg, sizes));
    EXPECT_EQ(ok, msg->GetFrameList().empty());
  }
  j_msg_destroy(&msg);
  return ok;
}

bool ExchangeSignal(World& world) {
  JCXXMsg* msg = j_sock_signal(world.to.get(), 200) == 0 ? j_msg_recv(world.from.get()) : nullptr;
  const bool ok = msg != nullptr;
  EXPECT_EQ(j_msg_signal(msg), ok ? 200 : -1);
  j_msg_destroy(&msg);
  return ok;
}

bool MakePair(World&) {
  try {
    const auto [first, second] = SockFromPipes::MakeSockPairFromPipes();
    delete first;
    delete second;
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

template <j_actor_fn function>
bool StartAndStop(World&) {
  JCXXActor* actor = j_actor_new(function, nullptr);
  const bool ok = (actor != nullptr) == (function == Echo);
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
  zloop_t* loop = zloop_new();
  auto* sock = static_cast<JCXXSock*>(world.from.get());
  const auto handler = [](zloop_t*, j_sock_t*, void*) { return -1; };
  const bool ok = hybrid_zloop_reader(loop, sock, handler, nullptr) == 0;
  hybrid_zloop_reader_end(loop, sock);
  zloop_destroy(&loop);
  return ok;
}

struct Scenario {
  const char* name;
  void (*prepare)(World&);
  bool (*run)(World&);
  bool fails_anyway = false;  // and then the result never changes
};

const Scenario kScenarios[] = {
    {"BuildAndTakeApart", Nothing, Exchange<300, 3>},
    {"OneFrame", WithEcho, Exchange<5>},
    {"SeveralFrames", WithEcho, Exchange<3, 0, 300, 0, 5000, 1, 1, 1, 1, 1>},
    {"NoFrames", WithEcho, Exchange<>},
    {"Signal", WithEcho, ExchangeSignal},
    {"OneMebibyte", WithEcho, Exchange<1048576>},
    {"OverAnEndpoint", WithEndpoint, Exchange<9, 9>},
    {"Pair", Nothing, MakePair},
    {"ActorStartAndStop", Nothing, StartAndStop<Echo>},
    {"FailedActorStart", Nothing, StartAndStop<FailsToStart>, true},
    {"EndpointWithoutRunDirectory", Nothing, OpenEndpoint},
    {"EndpointWithoutFifo", WithRunDirectory, OpenEndpoint},
    {"EndpointThere", WithEndpoint, OpenEndpoint},
    {"FileAtTheFifosPlace", WithFileForFifo, OpenEndpoint},
    {"FileAtTheRunDirectorysPlace", WithFileForDirectory, OpenEndpoint},
    {"LoopRegistrationAndEnd", WithEndpoint, RegisterAndEnd},
};

// A kind of call, what it really gives, and what that does to a scenario: the
// documented failure, nothing, or one of them, as several calls could have failed.
struct Fault {
  const char* name;
  Call call;  // kCount: the malloc family
  enum Effect { kFails, kWorks, kEither } effect;
  std::vector<int> errors;
};

const Fault kFaults[] = {
    {"malloc", Call::kCount, Fault::kEither, {ENOMEM}},  // an exception can do without
    {"operator new", Call::kNew, Fault::kFails, {ENOMEM}},
    {"pipe", Call::kPipe, Fault::kFails, {EMFILE, ENFILE}},
    {"fcntl", Call::kFcntl, Fault::kWorks, {EBADF, EPERM, EBUSY}},
    {"read", Call::kRead, Fault::kFails, {EIO, EBADF, EISDIR}},
    {"read", Call::kRead, Fault::kWorks, {EINTR, EAGAIN}},
    {"readv", Call::kReadv, Fault::kFails, {EIO, EBADF, EINVAL}},
    {"readv", Call::kReadv, Fault::kWorks, {EINTR, EAGAIN}},
    {"write", Call::kWrite, Fault::kFails, {EPIPE, EIO, EBADF}},
    {"write", Call::kWrite, Fault::kWorks, {EINTR, EAGAIN}},
    {"writev", Call::kWritev, Fault::kFails, {EPIPE, EIO, EINVAL}},
    {"writev", Call::kWritev, Fault::kEither, {EINTR, EAGAIN}},
    {"ioctl", Call::kIoctl, Fault::kWorks, {EINTR, EAGAIN, EBADF, ENOTTY}},
    {"open", Call::kOpen, Fault::kFails, {EMFILE, ENFILE, EACCES, EPERM, ENOENT}},
    {"open", Call::kOpen, Fault::kFails, {ELOOP, EINTR, ENOMEM}},
    {"mkfifo", Call::kMkfifo, Fault::kFails, {EEXIST, EACCES, ENOSPC, EROFS, ENAMETOOLONG}},
    {"mkdir", Call::kMkdir, Fault::kFails, {EEXIST, EACCES, ENOSPC, EROFS, ENOENT}},
    {"stat", Call::kStat, Fault::kFails, {EACCES, ELOOP, EIO, ENOMEM}},
    {"fstat", Call::kFstat, Fault::kFails, {EIO, EOVERFLOW}},
    {"remove", Call::kRemove, Fault::kFails, {EACCES, EPERM, EBUSY, EROFS}},
    {"close", Call::kClose, Fault::kWorks, {EIO, EINTR}},
    {"pthread_create", Call::kPthreadCreate, Fault::kFails, {EAGAIN}},
};

class FaultSweep : public support::Test, public ::testing::WithParamInterface<Scenario> {
 protected:
  // One run with the calls `first` to `last` of the fault's kind failing. Returns how
  // many there were.
  std::size_t Run(const Fault& fault, int error, std::size_t first, std::size_t last) {
    const support::Census before = support::TakeCensus();
    auto world = std::make_unique<World>();
    GetParam().prepare(*world);
    support::ClearLog();
    support::KeepLog(support::kErrors);
    std::vector<support::Step> steps(first - 1, support::Pass());
    steps.insert(steps.end(), last + 1 - first, support::Fail(error));
    std::size_t calls = 0;
    if (fault.call == Call::kCount) {
      heap = {1, first, last};
      ok_ = GetParam().run(*world);
      calls = std::exchange(heap.calls, 0) - 1;
    } else {
      const support::Script script({fault.call}, std::move(steps), {}, true);
      ok_ = GetParam().run(*world);
      calls = script.count();
    }
    world.reset();
    logged_ = !support::LogLines().empty();
    support::ClearLog();
    EXPECT_EQ(support::LeftSince(before), "");
    return calls;
  }

  // All places of one fault, each alone or with `later` more. Returns how many there
  // were.
  std::size_t Sweep(const Fault& fault, int error, std::size_t later) {
    for (std::size_t n = 1; !HasFailure(); ++n) {
      SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(n) + " and " +
                   std::to_string(later) + " later: " + std::strerror(error));
      const long blocks = live_blocks;
      if (Run(fault, error, n, n + later) < n) {
        EXPECT_TRUE(ok_) << "without a fault";
        return n - 1;
      }
      const bool works = fault.effect == Fault::kWorks || GetParam().fails_anyway;
      EXPECT_TRUE(ok_ == works || fault.effect == Fault::kEither);
      EXPECT_TRUE(ok_ || logged_ || GetParam().run == MakePair) << "failed silently";
      // A cache may grow once, a leak grows every time.
      for (int again = 0; live_blocks > blocks && again < 4; ++again) {
        const long now = live_blocks;
        Run(fault, error, n, n + later);
        EXPECT_TRUE(again < 3 || live_blocks <= now) << "leaks";
      }
      Run(fault, error, 1, 0);
      EXPECT_TRUE(ok_) << "the next ordinary use";
    }
    return 0;
  }

  bool ok_ = false;      // what the scenario made of the last run
  bool logged_ = false;  // and whether there was a line
};

TEST_P(FaultSweep, EveryCallFails) {
  // "All later calls": as many as a library that repeats for ever has patience for.
  constexpr std::size_t kLater = 40;
  static std::size_t total = 0;
  std::size_t points = 0;
  for (const Fault& fault : kFaults) {
    for (const int error : fault.errors) {
      points += Sweep(fault, error, 0) + Sweep(fault, error, kLater);
    }
  }
  total += points;
  std::printf("fault sweep: %s: %zu points failed, %zu so far\n", GetParam().name, points, total);
}

INSTANTIATE_TEST_SUITE_P(All, FaultSweep, ::testing::ValuesIn(kScenarios),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
