// nng_system.cpp - nng: pair0 over inproc, push0/pull0 over ipc.
//
// nng queues nothing by default; the queues here let a sender run ahead of its
// receiver, as in the other systems.
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

constexpr int kQueue = 128;
constexpr std::size_t kAnySize = 0;

void MustNng(int error, const char* what) {
  if (error != 0) [[unlikely]] {
    std::fprintf(stderr, "jactor_bench: %s: %s\n", what, nng_strerror(error));
    Fail("nng");
  }
}

class NngEnd : public End {
 public:
  explicit NngEnd(nng_socket socket) : socket_(socket) {}
  ~NngEnd() override { nng_close(socket_); }

  nng_socket socket() const { return socket_; }

  void Send(const Payload& payload) override {
    nng_msg* msg = nullptr;
    MustNng(nng_msg_alloc(&msg, payload.all().size()), "nng_msg_alloc");
    std::memcpy(nng_msg_body(msg), payload.all().data(), payload.all().size());
    MustNng(nng_sendmsg(socket_, msg, 0), "nng_sendmsg");
  }

  Stamp Receive(Checker& checker) override {
    nng_msg* msg = nullptr;
    MustNng(nng_recvmsg(socket_, &msg, 0), "nng_recvmsg");
    checker.Frame({static_cast<unsigned char*>(nng_msg_body(msg)), nng_msg_len(msg)});
    nng_msg_free(msg);
    return checker.EndMessage();
  }

  bool Echo(Shape /*shape*/) override {
    nng_msg* msg = nullptr;
    if (nng_recvmsg(socket_, &msg, 0) != 0) {
      return false;
    }
    if (nng_msg_len(msg) == 0) {
      nng_msg_free(msg);
      return false;
    }
    MustNng(nng_sendmsg(socket_, msg, 0), "nng_sendmsg");
    return true;
  }

 private:
  nng_socket socket_;
};

nng_socket OpenPair() {
  nng_socket socket = NNG_SOCKET_INITIALIZER;
  MustNng(nng_pair0_open(&socket), "nng_pair0_open");
  MustNng(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, kAnySize), "NNG_OPT_RECVMAXSZ");
  MustNng(nng_socket_set_int(socket, NNG_OPT_SENDBUF, kQueue), "NNG_OPT_SENDBUF");
  MustNng(nng_socket_set_int(socket, NNG_OPT_RECVBUF, kQueue), "NNG_OPT_RECVBUF");
  return socket;
}

// A thread at one end of a pair. An empty message asks it to stop, and with an empty
// message it says that it is ready.
class NngActor : public Actor {
 public:
  explicit NngActor(const ActorFunction& function) : end_(OpenPair()) {
    static std::atomic<unsigned> counter{0};
    const std::string url = "inproc://jactor_bench." + std::to_string(counter++);
    MustNng(nng_listen(end_.socket(), url.c_str(), nullptr, 0), "nng_listen");
    thread_ = std::thread([this, url, &function] {
      NngEnd end(OpenPair());
      MustNng(nng_dial(end.socket(), url.c_str(), nullptr, 0), "nng_dial");
      SendEmpty(end.socket());
      function(end);
      finish_.get_future().wait();
    });
    nng_msg* ready = nullptr;
    MustNng(nng_recvmsg(end_.socket(), &ready, 0), "nng_recvmsg");
    nng_msg_free(ready);
  }

  ~NngActor() override {
    SendEmpty(end_.socket());
    finish_.set_value();
    thread_.join();
  }

  End& end() override { return end_; }

 private:
  static void SendEmpty(nng_socket socket) {
    nng_msg* msg = nullptr;
    MustNng(nng_msg_alloc(&msg, 0), "nng_msg_alloc");
    MustNng(nng_sendmsg(socket, msg, 0), "nng_sendmsg");
  }

  NngEnd end_;
  std::promise<void> finish_;  // until then the actor's socket stays open
  std::thread thread_;
};

// Dials until the listener is there.
void DialPatiently(nng_socket socket, const std::string& url) {
  for (;;) {
    const int error = nng_dial(socket, url.c_str(), nullptr, 0);
    if (error == 0) {
      return;
    }
    if (error != NNG_ENOENT && error != NNG_ECONNREFUSED) {
      MustNng(error, "nng_dial");
    }
    ::usleep(1000);
  }
}

class Nng : public System {
 public:
  bool Supports(Shape shape) const override { return shape.frames == 1; }

  std::unique_ptr<Actor> Start(const ActorFunction& function, Shape /*shape*/) override {
    return std::make_unique<NngActor>(function);
  }

  void Prepare(unsigned connections) override {
    for (unsigned i = 0; i < connections; ++i) {
      paths_.push_back(UniquePath("nng", i));
    }
  }

  std::unique_ptr<End> Pull(unsigned connection, Shape /*shape*/) override {
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    MustNng(nng_pull0_open(&socket), "nng_pull0_open");
    MustNng(nng_listen(socket, ("ipc://" + paths_.at(connection)).c_str(), nullptr, 0),
            "nng_listen");
    return std::make_unique<NngEnd>(socket);
  }

  std::unique_ptr<End> Push(unsigned connection, Shape /*shape*/) override {
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    MustNng(nng_push0_open(&socket), "nng_push0_open");
    DialPatiently(socket, "ipc://" + paths_.at(connection));
    return std::make_unique<NngEnd>(socket);
  }
};

}  // namespace

std::unique_ptr<System> MakeNng() { return std::make_unique<Nng>(); }

}  // namespace bench
