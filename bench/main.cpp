// main.cpp - runs one scenario over one system and prints the result as a line of
// JSON.
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench.h"

namespace {

constexpr unsigned kTimeLimit = 120;

constexpr const char* kUsage =
    "usage: jactor_bench --system NAME --scenario NAME [option value]...\n"
    "\n"
    "  --system    jactor, pipe, fifo, czmq, nng or seqpacket\n"
    "  --scenario  echo, streams, processes, roundtrip, build, start or memory\n"
    "  --frames N  frames of a message (1)\n"
    "  --size N    bytes of a frame, a multiple of 8 (32)\n"
    "  --senders N threads or processes that send (1)\n"
    "  --count N   messages of each sender; 0, the default: as the seconds allow\n"
    "  --seconds S how long to send (0.2)\n"
    "  --cpus N    run on the first N processors only; 0, the default: on all\n";

[[noreturn]] void Refuse(std::string_view what) {
  std::fprintf(stderr, "jactor_bench: bad %.*s\n%s", static_cast<int>(what.size()), what.data(),
               kUsage);
  std::exit(2);
}

template <class Number>
Number Parse(std::string_view option, std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size() || number < Number{}) {
    Refuse(option);
  }
  return number;
}

struct Arguments {
  bench::Options options;
  unsigned cpus = 0;
};

void ParseOption(std::string_view option, std::string_view value, Arguments& arguments) {
  bench::Options& options = arguments.options;
  if (option == "--system") {
    options.system = value;
  } else if (option == "--scenario") {
    options.scenario = value;
  } else if (option == "--frames") {
    options.shape.frames = Parse<std::size_t>(option, value);
  } else if (option == "--size") {
    options.shape.size = Parse<std::size_t>(option, value);
  } else if (option == "--senders") {
    options.senders = Parse<unsigned>(option, value);
  } else if (option == "--count") {
    options.budget.count = Parse<std::uint64_t>(option, value);
  } else if (option == "--seconds") {
    options.budget.seconds = Parse<double>(option, value);
  } else if (option == "--cpus") {
    arguments.cpus = Parse<unsigned>(option, value);
  } else {
    Refuse(option);
  }
}

Arguments ParseArguments(int argc, char** argv) {
  Arguments arguments;
  for (int i = 1; i < argc; i += 2) {
    if (std::string_view(argv[i]) == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (i + 1 == argc) {
      Refuse(argv[i]);
    }
    ParseOption(argv[i], argv[i + 1], arguments);
  }
  const bench::Options& options = arguments.options;
  if (options.shape.frames == 0 || options.senders == 0) {
    Refuse("--frames or --senders");
  }
  if (options.shape.size == 0 || options.shape.size % 8 != 0) {
    Refuse("--size");
  }
  return arguments;
}

// Keeps this process, and those that it starts, on the first `count` processors that it
// may use.
void UseProcessors(unsigned count) {
  cpu_set_t allowed;
  bench::Must(::sched_getaffinity(0, sizeof allowed, &allowed) == 0, "sched_getaffinity");
  cpu_set_t used;
  CPU_ZERO(&used);
  unsigned taken = 0;
  for (unsigned cpu = 0; cpu < CPU_SETSIZE && taken < count; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) {
      CPU_SET(cpu, &used);
      ++taken;
    }
  }
  bench::Must(taken == count, "finding that many processors");
  bench::Must(::sched_setaffinity(0, sizeof used, &used) == 0, "sched_setaffinity");
}

// Raises the limit on descriptors, so that a run can hold many actors.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

void Print(const bench::Options& options, const bench::Result& result) {
  const double rate =
      result.seconds > 0 ? static_cast<double>(result.messages) / result.seconds : 0;
  std::printf(
      "{\"scenario\": \"%s\", \"system\": \"%s\", \"frames\": %zu, \"size\": %zu, "
      "\"senders\": %u, \"messages\": %llu, \"seconds\": %.6f, \"cpu_seconds\": %.6f, \"rate\": "
      "%.1f, "
      "\"median_us\": %.3f, \"p99_us\": %.3f, \"bytes_each\": %.0f, \"checked\": true}\n",
      options.scenario.c_str(), options.system.c_str(), options.shape.frames, options.shape.size,
      options.senders, static_cast<unsigned long long>(result.messages), result.seconds,
      result.cpu_seconds, rate, result.median_us, result.p99_us, result.bytes_each);
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments arguments = ParseArguments(argc, argv);
  const bench::Options& options = arguments.options;
  const std::unique_ptr<bench::System> system = bench::MakeSystem(options.system);
  if (system == nullptr) {
    Refuse("--system");
  }
  if (!system->Supports(options.shape)) {
    std::fprintf(stderr, "jactor_bench: %s does not send such messages\n", options.system.c_str());
    return 77;
  }
  if (arguments.cpus > 0) {
    UseProcessors(arguments.cpus);
  }
  RaiseDescriptorLimit();
  ::alarm(kTimeLimit);
  bench::Result result;
  if (!bench::RunScenario(*system, options, result)) {
    Refuse("--scenario");
  }
  Print(options, result);
  return std::fflush(stdout) == 0 ? 0 : 1;
}
