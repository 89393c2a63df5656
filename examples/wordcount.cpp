// wordcount.cpp - counts the words of text files with two processes, an event loop and
// actors
//
//   pusher process --(endpoint: a message a line)--> counter process
//                                                      |  event loop
//                                   batches of lines   v  ^ their words, counted
//                                                    worker actors
//
// Nobody waits for somebody who waits for him. A worker gets a batch only when it has
// answered the last one. While all are busy and the next batch is full, the loop does not
// watch the endpoint, and its full FIFO holds the pusher back.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <jactor_zloop.hpp>
#include <sstream>
#include <unordered_map>
#include <vector>

using jactor::Actor;
using jactor::Message;
using jactor::Sock;
using jactor::SockRef;

namespace {

constexpr std::size_t kMaxLine = 262144;  // bytes
constexpr std::size_t kFullLines = 250;   // of a batch
constexpr std::size_t kFullBytes = 65536;
constexpr std::size_t kProgressMs = 250;
constexpr unsigned char kEndOfFiles = 1;  // the pusher's signal
constexpr unsigned char kFailed = 2;      // a worker's

using Failure = std::runtime_error;

void Tell(const std::exception& failure) {
  std::fprintf(stderr, "wordcount: %s\n", failure.what());
}

struct Options {
  std::string endpoint = "ipc://wordcount";
  std::size_t workers = 4;
  std::size_t top = 20;
  std::vector<std::string> files;
};

// Result: the exit status, if there is nothing to count.
std::optional<int> ReadOptions(int argc, char** argv, Options& options) {
  CLI::App app(
      "Prints the most frequent words of the files. A word is a run of the letters A to Z and a to "
      "z; case does not count.");
  app.option_defaults()->always_capture_default();
  app.add_option("--endpoint", options.endpoint, "Send the lines through this endpoint");
  app.add_option("--workers", options.workers, "Count with so many actors")
      ->check(CLI::Range(1, 64));
  app.add_option("--top", options.top, "Print so many words; 0 prints all");
  app.add_option("FILE", options.files, "What to count")->required()->check(CLI::ExistingFile);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? 0 : 2;
  }
  return std::nullopt;
}

bool IsLetter(char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }

// The pusher process

void PushFiles(const Options& options) {
  const Sock push = Sock::push(options.endpoint);
  for (const std::string& name : options.files) {
    std::ifstream file(name);
    for (std::string line; std::getline(file, line);) {
      if (line.size() > kMaxLine) {
        throw Failure(name + ": a line is longer than " + std::to_string(kMaxLine) + " bytes");
      }
      push.send(Message{line});
    }
    if (!file.eof()) {
      throw Failure("cannot read " + name + ": " + std::strerror(errno));
    }
  }
  push.signal(kEndOfFiles);
}

// The workers

using Counts = std::unordered_map<std::string, unsigned long>;

void CountWords(std::string_view text, Counts& counts) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string word;
    for (; at < text.size() && IsLetter(text[at]); ++at) {
      word += static_cast<char>(text[at] | 0x20);
    }
    if (!word.empty()) {
      ++counts[word];
    }
  }
}

// Answers a batch of lines with its words, each followed by how often it was there.
void Work(SockRef sock) {
  sock.ready();
  try {
    while (auto batch = sock.receive()) {
      Counts counts;
      for (const jactor::Frame& line : batch->frames()) {
        CountWords(line.text(), counts);
      }
      std::string answer;
      for (const auto& [word, count] : counts) {
        answer += word + ' ' + std::to_string(count) + ' ';
      }
      sock.send(Message{answer});
    }
  } catch (const std::exception&) {
    sock.signal(kFailed);  // or the loop would wait for ever
  }
}

// The counter process

// Opens the endpoint for this run alone: locks its FIFO for as long as the sock lives.
Sock OpenAlone(const std::string& endpoint) {
  for (;;) {
    Sock pull = Sock::pull(endpoint);
    if (::flock(pull.fd(), LOCK_EX | LOCK_NB) != 0) {
      throw Failure("another run is using the endpoint " + endpoint +
                    ": wait until it has ended, or name another one with --endpoint");
    }
    struct stat status = {};
    if (::fstat(pull.fd(), &status) == 0 && status.st_nlink > 0) {
      return pull;
    }  // or the run before this one has just removed it
  }
}

// The signals that end a run, and the pusher's end, as a descriptor for the loop.
int OpenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

class Counter {
 public:
  Counter(const Options& options, Sock pull) : options_(options), pull_(std::move(pull)) {}
  Counter(const Counter&) = delete;
  ~Counter();

  void StartPusher();
  void Count();
  void Report() const;

 private:
  struct Worker {
    Actor actor{Work};
    std::optional<jactor::Watch> watch;
    bool busy = false;
  };

  int OnLine(Message line);
  int OnAnswer(Worker& worker, Message answer);
  std::optional<Failure> OnSignal(int number);
  int Advance();
  bool BatchIsFull() const { return batch_lines_ >= kFullLines || batch_bytes_ >= kFullBytes; }
  void Deal();
  double Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  }

  const Options& options_;
  const int signals_ = OpenSignals();
  Sock pull_;
  pid_t pusher_ = 0;
  const std::unique_ptr<zloop_t, void (*)(zloop_t*)> loop_{
      zloop_new(), [](zloop_t* loop) { zloop_destroy(&loop); }};
  std::deque<Worker> workers_;
  std::optional<jactor::Watch> lines_watch_;
  std::optional<Failure> failure_;
  Message batch_;  // not dealt yet
  std::size_t batch_lines_ = 0, batch_bytes_ = 0;
  bool ended_ = false;  // the last line has come
  Counts counts_;
  unsigned long lines_ = 0, bytes_ = 0;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
};

// Whatever has happened, no process and no FIFO is left.
Counter::~Counter() {
  if (pusher_ > 0) {
    ::kill(pusher_, SIGKILL);
    ::waitpid(pusher_, nullptr, 0);
  }
  char path[PATH_MAX] = "";
  if (::readlink(("/proc/self/fd/" + std::to_string(pull_.fd())).c_str(), path, sizeof path - 1) >
      0) {
    ::unlink(path);
  }
  ::close(signals_);
}

void Counter::StartPusher() {
  const pid_t counter = ::getpid();
  pusher_ = ::fork();
  if (pusher_ < 0) {
    throw Failure(std::string("cannot start a process: ") + std::strerror(errno));
  }
  if (pusher_ > 0) {
    return;
  }
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // it goes with the counter
  int status = ::getppid() == counter ? EXIT_SUCCESS : EXIT_FAILURE;
  try {
    PushFiles(options_);
  } catch (const std::exception& failure) {
    Tell(failure);
    status = EXIT_FAILURE;
  }
  std::_Exit(status);
}

int Counter::OnLine(Message message) {
  if (message.signal()) {
    ended_ = true;
  } else {
    ++lines_;
    if (const auto line = message.pop(); line && line->size() > 0) {
      batch_.add(line->bytes());
      ++batch_lines_;
      batch_bytes_ += line->size();
      bytes_ += line->size();
    }
  }
  return Advance();
}

int Counter::OnAnswer(Worker& worker, Message answer) {
  if (answer.signal()) {
    throw Failure("a worker has failed");
  }
  std::istringstream words(answer.pop_string().value_or(""));
  unsigned long count = 0;
  for (std::string word; words >> word >> count;) {
    counts_[word] += count;
  }
  worker.busy = false;
  return Advance();
}

// Result: the failure that the signal means, if it does.
std::optional<Failure> Counter::OnSignal(int number) {
  int status = 0;
  if (number != SIGCHLD) {
    return Failure(std::string("stopped by ") + ::strsignal(number));
  }
  if (::waitpid(pusher_, &status, WNOHANG) != pusher_) {
    return std::nullopt;
  }
  pusher_ = 0;
  if (WIFSIGNALED(status)) {
    return Failure(std::string("the pushing process has ended: ") + ::strsignal(WTERMSIG(status)));
  }
  return status == 0 ? std::nullopt : std::optional(Failure("the pushing process has failed"));
}

// Does what the last event has made possible. Result: for the loop, -1 at the end.
int Counter::Advance() {
  if (batch_lines_ > 0 && (ended_ || BatchIsFull())) {
    Deal();
  }
  const bool wants_lines = !ended_ && !BatchIsFull();
  if (!wants_lines) {
    lines_watch_->end();
  } else if (!lines_watch_ || !lines_watch_->active()) {
    lines_watch_ =
        jactor::watch(loop_.get(), pull_, [this](Message line) { return OnLine(std::move(line)); });
  }
  const auto busy = [](const Worker& worker) { return worker.busy; };
  return ended_ && std::none_of(workers_.begin(), workers_.end(), busy) ? -1 : 0;
}

// Gives the batch to a worker that has nothing to do, if there is one.
void Counter::Deal() {
  for (Worker& worker : workers_) {
    if (!worker.busy) {
      worker.actor.send(std::move(batch_));
      worker.busy = true;
      batch_ = Message();
      batch_lines_ = batch_bytes_ = 0;
      return;
    }
  }
}

// Runs the loop from the first line to the last word.
void Counter::Count() {
  for (std::size_t i = 0; i < options_.workers; ++i) {
    Worker& worker = workers_.emplace_back();
    worker.watch = jactor::watch(loop_.get(), worker.actor.sock(), [this, &worker](Message answer) {
      return OnAnswer(worker, std::move(answer));
    });
  }
  zmq_pollitem_t signals = {nullptr, signals_, ZMQ_POLLIN, 0};
  const auto on_signal = [](zloop_t*, zmq_pollitem_t* item, void* arg) {
    auto& counter = *static_cast<Counter*>(arg);
    signalfd_siginfo info = {};
    if (::read(item->fd, &info, sizeof info) == sizeof info) {
      counter.failure_ = counter.OnSignal(static_cast<int>(info.ssi_signo));
    }
    return counter.failure_ ? -1 : 0;
  };
  const auto on_progress = [](zloop_t*, int, void* arg) {
    const auto& counter = *static_cast<Counter*>(arg);
    const double megabytes = static_cast<double>(counter.bytes_) / 1e6;
    std::fprintf(stderr, "\r%lu lines, %.1f MB, %.1f MB/s \033[K", counter.lines_, megabytes,
                 megabytes / counter.Seconds());
    return 0;
  };
  zloop_poller(loop_.get(), &signals, on_signal, this);
  const bool terminal = ::isatty(STDERR_FILENO) != 0;
  if (terminal) {
    zloop_timer(loop_.get(), kProgressMs, 0, on_progress, this);
  }
  Advance();
  zloop_start(loop_.get());
  if (terminal) {
    std::fputs("\r\033[K", stderr);
  }
  if (failure_) {
    throw *failure_;
  }
  lines_watch_->rethrow();
  for (Worker& worker : workers_) {
    worker.watch->rethrow();
  }
  if (!ended_) {
    throw Failure("the event loop has ended early");
  }
}

void Counter::Report() const {
  std::vector<std::pair<std::string, unsigned long>> words(counts_.begin(), counts_.end());
  std::sort(words.begin(), words.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  const std::size_t rows = options_.top == 0 ? words.size() : std::min(options_.top, words.size());
  unsigned long all = 0;
  for (const auto& word : words) {
    all += word.second;
  }
  for (std::size_t i = 0; i < rows; ++i) {
    std::printf("  %10lu %s\n", words[i].second, words[i].first.c_str());
  }
  std::printf("%zu of %zu different words, %lu words in all\n", rows, words.size(), all);
  const double seconds = Seconds();
  std::printf("%lu lines through %s in %.3f s: %.0f messages/s, %.1f MB/s\n", lines_,
              options_.endpoint.c_str(), seconds, static_cast<double>(lines_) / seconds,
              static_cast<double>(bytes_) / 1e6 / seconds);
  if (std::fflush(stdout) != 0) {
    throw Failure(std::string("cannot write the report: ") + std::strerror(errno));
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const auto status = ReadOptions(argc, argv, options)) {
    return *status;
  }
  try {
    Counter counter(options, OpenAlone(options.endpoint));
    counter.StartPusher();
    counter.Count();
    counter.Report();
  } catch (const std::exception& failure) {
    Tell(failure);
    return EXIT_FAILURE;
  }
}
