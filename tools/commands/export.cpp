// export.cpp - jpipe export: messages from an endpoint to a ZeroMQ PUSH socket.
//
// A message is taken from the endpoint only when ZeroMQ has room for it: a full
// far end stops the reading, the FIFO fills, and the senders wait.
#include <unistd.h>

#include <algorithm>

#include "bridge.h"
#include "commands.h"
#include "holders.h"
#include "progress.h"
#include "report.h"

namespace jpipe {
namespace {

constexpr int kBatch = 100;        // messages between two looks at the other events
constexpr int kLookInterval = 20;  // milliseconds

class Exporter {
 public:
  explicit Exporter(const Options& options)
      : options_(options),
        reading_(options.timeout),
        sock_(options.operands[0], Direction::kPull, reading_),
        bridge_(options, options.operands[1], ZMQ_PUSH, Link::kConnect),
        progress_(options.progress) {
    if (options.count || options.timeout) {
      sock_.WillLeave();
    }
  }
  Exporter(const Exporter&) = delete;
  Exporter& operator=(const Exporter&) = delete;
  ~Exporter() { zmsg_destroy(&pending_); }

  Exit Run();

 private:
  static int OnMessages(zloop_t* loop, j_sock_t* sock, void* self);
  static int OnRoom(zloop_t* loop, zmq_pollitem_t* item, void* self);

  void Listen(zloop_t* loop);
  void AwaitRoom(zloop_t* loop);
  void Loop();
  bool TakeOne();
  bool TakeAnother();
  bool SendPending();
  bool Enough() const { return options_.count && progress_.messages() >= *options_.count; }
  Outcome SendRest(Patience& patience);
  Exit Finish(Exit code);

  const Options& options_;
  Patience reading_;
  std::optional<Patience> not_waiting_;  // for the rest, after the loop
  EndpointSock sock_;
  Bridge bridge_;
  Progress progress_;
  zmsg_t* pending_ = nullptr;  // taken, and not yet handed to ZeroMQ
  std::optional<Failure> failure_;
};

// Takes the next message. Result: whether there was one; the loop is to end
// otherwise.
bool Exporter::TakeOne() {
  Content content;
  if (sock_.Take(content) != Outcome::kReady) {
    return false;
  }
  progress_.Add(content);
  pending_ = ToZmq(content);
  return true;
}

// Hands the pending message to ZeroMQ. Result: false when it has no room.
bool Exporter::SendPending() {
  while (pending_ != nullptr && zmsg_size(pending_) > 0) {
    zframe_t* part = zmsg_pop(pending_);
    const int more = zmsg_size(pending_) > 0 ? ZFRAME_MORE : 0;
    if (zframe_send(&part, bridge_.socket(), more | ZFRAME_DONTWAIT) != 0) {
      zmsg_prepend(pending_, &part);
      return false;
    }
  }
  zmsg_destroy(&pending_);
  return true;
}

int Exporter::OnMessages(zloop_t* loop, j_sock_t* /*sock*/, void* self) {
  auto& exporter = *static_cast<Exporter*>(self);
  try {
    for (int k = 0; k < kBatch && exporter.sock_.Waiting() > 0; ++k) {
      if (!exporter.bridge_.Has(ZMQ_POLLOUT)) {
        exporter.AwaitRoom(loop);
        return 0;
      }
      if (!exporter.TakeOne()) {
        return -1;
      }
      if (!exporter.SendPending()) {
        exporter.AwaitRoom(loop);
        return 0;
      }
      if (exporter.Enough()) {
        return -1;
      }
    }
    return 0;
  } catch (const Failure& failure) {  // no exception may cross the loop, which is C
    exporter.failure_ = failure;
    return -1;
  }
}

int Exporter::OnRoom(zloop_t* loop, zmq_pollitem_t* item, void* self) {
  auto& exporter = *static_cast<Exporter*>(self);
  if (!exporter.SendPending()) {
    return 0;
  }
  if (exporter.Enough()) {
    return -1;
  }
  zloop_poller_end(loop, item);
  exporter.Listen(loop);
  return 0;
}

void Exporter::Listen(zloop_t* loop) { hybrid_zloop_reader(loop, &sock_, OnMessages, this); }

void Exporter::AwaitRoom(zloop_t* loop) {
  hybrid_zloop_reader_end(loop, &sock_);
  zmq_pollitem_t room = {};
  room.socket = zsock_resolve(bridge_.socket());
  room.events = ZMQ_POLLOUT;
  zloop_poller(loop, &room, OnRoom, this);
}

void Exporter::Loop() {
  zloop_t* loop = zloop_new();
  Listen(loop);
  RunLoop(loop, options_, reading_);
  hybrid_zloop_reader_end(loop, &sock_);
  zloop_destroy(&loop);
}

// TakeOne, outside the loop.
bool Exporter::TakeAnother() {
  try {
    return TakeOne();
  } catch (const Failure& failure) {
    Note(failure.what());
    failure_ = failure;
    return false;
  }
}

// After the loop: hands over the pending message, takes what would be lost in the
// FIFO when nobody else has it open, and waits for ZeroMQ.
Outcome Exporter::SendRest(Patience& patience) {
  sock_.WaitWith(not_waiting_.emplace(0.0, 0.0));
  const bool takes_all = !Enough() && !failure_ && !IsHeldElsewhere(sock_.fd());
  do {
    while (!SendPending()) {
      const Outcome outcome = patience.Wait(-1, 0, false, kLookInterval);
      if (outcome != Outcome::kTick) {
        return outcome;
      }
    }
  } while (takes_all && sock_.Waiting() > 0 && TakeAnother());
  sock_.SayWhatLeavingLoses();
  return bridge_.Close(patience);
}

Exit Exporter::Finish(Exit code) {
  Patience patience(options_.linger, 0.0);
  const Outcome outcome = SendRest(patience);
  Note("exported " + progress_.Counts());
  if (outcome == Outcome::kReady) {
    return failure_ ? failure_->code() : code;
  }
  const auto held = std::min<unsigned long long>(
      progress_.messages(), static_cast<unsigned long long>(options_.high_water) + 1);
  Note("not everything has left: the last messages, at most " + std::to_string(held) +
       ", are lost; see that the other side runs and can be reached");
  ::_exit(kFailed);
}

Exit Exporter::Run() {
  Loop();
  if (failure_) {
    Note(failure_->what());
  }
  const Outcome outcome = reading_.cause().value_or(Outcome::kReady);
  return Finish(ExitFor(outcome, !options_.count));
}

}  // namespace

int Export(const Options& options) { return Exporter(options).Run(); }

}  // namespace jpipe
