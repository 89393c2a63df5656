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
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstring>
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

constexpr std::size_t kMaxLine = 262144;   // bytes
constexpr std::size_t kFullBatch = 65536;  // bytes
constexpr std::size_t kProgressMs = 250;
constexpr unsigned char kEndOfFiles = 1;  // the pusher's signal
constexpr unsigned char kFailed = 2;      // a worker's

using Failure = std::runtime_error;
using Counts = std::unordered_map<std::string, unsigned long>;

struct Options {
  std::string endpoint = "ipc://wordcount";
  std::size_t workers = 4;
  std::size_t top = 20;
  std::vector<std::string> files;
};

// The reading end of the endpoint. No other run can have it until this one has ended, and
// then no FIFO is left.
class Endpoint {
 public:
  explicit Endpoint(const std::string& name) : pull(Sock::pull(name)) {
    struct stat fifo = {};
    // The run before this one may just have removed the FIFO, which no pusher finds then.
    if (::flock(pull.fd(), LOCK_EX | LOCK_NB) != 0 || ::fstat(pull.fd(), &fifo) != 0 ||
        fifo.st_nlink == 0) {
      throw Failure("another run is using the endpoint " + name +
                    ": wait until it has ended, or name another one with --endpoint");
    }
  }
  Endpoint(const Endpoint&) = delete;
  ~Endpoint() {
    char path[PATH_MAX] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(pull.fd());
    if (::readlink(link.c_str(), path, sizeof path - 1) > 0) {
      ::unlink(path);
    }
  }

  const Sock pull;
};

// The process that sends the lines, and an actor that waits for its end. The loop need not:
// it watches the actor, which sends what was wrong.
class Pusher {
 public:
  explicit Pusher(const Options& options)
      : process_(Start(options)), waiter_([this](SockRef sock) { Wait(sock); }) {}
  Pusher(const Pusher&) = delete;
  ~Pusher() {
    ::kill(process_, SIGKILL);
    waiter_.reset();
    ::waitpid(process_, nullptr, 0);
  }

  SockRef sock() const { return waiter_->sock(); }

 private:
  // Called before there are threads, which a fork would not copy.
  static pid_t Start(const Options& options) {
    const pid_t pusher = ::fork();
    if (pusher < 0) {
      throw jactor::error("cannot start a process");
    }
    if (pusher > 0) {
      return pusher;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // it goes with the counter
    try {
      PushFiles(options);
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "wordcount: %s\n", failure.what());
      std::_Exit(EXIT_FAILURE);
    }
    std::_Exit(EXIT_SUCCESS);
  }

  static void PushFiles(const Options& options) {
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
        throw jactor::error("cannot read " + name);
      }
    }
    push.signal(kEndOfFiles);
  }

  void Wait(SockRef sock) const {
    sock.ready();
    siginfo_t end = {};
    while (::waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
    if (end.si_code != CLD_EXITED) {
      sock.send(
          Message{std::string("the pushing process has ended: ") + ::strsignal(end.si_status)});
    } else if (end.si_status != EXIT_SUCCESS) {
      sock.send(Message{"the pushing process has failed"});
    }
  }

  const pid_t process_;
  std::optional<Actor> waiter_;
};

// The text ends with a newline.
Counts CountWords(const std::string& text) {
  Counts counts;
  std::string word;
  for (const char c : text) {
    const int letter = std::tolower(static_cast<unsigned char>(c));
    if (letter >= 'a' && letter <= 'z') {
      word += static_cast<char>(letter);
    } else if (!word.empty()) {
      ++counts[std::exchange(word, "")];
    }
  }
  return counts;
}

// A worker: answers a batch of lines with its words, each followed by how often it was there.
void Work(SockRef sock) {
  sock.ready();
  try {
    while (auto batch = sock.receive()) {
      std::string answer;
      for (const auto& [word, count] : CountWords(batch->pop_string().value())) {
        answer += word + ' ' + std::to_string(count) + ' ';
      }
      sock.send(Message{answer});
    }
  } catch (const std::exception&) {
    sock.signal(kFailed);  // or the loop would wait for ever
  }
}

class Counter {
 public:
  Counter(const Options& options, const Sock& pull) : options_(options), pull_(pull) {}

  // Runs the loop from the first line to the last word.
  void Count(SockRef pusher) {
    watches_.push_back(jactor::watch(
        loop_.get(), pusher, [](Message problem) { throw Failure(problem.pop_string().value()); }));
    for (std::size_t i = 0; i < options_.workers; ++i) {
      const SockRef worker = workers_.emplace_back(Work).sock();
      watches_.push_back(jactor::watch(loop_.get(), worker, [this, worker](Message answer) {
        return OnAnswer(worker, std::move(answer));
      }));
      idle_.push_back(worker);
    }
    zloop_timer(loop_.get(), kProgressMs, 0, OnProgress, this);
    Advance();
    const bool stopped = zloop_start(loop_.get()) == 0;
    if (terminal_) {
      std::fputs("\r\033[K", stderr);
    }
    if (stopped) {
      throw Failure("stopped by a signal");
    }
    lines_watch_->rethrow();
    for (jactor::Watch& watch : watches_) {
      watch.rethrow();
    }
  }

  void Report() const {
    std::vector<std::pair<std::string, unsigned long>> words(counts_.begin(), counts_.end());
    std::sort(words.begin(), words.end(), [](const auto& a, const auto& b) {
      return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    const std::size_t rows =
        options_.top == 0 ? words.size() : std::min(options_.top, words.size());
    for (std::size_t i = 0; i < rows; ++i) {
      std::printf("  %10lu %s\n", words[i].second, words[i].first.c_str());
    }
    std::printf("%zu of %zu different words, %lu words in all\n", rows, words.size(), words_);
    const double seconds = Seconds();
    std::printf("%lu lines through %s in %.3f s: %.0f messages/s, %.1f MB/s\n", lines_,
                options_.endpoint.c_str(), seconds, static_cast<double>(lines_) / seconds,
                Megabytes() / seconds);
    if (std::fflush(stdout) != 0) {
      throw jactor::error("cannot write the report");
    }
  }

 private:
  int OnLine(Message message) {
    if (message.signal()) {
      ended_ = true;
    } else {
      const std::string line = message.pop_string().value();
      ++lines_;
      bytes_ += line.size();
      batch_ += line + '\n';
    }
    return Advance();
  }

  int OnAnswer(SockRef worker, Message answer) {
    if (answer.signal()) {
      throw Failure("a worker has failed");
    }
    std::istringstream words(answer.pop_string().value());
    unsigned long count = 0;
    for (std::string word; words >> word >> count;) {
      counts_[word] += count;
      words_ += count;
    }
    idle_.push_back(worker);
    return Advance();
  }

  // Also bounds how long the loop overlooks a signal that comes just before it waits.
  static int OnProgress(zloop_t*, int, void* arg) {
    const auto& self = *static_cast<Counter*>(arg);
    if (self.terminal_) {
      std::fprintf(stderr, "\r%lu lines, %.1f MB, %.1f MB/s \033[K", self.lines_, self.Megabytes(),
                   self.Megabytes() / self.Seconds());
    }
    return 0;
  }

  // Does what the last event has made possible. Result: for the loop, -1 at the end.
  int Advance() {
    if (!idle_.empty() && !batch_.empty() && (ended_ || BatchIsFull())) {
      idle_.back().send(Message{std::exchange(batch_, "")});
      idle_.pop_back();
    }
    if (ended_ || BatchIsFull()) {
      lines_watch_->end();
    } else if (!lines_watch_ || !lines_watch_->active()) {
      lines_watch_ = jactor::watch(loop_.get(), pull_,
                                   [this](Message line) { return OnLine(std::move(line)); });
    }
    return ended_ && batch_.empty() && idle_.size() == workers_.size() ? -1 : 0;
  }

  bool BatchIsFull() const { return batch_.size() >= kFullBatch; }
  double Megabytes() const { return static_cast<double>(bytes_) / 1e6; }
  double Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  }

  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  const bool terminal_ = ::isatty(STDERR_FILENO) != 0;
  const Options& options_;
  const Sock& pull_;
  const std::unique_ptr<zloop_t, void (*)(zloop_t*)> loop_{
      zloop_new(), [](zloop_t* loop) { zloop_destroy(&loop); }};
  std::vector<Actor> workers_;
  std::vector<SockRef> idle_;  // the workers that have nothing to do
  std::vector<jactor::Watch> watches_;
  std::optional<jactor::Watch> lines_watch_;
  std::string batch_;   // lines not dealt yet
  bool ended_ = false;  // the last line has come
  Counts counts_;
  unsigned long lines_ = 0, bytes_ = 0, words_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
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
    zsys_init();  // from now on SIGINT and SIGTERM end the loop, not the process
    const Endpoint endpoint(options.endpoint);
    const Pusher pusher(options);
    Counter counter(options, endpoint.pull);
    counter.Count(pusher.sock());
    counter.Report();
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? EXIT_SUCCESS : 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "wordcount: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
