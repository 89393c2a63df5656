// import.cpp - jpipe import: messages from a ZeroMQ PULL socket to an endpoint.
//
// A message is taken from ZeroMQ only when the one before lies in the FIFO: a full
// FIFO stops the receiving, and the far end waits.
#include <unistd.h>

#include "bridge.h"
#include "commands.h"
#include "progress.h"
#include "report.h"

namespace jpipe {
namespace {

constexpr int kBatch = 100;  // messages between two looks at the other events
constexpr int kQuiet = 100;  // milliseconds without a message: none is on its way inside
constexpr std::chrono::seconds kCatchUp{1};         // then nothing may wait once
constexpr unsigned long long kUnderWay = 32 << 20;  // more than the buffers of TCP hold
constexpr const char* kStopping =
    "stopping when what has arrived is delivered; interrupt again to give up";

struct DestroyZmsg {
  void operator()(zmsg_t* zmsg) const { zmsg_destroy(&zmsg); }
};

class Importer {
 public:
  explicit Importer(const Options& options)
      : options_(options),
        writing_(options.timeout, options.linger),
        sock_(options.operands[1], Direction::kPush, writing_),
        bridge_(options, options.operands[0], ZMQ_PULL, Link::kBind),
        progress_(options.progress) {
    sock_.SendsWhatWasTaken();
    writing_.SayInGrace(kStopping);
  }

  Exit Run();

 private:
  static int OnMessages(zloop_t* loop, zsock_t* socket, void* self);

  bool DeliverOne();
  void Loop();
  bool DeliverWhatComes(bool limited);
  bool DeliverRest();
  unsigned long long CountUndelivered();

  const Options& options_;
  Patience writing_;
  EndpointSock sock_;
  Bridge bridge_;
  Progress progress_;
  unsigned long long refused_ = 0;
  unsigned long long undelivered_ = 0;
  std::optional<Failure> failure_;
};

// Moves one message. Result: false when it could not be delivered.
bool Importer::DeliverOne() {
  const std::unique_ptr<zmsg_t, DestroyZmsg> zmsg(zmsg_recv_nowait(bridge_.socket()));
  if (zmsg == nullptr) {
    return true;
  }
  Content content;
  if (const std::string wrong = FromZmq(zmsg.get(), content); !wrong.empty()) {
    ++refused_;
    Note("refused a message from the network: " + wrong);
    return true;
  }
  if (sock_.Put(content) != Outcome::kReady) {
    ++undelivered_;
    return false;
  }
  progress_.Add(content);
  return true;
}

int Importer::OnMessages(zloop_t* /*loop*/, zsock_t* /*socket*/, void* self) {
  auto& importer = *static_cast<Importer*>(self);
  try {
    for (int k = 0; k < kBatch && importer.bridge_.Has(ZMQ_POLLIN); ++k) {
      if (!importer.DeliverOne() || importer.writing_.cause()) {
        return -1;
      }
    }
    return 0;
  } catch (const Failure& failure) {  // no exception may cross the loop, which is C
    importer.failure_ = failure;
    ++importer.undelivered_;
    return -1;
  }
}

void Importer::Loop() {
  zloop_t* loop = zloop_new();
  zloop_reader(loop, bridge_.socket(), OnMessages, this);
  RunLoop(loop, options_, writing_);
  zloop_destroy(&loop);
}

// Delivers messages until none has come for a moment. `limited`, for a far end that
// may go on sending for ever: at most what can have been on its way. Result: whether
// all were delivered.
bool Importer::DeliverWhatComes(bool limited) {
  const unsigned long long most = progress_.bytes() + kUnderWay;
  const auto limit = Patience::Clock::now() + kCatchUp;
  for (;;) {
    if (bridge_.Has(ZMQ_POLLIN)) {
      if (limited && progress_.bytes() > most) {
        return true;
      }
      if (!DeliverOne()) {
        return false;
      }
      continue;
    }
    if (limited && Patience::Clock::now() > limit) {
      return true;
    }
    if (writing_.Wait(-1, 0, true, kQuiet) != Outcome::kTick) {
      return false;
    }
    if (!bridge_.Has(ZMQ_POLLIN)) {
      return true;
    }
  }
}

// After the loop: catches up with a far end that has finished, takes nothing more
// from the network, delivers what has come, and waits for its reader. Result:
// whether nothing of it is lost.
bool Importer::DeliverRest() {
  if (undelivered_ > 0) {
    return false;
  }
  if (!DeliverWhatComes(true)) {
    return false;
  }
  bridge_.Unlink();
  return DeliverWhatComes(false) && sock_.WaitUntilSafeToLeave() == Outcome::kReady;
}

// Takes what nobody will deliver, in order to tell how much it is.
unsigned long long Importer::CountUndelivered() {
  bridge_.Unlink();
  unsigned long long count = undelivered_;
  while (bridge_.Has(ZMQ_POLLIN)) {
    zmsg_t* zmsg = zmsg_recv_nowait(bridge_.socket());
    count += zmsg != nullptr ? 1 : 0;
    zmsg_destroy(&zmsg);
  }
  return count;
}

Exit Importer::Run() {
  Loop();
  bool all_delivered = false;
  try {
    if (failure_) {
      throw Failure(*failure_);
    }
    all_delivered = DeliverRest();
  } catch (const Failure& failure) {
    Note(failure.what());
  }
  const unsigned long long lost = CountUndelivered();
  Note("imported " + progress_.Counts());
  if (lost > 0) {
    Note(Counted(lost, "message") + " that had arrived could not be delivered to " +
         sock_.endpoint() + " and are lost");
  }
  if (!all_delivered || lost > 0 || refused_ > 0) {
    return kFailed;
  }
  return ExitFor(writing_.cause().value_or(Outcome::kReady), true);
}

}  // namespace

int Import(const Options& options) { return Importer(options).Run(); }

}  // namespace jpipe
