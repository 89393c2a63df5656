// scenarios.cpp - what is measured, the same for every system.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <semaphore>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double ClockSeconds(clockid_t clock) {
  timespec time{};
  Must(::clock_gettime(clock, &time) == 0, "clock_gettime");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double ProcessorSeconds(std::span<const pid_t> children = {}) {
  double sum = ClockSeconds(CLOCK_PROCESS_CPUTIME_ID);
  for (const pid_t child : children) {
    clockid_t clock{};
    Must(::clock_getcpuclockid(child, &clock) == 0, "clock_getcpuclockid");
    sum += ClockSeconds(clock);
  }
  return sum;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Messages before the clock starts.
std::uint64_t WarmUp(Shape shape) { return shape.frames * shape.size >= 65536 ? 20 : 1000; }

// Tells a sender or a loop when to stop, but never before twice the warm-up.
class Stopper {
 public:
  Stopper(Budget budget, std::uint64_t least)
      : budget_(budget), least_(least), start_(Clock::now()) {}

  // Whether message `number` is to be the last.
  bool IsLast(std::uint64_t number) const {
    if (number + 1 < least_) {
      return false;
    }
    if (budget_.count != 0) {
      return number + 1 >= budget_.count;
    }
    return number % 16 == 0 && SecondsSince(start_) >= budget_.seconds;
  }

 private:
  Budget budget_;
  std::uint64_t least_;
  Clock::time_point start_;
};

// Sends messages number `first`, `first` + 1, ... until the budget is used up.
void SendAll(End& end, const Options& options, unsigned sender, std::uint64_t first) {
  Payload payload(options.shape);
  const Stopper stopper(options.budget, 2 * WarmUp(options.shape));
  for (std::uint64_t number = first;; ++number) {
    const bool last = stopper.IsLast(number);
    payload.SetStamp(Stamp::Of(sender, number, last));
    end.Send(payload);
    if (last) {
      return;
    }
  }
}

// What a receiver saw after its warm-up.
struct Received {
  std::uint64_t messages = 0;
  Clock::time_point start;
  Clock::time_point end;
  double cpu_start = 0;
  double cpu_end = 0;

  Result Summary() const {
    return {.messages = messages,
            .seconds = std::chrono::duration<double>(end - start).count(),
            .cpu_seconds = cpu_end - cpu_start};
  }
};

// Receives until every sender has sent its last message.
Received ReceiveAll(End& end, Checker& checker, unsigned senders,
                    std::span<const pid_t> children = {}) {
  const std::uint64_t warm_up = WarmUp(checker.shape());
  Received received;
  while (senders > 0) {
    if (end.Receive(checker).last()) {
      --senders;
    }
    if (checker.messages() == warm_up) {
      received.start = Clock::now();
      received.cpu_start = ProcessorSeconds(children);
    }
  }
  received.end = Clock::now();
  received.cpu_end = ProcessorSeconds(children);
  received.messages = checker.messages() - warm_up;
  return received;
}

// One-way streams, each from a separate thread to a separate actor; the first sender
// is the calling thread.
class Streams {
 public:
  Streams(System& system, const Options& options)
      : system_(system), options_(options), received_(options.senders), ready_(options.senders) {}

  Result Run() {
    std::vector<std::thread> threads;
    for (unsigned i = 1; i < options_.senders; ++i) {
      threads.emplace_back([this, i] { RunOne(i); });
    }
    RunOne(0);
    for (std::thread& thread : threads) {
      thread.join();
    }
    return Sum();
  }

 private:
  void RunOne(unsigned index) {
    std::binary_semaphore done{0};
    const ActorFunction receive = [&](End& end) {
      Checker checker(options_.shape, 1);
      received_[index] = ReceiveAll(end, checker, 1);
      done.release();
    };
    const std::unique_ptr<Actor> actor = system_.Start(receive, options_.shape);
    ready_.arrive_and_wait();
    SendAll(actor->end(), options_, 0, 0);
    done.acquire();
  }

  Result Sum() const {
    Received all = received_.front();
    for (std::size_t i = 1; i < received_.size(); ++i) {
      all.messages += received_[i].messages;
      all.start = std::min(all.start, received_[i].start);
      all.end = std::max(all.end, received_[i].end);
      all.cpu_start = std::min(all.cpu_start, received_[i].cpu_start);
      all.cpu_end = std::max(all.cpu_end, received_[i].cpu_end);
    }
    return all.Summary();
  }

  System& system_;
  const Options& options_;
  std::vector<Received> received_;
  std::barrier<> ready_;
};

Result RunStreams(System& system, const Options& options) { return Streams(system, options).Run(); }

// The times of round trips.
class Latencies {
 public:
  Latencies() { nanoseconds_.reserve(kRoom); }

  void Add(Clock::duration time) {
    total_ += time;
    ++count_;
    const auto value = std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
    if (nanoseconds_.size() < kRoom) {
      nanoseconds_.push_back(static_cast<std::uint32_t>(
          std::min<std::int64_t>(value, std::numeric_limits<std::uint32_t>::max())));
    }
  }

  Result Summary(double cpu_seconds) {
    return {.messages = count_,
            .seconds = std::chrono::duration<double>(total_).count(),
            .cpu_seconds = cpu_seconds,
            .median_us = Quantile(0.5),
            .p99_us = Quantile(0.99)};
  }

 private:
  static constexpr std::size_t kRoom = 4'000'000;

  double Quantile(double part) {
    const auto place =
        static_cast<std::ptrdiff_t>(part * static_cast<double>(nanoseconds_.size() - 1));
    std::nth_element(nanoseconds_.begin(), nanoseconds_.begin() + place, nanoseconds_.end());
    return nanoseconds_[static_cast<std::size_t>(place)] / 1000.0;
  }

  std::vector<std::uint32_t> nanoseconds_;
  Clock::duration total_{};
  std::uint64_t count_ = 0;
};

// Sends a message and waits for it to come back, again and again.
Result MeasureRoundTrips(End& there, End& back, const Options& options,
                         std::span<const pid_t> children = {}) {
  Payload payload(options.shape);
  Checker checker(options.shape, 1);
  Latencies latencies;
  const std::uint64_t warm_up = WarmUp(options.shape);
  const Stopper stopper(options.budget, 2 * warm_up);
  double cpu_start = 0;
  for (std::uint64_t number = 0;; ++number) {
    if (number == warm_up) {
      cpu_start = ProcessorSeconds(children);
    }
    const bool last = stopper.IsLast(number);
    payload.SetStamp(Stamp::Of(0, number, last));
    const Clock::time_point start = Clock::now();
    there.Send(payload);
    back.Receive(checker);
    const Clock::time_point end = Clock::now();
    if (number >= warm_up) {
      latencies.Add(end - start);
    }
    if (last) {
      return latencies.Summary(ProcessorSeconds(children) - cpu_start);
    }
  }
}

Result RunEcho(System& system, const Options& options) {
  const ActorFunction echo = [&](End& end) {
    while (end.Echo(options.shape)) {
    }
  };
  const std::unique_ptr<Actor> actor = system.Start(echo, options.shape);
  return MeasureRoundTrips(actor->end(), actor->end(), options);
}

// Child processes that can all be told at the same time to go and to end.
class Children {
 public:
  Children() { Must(::pipe2(go_, O_CLOEXEC) == 0, "pipe2"); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;
  ~Children() {
    ::close(go_[1]);
    for (const pid_t child : children_) {
      int status = 0;
      Must(::waitpid(child, &status, 0) == child && status == 0, "a child process");
    }
  }

  template <class Work>
  void Start(Work work) {
    const pid_t child = ::fork();
    Must(child >= 0, "fork");
    if (child > 0) {
      children_.push_back(child);
      return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(go_[1]);
    work();
    std::_Exit(0);
  }

  std::span<const pid_t> ids() const { return children_; }

  void Go() const {
    const std::vector<char> word(children_.size());
    Must(::write(go_[1], word.data(), word.size()) == static_cast<ssize_t>(word.size()), "write");
  }

  // In a child: waits for Go.
  void WaitForGo() const {
    char byte = 0;
    Must(::read(go_[0], &byte, 1) == 1, "read");
  }

  // In a child: waits until the parent has finished, since a socket that is closed may
  // throw away what it still holds.
  void WaitForEnd() const {
    char byte = 0;
    Must(::read(go_[0], &byte, 1) == 0, "read");
  }

 private:
  int go_[2] = {-1, -1};
  std::vector<pid_t> children_;
};

// Senders in separate processes, and one receiver. Every sender's first message shows
// that it is connected.
Result RunProcesses(System& system, const Options& options) {
  system.Prepare(1);
  Children children;
  for (unsigned sender = 0; sender < options.senders; ++sender) {
    children.Start([&, sender] {
      const std::unique_ptr<End> push = system.Push(0, options.shape);
      Payload hello(options.shape);
      hello.SetStamp(Stamp::Of(sender, 0, false));
      push->Send(hello);
      children.WaitForGo();
      SendAll(*push, options, sender, 1);
      children.WaitForEnd();
    });
  }
  const std::unique_ptr<End> pull = system.Pull(0, options.shape);
  Checker checker(options.shape, options.senders);
  for (unsigned sender = 0; sender < options.senders; ++sender) {
    pull->Receive(checker);
  }
  children.Go();
  return ReceiveAll(*pull, checker, options.senders, children.ids()).Summary();
}

Result RunRoundTrip(System& system, const Options& options) {
  system.Prepare(2);
  Children children;
  children.Start([&] {
    const std::unique_ptr<End> pull = system.Pull(0, options.shape);
    const std::unique_ptr<End> push = system.Push(1, options.shape);
    Payload payload(options.shape);
    Checker checker(options.shape, 1);
    for (bool last = false; !last;) {
      const Stamp stamp = pull->Receive(checker);
      payload.SetStamp(stamp);
      push->Send(payload);
      last = stamp.last();
    }
    children.WaitForEnd();
  });
  const std::unique_ptr<End> pull = system.Pull(1, options.shape);
  const std::unique_ptr<End> push = system.Push(0, options.shape);
  return MeasureRoundTrips(*push, *pull, options, children.ids());
}

// Does `work(number, last)` until the budget is used up.
template <class Work>
Result MeasureLoop(const Options& options, std::uint64_t warm_up, Work work) {
  const Stopper stopper(options.budget, 2 * warm_up);
  Clock::time_point start = Clock::now();
  double cpu_start = ProcessorSeconds();
  for (std::uint64_t number = 0;; ++number) {
    if (number == warm_up) {
      start = Clock::now();
      cpu_start = ProcessorSeconds();
    }
    const bool last = stopper.IsLast(number);
    work(number, last);
    if (last) {
      return {.messages = number + 1 - warm_up,
              .seconds = SecondsSince(start),
              .cpu_seconds = ProcessorSeconds() - cpu_start};
    }
  }
}

Result RunBuild(System& system, const Options& options) {
  Payload payload(options.shape);
  Checker checker(options.shape, 1);
  return MeasureLoop(options, 1000, [&](std::uint64_t number, bool last) {
    payload.SetStamp(Stamp::Of(0, number, last));
    system.BuildAndTakeApart(payload, checker);
  });
}

Result RunStart(System& system, const Options& options) {
  const ActorFunction wait = [&](End& end) { end.Echo(options.shape); };
  return MeasureLoop(options, 20, [&](std::uint64_t, bool) { system.Start(wait, options.shape); });
}

double ResidentBytes() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string word; rollup >> word;) {
    double kib = 0;
    if (word == "Rss:" && rollup >> kib) {
      return kib * 1024;
    }
  }
  Fail("reading /proc/self/smaps_rollup");
  return 0;
}

// Actors that have answered one message each and now wait for the next. The first one
// is not counted, so that the figure leaves out what a library sets up only once.
Result RunMemory(System& system, const Options& options) {
  constexpr unsigned kActors = 100;
  const ActorFunction echo = [&](End& end) {
    while (end.Echo(options.shape)) {
    }
  };
  std::vector<std::unique_ptr<Actor>> actors;
  const Payload payload(options.shape);
  double before = 0;
  for (unsigned i = 0; i <= kActors; ++i) {
    actors.push_back(system.Start(echo, options.shape));
    Checker checker(options.shape, 1);
    actors.back()->end().Send(payload);
    actors.back()->end().Receive(checker);
    if (i == 0) {
      before = ResidentBytes();
    }
  }
  return {.messages = kActors, .bytes_each = (ResidentBytes() - before) / kActors};
}

}  // namespace

bool RunScenario(System& system, const Options& options, Result& result) {
  static constexpr struct {
    const char* name;
    Result (*run)(System&, const Options&);
  } kScenarios[] = {{"echo", RunEcho},           {"streams", RunStreams},
                    {"processes", RunProcesses}, {"roundtrip", RunRoundTrip},
                    {"build", RunBuild},         {"start", RunStart},
                    {"memory", RunMemory}};
  for (const auto& scenario : kScenarios) {
    if (options.scenario == scenario.name) {
      result = scenario.run(system, options);
      system.CleanUp();
      return true;
    }
  }
  return false;
}

}  // namespace bench
