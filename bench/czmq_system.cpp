// czmq_system.cpp - CZMQ: zactor and zmsg, and PUSH/PULL zsocks over ipc.
#include <czmq.h>

#include <mutex>

#include "bench.h"

namespace bench {

namespace {

// How many messages of a mebibyte may queue up; CZMQ's own limit of 1000 would
// take the machine's memory. Smaller messages keep that limit.
constexpr std::size_t kLarge = 1 << 20;
constexpr int kLargeQueue = 64;

zmsg_t* Build(const Payload& payload) {
  zmsg_t* msg = zmsg_new();
  for (std::size_t i = 0; i < payload.frames(); ++i) {
    const Bytes frame = payload.frame(i);
    Must(zmsg_addmem(msg, frame.data(), frame.size()) == 0, "zmsg_addmem");
  }
  return msg;
}

Stamp TakeApart(zmsg_t* msg, Checker& checker) {
  for (std::size_t i = 0; i < checker.shape().frames; ++i) {
    zframe_t* frame = zmsg_pop(msg);
    checker.Frame({zframe_data(frame), zframe_size(frame)});
    zframe_destroy(&frame);
  }
  zmsg_destroy(&msg);
  return checker.EndMessage();
}

bool IsRequestToStop(zmsg_t* msg) { return zframe_streq(zmsg_first(msg), "$TERM"); }

// `handle` is a zsock or a zactor.
class CzmqEnd : public End {
 public:
  explicit CzmqEnd(void* handle) : handle_(handle) {}

  void Send(const Payload& payload) override {
    zmsg_t* msg = Build(payload);
    Must(zmsg_send(&msg, handle_) == 0, "zmsg_send");
  }

  Stamp Receive(Checker& checker) override {
    zmsg_t* msg = zmsg_recv(handle_);
    Must(msg != nullptr, "zmsg_recv");
    return TakeApart(msg, checker);
  }

  bool Echo(Shape /*shape*/) override {
    zmsg_t* msg = zmsg_recv(handle_);
    if (msg == nullptr || IsRequestToStop(msg)) {
      zmsg_destroy(&msg);
      return false;
    }
    Must(zmsg_send(&msg, handle_) == 0, "zmsg_send");
    return true;
  }

 private:
  void* handle_;
};

class CzmqActor : public Actor {
 public:
  explicit CzmqActor(const ActorFunction& function)
      : actor_(zactor_new(Run, const_cast<ActorFunction*>(&function))), end_(actor_) {
    Must(actor_ != nullptr, "zactor_new");
  }
  ~CzmqActor() override { zactor_destroy(&actor_); }

  End& end() override { return end_; }

 private:
  static void Run(zsock_t* pipe, void* args) {
    zsock_signal(pipe, 0);
    CzmqEnd end(pipe);
    (*static_cast<const ActorFunction*>(args))(end);
  }

  zactor_t* actor_;
  CzmqEnd end_;
};

class ZsockEnd : public CzmqEnd {
 public:
  explicit ZsockEnd(zsock_t* sock) : CzmqEnd(sock), sock_(sock) {
    Must(sock != nullptr, "zsock_new_pull or zsock_new_push");
  }
  ~ZsockEnd() override { zsock_destroy(&sock_); }

 private:
  zsock_t* sock_;
};

class Czmq : public System {
 public:
  bool Supports(Shape /*shape*/) const override { return true; }

  std::unique_ptr<Actor> Start(const ActorFunction& function, Shape shape) override {
    std::call_once(set_up_, [&] {
      zsys_init();  // which is not for several threads at once
      if (shape.size >= kLarge) {
        zsys_set_pipehwm(kLargeQueue);
      }
    });
    return std::make_unique<CzmqActor>(function);
  }

  void Prepare(unsigned connections) override {
    for (unsigned i = 0; i < connections; ++i) {
      paths_.push_back(UniquePath("czmq", i));
    }
  }

  std::unique_ptr<End> Pull(unsigned connection, Shape /*shape*/) override {
    return std::make_unique<ZsockEnd>(zsock_new_pull(("@ipc://" + paths_.at(connection)).c_str()));
  }

  std::unique_ptr<End> Push(unsigned connection, Shape /*shape*/) override {
    return std::make_unique<ZsockEnd>(zsock_new_push((">ipc://" + paths_.at(connection)).c_str()));
  }

  void BuildAndTakeApart(const Payload& payload, Checker& checker) override {
    TakeApart(Build(payload), checker);
  }

 private:
  std::once_flag set_up_;
};

}  // namespace

std::unique_ptr<System> MakeCzmq() { return std::make_unique<Czmq>(); }

}  // namespace bench
