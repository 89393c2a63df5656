// push.cpp - jpipe push and jpipe signal: words, lines or a file into an endpoint.
#include "commands.h"
#include "holders.h"
#include "input.h"
#include "progress.h"
#include "report.h"
#include "sock.h"

namespace jpipe {
namespace {

// With its separators, a line that is cut into frames may be longer than a message.
constexpr std::size_t kLongestLine = std::size_t{4} * JACTOR_MAX_SIZE;

// Sends messages, and reports on them.
class Pusher {
 public:
  explicit Pusher(const Options& options)
      : options_(options),
        patience_(options.timeout),
        sock_(options.operands[0], Direction::kPush, patience_),
        progress_(options.progress) {
    if (options.no_wait) {
      sock_.NeverWaitForRoom();
    }
  }

  Outcome Send(const Content& content) {
    if (content.frames.size() > 1 && content.frames.back().empty() && !warned_) {
      warned_ = true;
      Note("an empty frame at the end of a message arrives as a separate message");
    }
    const Outcome outcome = sock_.Put(content);
    if (outcome == Outcome::kReady) {
      progress_.Add(content);
    } else {
      Note((outcome == Outcome::kFull ? sock_.endpoint() + " is full" : "stopped") +
           ": a message of " + Counted(content.Bytes(), "byte") +
           " and what follows it were not sent; sent so far: " + progress_.Counts());
    }
    return outcome;
  }

  bool Enough() const { return options_.count && progress_.messages() >= *options_.count; }

  // Ends the command, after the last message or whatever came instead of it.
  Exit Leave(Outcome outcome) {
    if (outcome != Outcome::kReady) {
      sock_.Leave();
    } else if (!options_.no_wait) {
      outcome = sock_.LeaveWhenSafe();
    }
    return ExitFor(outcome, false);
  }

  Patience& patience() { return patience_; }

 private:
  const Options& options_;
  Patience patience_;
  EndpointSock sock_;
  Progress progress_;
  bool warned_ = false;
};

Content CutIntoFrames(std::string_view line, const std::optional<std::string>& separator) {
  Content content;
  if (separator) {
    for (std::size_t at = line.find(*separator); at != std::string_view::npos;
         at = line.find(*separator)) {
      content.frames.push_back(line.substr(0, at));
      line.remove_prefix(at + separator->size());
    }
  }
  content.frames.push_back(line);
  return content;
}

Outcome PushLines(const Options& options, InputReader& reader, Pusher& pusher) {
  const std::size_t longest = options.frames ? kLongestLine : JACTOR_MAX_SIZE;
  std::string line;
  Outcome outcome = Outcome::kReady;
  while (outcome == Outcome::kReady && !pusher.Enough()) {
    bool at_end = false;
    outcome = reader.Next(line, longest, at_end);
    if (at_end) {
      break;
    }
    if (outcome == Outcome::kReady) {
      outcome = pusher.Send(CutIntoFrames(line, options.frames));
    }
  }
  return outcome;
}

Outcome PushFile(InputReader& reader, Pusher& pusher) {
  std::string bytes;
  const Outcome outcome = reader.Rest(bytes, JACTOR_MAX_SIZE);
  if (outcome != Outcome::kReady) {
    return outcome;
  }
  Content content;
  content.frames.push_back(bytes);
  return pusher.Send(content);
}

Outcome PushWords(const Options& options, Pusher& pusher) {
  Content content;
  content.frames.assign(options.operands.begin() + 1, options.operands.end());
  return pusher.Send(content);
}

}  // namespace

int Push(const Options& options) {
  MarkAsLeaving();
  const bool words = options.operands.size() > 1;
  if (words && (options.file || options.frames || options.count)) {
    throw Failure(kUsage,
                  "FRAME operands make one message: leave out --file, --frames and --count");
  }
  InputReader input(options.file.value_or("-"));
  Pusher pusher(options);
  input.WaitWith(pusher.patience());
  try {
    return pusher.Leave(words          ? PushWords(options, pusher)
                        : options.file ? PushFile(input, pusher)
                                       : PushLines(options, input, pusher));
  } catch (const Failure& failure) {
    // Bad input does not lose what was sent before it.
    Note(failure.what());
    pusher.Leave(Outcome::kReady);
    return failure.code();
  }
}

int Signal(const Options& options) {
  MarkAsLeaving();
  Content content;
  content.signal = static_cast<int>(Number("signal value", options.operands[1], 0, 255));
  Pusher pusher(options);
  return pusher.Leave(pusher.Send(content));
}

}  // namespace jpipe
