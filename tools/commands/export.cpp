// export.cpp - jpipe export: messages from an endpoint to imports.
//
// A message is taken from the endpoint only when an import has room for it: when the far
// end is full, the reading stops, the FIFO fills, and the senders wait. Messages that an
// import has not confirmed are kept in its lane.
#include <poll.h>

#include <algorithm>
#include <deque>

#include "bridge.h"
#include "commands.h"
#include "holders.h"
#include "progress.h"
#include "report.h"
#include "sock.h"
#include "whole_reader.h"

namespace jpipe {
namespace {

class Exporter final : private Carrier {
 public:
  explicit Exporter(const Options& options)
      : options_(options),
        patience_(options.timeout, options.linger.value_or(kUsualLinger)),
        sock_(options.operands[0], Direction::kPull, patience_),
        reader_(sock_.fd()),
        bridge_(options, options.operands[1], Role::kExport, Link::kConnect, *this),
        progress_(options.progress) {
    patience_.Serve(bridge_.fd(), [this] { return bridge_.Serve(); });
    patience_.SayInGrace("waiting for confirmations; interrupt again to give up");
  }

  Exit Run();

 private:
  struct Held {
    std::uint64_t number;
    std::string bytes;
  };
  // The messages under way to one import.
  struct Lane {
    Window window;
    bool ending = false;  // the import takes nothing more
    std::deque<Held> held;
    std::uint64_t bytes = 0;  // of what is held
  };

  void Joined(const Identity& far) override;
  void Left(const Identity& far) override;
  std::string Got(const Identity& far, BridgeType type, std::string_view body) override;

  std::string SetWindow(const Identity& far, std::string_view body);
  bool Confirm(Lane& lane, std::uint64_t number);
  void Send(const Identity& far, const Held& held);
  void SendNew(const Identity& far, std::string bytes);
  void SendAgain();
  void TakeBack(const Identity& far);
  const Identity* Ready();
  std::uint64_t Unconfirmed() const;
  bool Enough() const { return options_.count && progress_.messages() >= *options_.count; }
  Outcome TakeOne();
  Outcome Carry();
  Outcome Finish();

  const Options& options_;
  Patience patience_;
  EndpointSock sock_;
  WholeReader reader_;
  std::map<Identity, Lane> lanes_;
  std::uint64_t last_ = 0;         // number of a message
  Identity latest_;                // whose turn it was
  std::deque<std::string> again_;  // to be sent again, to another import than before
  Bridge bridge_;
  Progress progress_;
  std::optional<Failure> failure_;
};

void Exporter::Send(const Identity& far, const Held& held) {
  std::string head;
  Append(head, held.number, 8);
  bridge_.Send(far, BridgeType::kData, head, held.bytes);
}

void Exporter::SendNew(const Identity& far, std::string bytes) {
  Lane& lane = lanes_[far];
  latest_ = far;
  lane.bytes += bytes.size();
  lane.held.push_back({++last_, std::move(bytes)});
  Send(far, lane.held.back());
}

// The next import in turn that has room; nullptr when there is none.
const Identity* Exporter::Ready() {
  const auto ready = [this](const auto& entry) {
    const Lane& lane = entry.second;
    return bridge_.IsJoined(entry.first) && lane.held.size() < lane.window.messages &&
           lane.bytes < lane.window.bytes;
  };
  const auto after = lanes_.upper_bound(latest_);
  auto found = std::find_if(after, lanes_.end(), ready);
  if (found == lanes_.end()) {
    found = std::find_if(lanes_.begin(), after, ready);
    found = found == after ? lanes_.end() : found;
  }
  return found != lanes_.end() ? &found->first : nullptr;
}

// Takes back what an import has not confirmed, to be sent to others.
void Exporter::TakeBack(const Identity& far) {
  const auto lane = lanes_.find(far);
  std::deque<Held>& held = lane->second.held;
  for (; !held.empty(); held.pop_back()) {
    again_.push_front(std::move(held.back().bytes));
  }
  lanes_.erase(lane);
}

void Exporter::SendAgain() {
  while (!again_.empty()) {
    const Identity* far = Ready();
    if (far == nullptr) {
      return;
    }
    std::string bytes = std::move(again_.front());
    again_.pop_front();
    SendNew(Identity(*far), std::move(bytes));
  }
}

// An import that is new here takes over the messages of those that have gone.
void Exporter::Joined(const Identity& far) {
  if (lanes_.count(far) != 0) {
    lanes_[far].window = {};
    return;
  }
  for (auto lane = lanes_.begin(); lane != lanes_.end();) {
    const Identity gone = (lane++)->first;
    if (!bridge_.IsJoined(gone)) {
      TakeBack(gone);
    }
  }
  lanes_[far];
}

void Exporter::Left(const Identity& far) {
  lanes_[far].window = {};
  if (bridge_.IsJoined()) {
    TakeBack(far);
    SendAgain();
  }
}

std::string Exporter::Got(const Identity& far, BridgeType type, std::string_view body) {
  return type == BridgeType::kWindow && body.size() == 16 ? SetWindow(far, body)
                                                          : "it sends something no import sends";
}

// Result: false when that number was not sent.
bool Exporter::Confirm(Lane& lane, std::uint64_t number) {
  if (number > last_) {
    return false;
  }
  while (!lane.held.empty() && lane.held.front().number <= number) {
    lane.bytes -= lane.held.front().bytes.size();
    lane.held.pop_front();
  }
  return true;
}

// The first window on a connection comes after a loss of what was under way.
std::string Exporter::SetWindow(const Identity& far, std::string_view body) {
  Lane& lane = lanes_[far];
  const std::uint64_t confirmed = TakeNumber(body, 8);
  if (!Confirm(lane, confirmed)) {
    return "it confirms a message that was not sent";
  }
  const bool is_first = lane.window.bytes == 0;
  lane.window.messages = std::min<std::uint64_t>(TakeNumber(body, 4), options_.window);
  lane.window.bytes = std::min<std::uint64_t>(TakeNumber(body, 4), options_.window_bytes);
  if (is_first) {
    for (const Held& held : lane.held) {
      Send(far, held);
    }
  }
  if (lane.window.messages == 0) {
    std::string head;
    Append(head, confirmed, 8);
    bridge_.Send(far, BridgeType::kEnd, head);
  }
  SendAgain();
  return {};
}

std::uint64_t Exporter::Unconfirmed() const {
  std::uint64_t count = again_.size();
  for (const auto& [far, lane] : lanes_) {
    count += lane.held.size();
  }
  return count;
}

// Takes a message and sends it.
Outcome Exporter::TakeOne() {
  std::string bytes;
  if (!reader_.Take(bytes)) {
    Content content;
    if (const Outcome outcome = sock_.Take(content); outcome != Outcome::kReady) {
      return outcome;
    }
    bytes = sock_.wire();
  }
  progress_.Add(ContentToCount(bytes));
  if (bytes.size() > kMaxOnWire) {
    throw Failure(kFailed, Text("a message takes %zu bytes in %s, but a bridge carries at most "
                                "%zu: it is lost; its sender should use shorter headers",
                                bytes.size(), sock_.endpoint().c_str(), kMaxOnWire));
  }
  again_.push_back(std::move(bytes));
  SendAgain();  // the import may have gone while the message was being taken
  return Outcome::kReady;
}

// Carries messages until it is stopped, or has carried enough.
Outcome Exporter::Carry() {
  while (!Enough()) {
    bridge_.CheckConnection();
    Outcome outcome = patience_.Wait(Ready() != nullptr ? sock_.fd() : -1, POLLIN, false);
    if (outcome == Outcome::kReady && Ready() != nullptr) {
      outcome = TakeOne();
    }
    if (outcome != Outcome::kReady && outcome != Outcome::kTick) {
      return outcome;
    }
  }
  return Outcome::kReady;
}

// Takes what would be lost in the FIFO if nobody else has it open, and waits until everything
// is confirmed. Result: kReady, or what ended the wait.
Outcome Exporter::Finish() {
  sock_.GoesOnInGrace();
  bool takes = false;
  bool looked = false;
  for (;;) {
    const bool more = !Enough() && !failure_ && sock_.Waiting() > 0;
    if (more && !looked) {
      takes = !IsHeldElsewhere(sock_.fd());
      looked = true;
    }
    if (Unconfirmed() == 0 && !(more && takes)) {
      return Outcome::kReady;
    }
    Outcome outcome = Outcome::kTick;
    if (more && takes && Ready() != nullptr) {
      outcome = TakeOne();
    } else {
      bridge_.CheckConnection();
      outcome = patience_.Wait(-1, 0, true);
    }
    if (outcome != Outcome::kReady && outcome != Outcome::kTick) {
      return outcome;
    }
  }
}

Exit Exporter::Run() {
  Outcome carried = Outcome::kReady;
  Outcome finished = Outcome::kReady;
  try {
    carried = Carry();
    finished = Finish();
  } catch (const Failure& failure) {
    Note(failure.what());
    failure_ = failure;
  }
  const std::uint64_t unconfirmed = Unconfirmed();
  sock_.Leave();
  Note("exported " + progress_.Counts());
  if (unconfirmed > 0) {
    Note("not confirmed: " + Counted(unconfirmed, "message") +
         "; an import that is still running may have and deliver them");
  }
  if (failure_ || finished != Outcome::kReady || unconfirmed > 0) {
    return failure_ ? failure_->code() : carried == Outcome::kTimedOut ? kTimedOut : kFailed;
  }
  return ExitFor(carried, !options_.count);
}

}  // namespace

int Export(const Options& options) {
  if (options.count || options.timeout) {
    MarkAsLeaving();
  }
  return Exporter(options).Run();
}

}  // namespace jpipe
