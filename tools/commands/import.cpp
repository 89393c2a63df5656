// import.cpp - jpipe import: messages from exports to an endpoint.
//
// A message that has arrived waits in a queue, which the windows bound, until it is written
// to the FIFO; then it is confirmed.
#include <algorithm>
#include <deque>

#include "bridge.h"
#include "commands.h"
#include "holders.h"
#include "message_scan.h"
#include "progress.h"
#include "report.h"
#include "sock.h"

namespace jpipe {
namespace {

constexpr double kAnswers = 1;                 // seconds for the exports' answers at the end
constexpr std::size_t kMostRemembered = 1000;  // exports

class Importer final : private Carrier {
 public:
  explicit Importer(const Options& options)
      : options_(options),
        patience_(options.timeout, options.linger.value_or(kUsualLinger)),
        sock_(options.operands[1], Direction::kPush, patience_),
        bridge_(options, options.operands[0], Role::kImport, Link::kBind, *this),
        progress_(options.progress) {
    sock_.GoesOnInGrace();
    patience_.Serve(bridge_.fd(), [this] { return Serve(); });
    patience_.SayInGrace("delivering what has arrived, then stopping; interrupt again to give up");
  }

  Exit Run();

 private:
  // What has arrived from one export.
  struct Lane {
    std::uint64_t accepted = 0;   // the last number in the queue
    std::uint64_t written = 0;    // and in the endpoint
    Window unconfirmed;           // what has arrived and is not confirmed
    Window to_confirm;            // the part of it that is in the endpoint
    std::uint64_t known = 0;      // the last number that the export knows to be confirmed
    bool ended = false;           // it sends nothing more
    unsigned long long used = 0;  // when, to forget the one that has been gone longest
  };
  struct Arrived {
    Identity from;
    std::uint64_t number;
    std::string bytes;
  };

  void Joined(const Identity& far) override;
  void Left(const Identity& /*far*/) override {}
  std::string Got(const Identity& far, BridgeType type, std::string_view body) override;

  void Stop();
  bool Serve();
  void Grant(const Identity& far, Lane& lane);
  std::string Accept(const Identity& far, std::string_view body);
  void ForgetOne();
  Outcome DeliverOne();
  Outcome DeliverAll();
  void ConfirmAll();
  bool AllHaveEnded() const;
  void AwaitEnds();

  const Options& options_;
  Patience patience_;
  EndpointSock sock_;
  std::map<Identity, Lane> lanes_;
  std::deque<Arrived> queue_;
  unsigned long long joined_ = 0;
  bool stopping_ = false;
  Bridge bridge_;
  Progress progress_;
};

// Confirms what has been written to the endpoint, and grants the window again.
void Importer::Grant(const Identity& far, Lane& lane) {
  lane.unconfirmed.messages -= lane.to_confirm.messages;
  lane.unconfirmed.bytes -= lane.to_confirm.bytes;
  lane.to_confirm = {};
  std::string body;
  Append(body, lane.written, 8);
  Append(body, stopping_ ? 0 : options_.window, 4);
  Append(body, options_.window_bytes, 4);
  bridge_.Send(far, BridgeType::kWindow, body);
}

void Importer::ForgetOne() {
  auto oldest = lanes_.end();
  for (auto lane = lanes_.begin(); lane != lanes_.end(); ++lane) {
    const bool idle =
        !bridge_.IsJoined(lane->first) && lane->second.accepted == lane->second.written;
    if (idle && (oldest == lanes_.end() || lane->second.used < oldest->second.used)) {
      oldest = lane;
    }
  }
  if (oldest != lanes_.end()) {
    lanes_.erase(oldest);
  }
}

void Importer::Joined(const Identity& far) {
  if (lanes_.size() >= kMostRemembered) {
    ForgetOne();
  }
  Lane& lane = lanes_[far];
  lane.used = ++joined_;
  lane.ended = false;
  Grant(far, lane);
}

std::string Importer::Got(const Identity& far, BridgeType type, std::string_view body) {
  if (type == BridgeType::kEnd && body.size() == 8) {
    lanes_[far].ended = stopping_;
    lanes_[far].known = TakeNumber(body, 8);
    return {};
  }
  return type == BridgeType::kData && body.size() > 8 ? Accept(far, body)
                                                      : "it sends something no export sends";
}

// Whether these bytes are one message, with nothing after it.
bool IsOneMessage(std::string_view bytes) {
  MessageScan scan;
  return scan.Look(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) ==
             MessageScan::Verdict::kWhole &&
         scan.size() == bytes.size();
}

std::string Importer::Accept(const Identity& far, std::string_view body) {
  Lane& lane = lanes_[far];
  const std::uint64_t number = TakeNumber(body, 8);
  if (number <= lane.accepted) {
    return {};  // it was sent again because its confirmation had not arrived
  }
  if (lane.unconfirmed.messages >= options_.window ||
      lane.unconfirmed.bytes >= options_.window_bytes) {
    return "it sends more than was granted";
  }
  if (!IsOneMessage(body)) {
    return "its data is not a message of an endpoint";
  }
  lane.accepted = number;
  ++lane.unconfirmed.messages;
  lane.unconfirmed.bytes += body.size();
  queue_.push_back({far, number, std::string(body)});
  return {};
}

// Tells the exports to stop, which they answer.
void Importer::Stop() {
  stopping_ = true;
  for (auto& [far, lane] : lanes_) {
    Grant(far, lane);
  }
}

bool Importer::Serve() {
  const bool any = bridge_.Serve();
  if (!stopping_ && patience_.cause()) {
    Stop();
  }
  return any;
}

Outcome Importer::DeliverOne() {
  Arrived& arrived = queue_.front();
  if (const Outcome outcome = sock_.PutWire(arrived.bytes); outcome != Outcome::kReady) {
    return outcome;
  }
  progress_.Add(ContentToCount(arrived.bytes));
  Lane& lane = lanes_[arrived.from];
  lane.written = arrived.number;
  ++lane.to_confirm.messages;
  lane.to_confirm.bytes += arrived.bytes.size();
  if (4 * lane.to_confirm.messages >= options_.window ||
      4 * lane.to_confirm.bytes >= options_.window_bytes) {
    Grant(arrived.from, lane);
  }
  queue_.pop_front();
  return Outcome::kReady;
}

void Importer::ConfirmAll() {
  for (auto& [far, lane] : lanes_) {
    if (lane.to_confirm.messages > 0) {
      Grant(far, lane);
    }
  }
}

bool Importer::AllHaveEnded() const {
  return std::all_of(lanes_.begin(), lanes_.end(), [this](const auto& entry) {
    const Lane& lane = entry.second;
    return (lane.ended && lane.known == lane.written) || !bridge_.IsJoined(entry.first);
  });
}

// Waits until the exports know what is confirmed, or the next import would get it again.
void Importer::AwaitEnds() {
  Patience closing(kAnswers);
  closing.Serve(bridge_.fd(), [this] { return Serve(); });
  while (!AllHaveEnded() && closing.Wait(-1, 0, false) == Outcome::kTick) {
  }
}

// Delivers what arrives until it is stopped, and then the rest of what has arrived.
// Result: kReady, or what ended it.
Outcome Importer::DeliverAll() {
  for (;;) {
    if (queue_.empty()) {
      Serve();
    }
    Outcome outcome = Outcome::kReady;
    if (!queue_.empty()) {
      outcome = DeliverOne();
    } else {
      ConfirmAll();
      if (stopping_ && AllHaveEnded()) {
        return sock_.LeaveWhenSafe();
      }
      bridge_.CheckConnection();
      outcome = patience_.Wait(-1, 0, true);
    }
    if (outcome != Outcome::kReady && outcome != Outcome::kTick) {
      return outcome;
    }
  }
}

Exit Importer::Run() {
  std::optional<Failure> failure;
  Outcome outcome = Outcome::kReady;
  try {
    outcome = DeliverAll();
  } catch (const Failure& caught) {
    Note(caught.what());
    failure = caught;
  }
  Stop();
  AwaitEnds();
  Note("imported " + progress_.Counts());
  if (outcome != Outcome::kReady && queue_.empty() && !AllHaveEnded()) {
    Note("an export did not stop in time: it keeps the unconfirmed messages");
  }
  if (!queue_.empty()) {
    Note(Counted(queue_.size(), "message") + " that had arrived could not be delivered to " +
         sock_.endpoint() + ": exports that are still running keep the unconfirmed ones");
  }
  if (failure) {
    return failure->code();
  }
  if (outcome != Outcome::kReady || !queue_.empty()) {
    return patience_.cause() == Outcome::kTimedOut ? kTimedOut : kFailed;
  }
  return ExitFor(patience_.cause().value_or(Outcome::kReady), true);
}

}  // namespace

int Import(const Options& options) {
  MarkAsLeaving();
  return Importer(options).Run();
}

}  // namespace jpipe
