// fault_sweep_test.cpp - every allocation and every system call of the library
// fails once, at every place where it is made.
//
// Each scenario runs again and again while its n-th call of one kind fails, for
// n = 1, 2, ... until it runs through; once with that call alone failing, once
// with all later ones too. Only calls of the scenario's own thread fail.
#include <czmq.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string_view>

#include "calls.h"
#include "jcxxactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"
#include "support.h"

namespace {

using support::Call;

// The calls of calloc that fail, while `last` is not 0.
thread_local struct { std::size_t first, last, calls; } heap = {};

}  // namespace

#ifndef JACTOR_SANITIZED  // the sanitizers own the heap
extern "C" void* __libc_calloc(std::size_t n, std::size_t size);

// Only strings fail: CZMQ, which ends the process when memory runs out, makes none here.
extern "C" __attribute__((visibility("default"))) void* calloc(std::size_t n,
                                                               std::size_t size) noexcept {
  const bool counts = heap.last != 0 && size == 1;
  const bool fails = counts && ++heap.calls >= heap.first && heap.calls <= heap.last;
  return fails ? nullptr : __libc_calloc(n, size);
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
  const bool sent = j_sock_signal(world.to.get(), 200) == 0;
  const std::unique_ptr<JCXXMsg> msg(sent ? j_msg_recv(world.from.get()) : nullptr);
  EXPECT_TRUE(msg == nullptr || j_msg_signal(msg.get()) == 200);
  return msg != nullptr;
}

bool StartAndStop(World&) {
  return std::unique_ptr<JCXXActor>(j_actor_new(Echo, nullptr)) != nullptr;
}

bool OpenEndpoint(World& world) {
  const std::unique_ptr<JCXXSock> sock(j_pipe_new_pull("@ipc://sweep"));
  struct stat status = {};
  EXPECT_TRUE(sock == nullptr ||
              (::lstat(world.fifo.c_str(), &status) == 0 && status.st_mode == (S_IFIFO | 0666)));
  return sock != nullptr;
}

bool RegisterAndEnd(World& world) {
  zloop_t* loop = zloop_new();
  auto* sock = static_cast<JCXXSock*>(world.from.get());
  const bool ok = hybrid_zloop_reader(loop, sock, calls::EndsTheLoop, nullptr) == 0;
  hybrid_zloop_reader_end(loop, sock);
  zloop_destroy(&loop);
  return ok;
}

struct Scenario {
  const char* name;
  void (*prepare)(World&);
  bool (*run)(World&);
};

const Scenario kScenarios[] = {
    {"BuildAndTakeApart", Nothing, Exchange<300, 3>},
    {"OneFrame", WithEcho, Exchange<5>},
    {"SeveralFrames", WithEcho, Exchange<3, 0, 300, 0, 5000, 1, 1, 1, 1, 1>},
    {"NoFrames", WithEcho, Exchange<>},
    {"Signal", WithEcho, ExchangeSignal},
    {"OneMebibyte", WithEcho, Exchange<1048576>},
    {"OverAnEndpoint", WithEndpoint, Exchange<9, 9>},
    {"ActorStartAndStop", Nothing, StartAndStop},
    {"EndpointWithoutRunDirectory", Nothing, OpenEndpoint},
    {"EndpointWithoutFifo", WithRunDirectory, OpenEndpoint},
    {"EndpointThere", WithEndpoint, OpenEndpoint},
    {"FileAtTheFifosPlace", WithFileForFifo, OpenEndpoint},
    {"FileAtTheRunDirectorysPlace", WithFileForDirectory, OpenEndpoint},
    {"LoopRegistrationAndEnd", WithEndpoint, RegisterAndEnd},
};

// Calls, the errors that they can really return, and what these do to a scenario: the
// documented failure, nothing, or either, since any of several calls may have failed.
struct Fault {
  const char* name;
  std::initializer_list<Call> calls;
  enum Effect { kFails, kWorks, kEither } effect;
  std::vector<int> errors;
};

const Fault kFaults[] = {
    {"calloc", {}, Fault::kFails, {ENOMEM}},
    {"operator new", {Call::kNew}, Fault::kFails, {ENOMEM}},
    {"pipe", {Call::kPipe}, Fault::kFails, {EMFILE, ENFILE}},
    {"fcntl", {Call::kFcntl}, Fault::kWorks, {EBADF, EPERM, EBUSY}},
    {"read", {Call::kRead, Call::kReadv}, Fault::kFails, {EIO, EBADF, EISDIR, EINVAL}},
    {"read", {Call::kRead, Call::kReadv}, Fault::kWorks, {EINTR, EAGAIN}},
    {"write", {Call::kWrite, Call::kWritev}, Fault::kFails, {EPIPE, EIO, EBADF, EINVAL}},
    {"write", {Call::kWrite}, Fault::kWorks, {EINTR, EAGAIN}},
    {"writev", {Call::kWritev}, Fault::kEither, {EINTR, EAGAIN}},
    {"ioctl", {Call::kIoctl}, Fault::kWorks, {EINTR, EAGAIN, EBADF, ENOTTY}},
    {"open", {Call::kOpen}, Fault::kFails, {EMFILE, ENFILE, EPERM, ENOENT, ELOOP, EINTR, ENOMEM}},
    {"mkfifo, mkdir", {Call::kMkfifo, Call::kMkdir}, Fault::kFails, {EEXIST, EACCES, ENOSPC}},
    {"stat", {Call::kStat, Call::kFstat}, Fault::kFails, {EACCES, ELOOP, EIO}},
    {"remove", {Call::kRemove}, Fault::kFails, {EACCES, EPERM, EBUSY, EROFS}},
    {"close", {Call::kClose}, Fault::kWorks, {EIO, EINTR}},
    {"pthread_create", {Call::kPthreadCreate}, Fault::kFails, {EAGAIN}},
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
    std::optional<support::Script> script(std::in_place, fault.calls, std::move(steps));
    heap = {first, fault.calls.size() == 0 ? last : 0, 0};
    ok_ = GetParam().run(*world);
    const std::size_t calls = script->count() + std::exchange(heap, {}).calls;
    script.reset();
    world.reset();
    logged_ = !support::LogLines().empty();
    support::ClearLog();
    EXPECT_EQ(support::LeftSince(before), "");
    return calls;
  }

  // All places of one fault, each alone or with `later` more. Returns how many there
  // were.
  std::size_t Sweep(const Fault& fault, int error, std::size_t later) {
    for (std::size_t n = 1;; ++n) {
      SCOPED_TRACE(std::string(fault.name) + " " + std::to_string(n) + " and " +
                   std::to_string(later) + " later: " + std::strerror(error));
      const bool failed = Run(fault, error, n, n + later) >= n;
      const bool works = !failed || fault.effect == Fault::kWorks;
      EXPECT_TRUE(ok_ == works || (failed && fault.effect == Fault::kEither));
      EXPECT_TRUE(ok_ || logged_) << "failed silently";
      if (!failed || HasFailure()) {
        return n - 1;
      }
      Run(fault, error, 1, 0);
      EXPECT_TRUE(ok_) << "the next ordinary use";
    }
  }

  bool ok_ = false;      // what the scenario made of the last run
  bool logged_ = false;  // and whether there was a line
};

TEST_P(FaultSweep, EveryCallFails) {
  // "All later calls": as many as a library that repeats for ever has patience for.
  constexpr std::size_t kLater = 40;
  static std::size_t total = 0;
  for (const Fault& fault : kFaults) {
    for (const int error : fault.errors) {
      total += Sweep(fault, error, 0) + Sweep(fault, error, kLater);
    }
  }
  std::printf("fault sweep: %zu points failed so far\n", total);
}

INSTANTIATE_TEST_SUITE_P(All, FaultSweep, ::testing::ValuesIn(kScenarios),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
