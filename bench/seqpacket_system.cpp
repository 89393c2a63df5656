// seqpacket_system.cpp - a pair of SOCK_SEQPACKET sockets. The kernel keeps the messages
// apart, so there is nothing to frame and nothing to buffer.
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "bench.h"

namespace bench {

namespace {

// What fits the default size of a socket's buffer.
constexpr std::size_t kMost = 128 * 1024;

class SeqpacketEnd : public End {
 public:
  SeqpacketEnd(int fd, Shape shape) : fd_(fd), received_(shape.size) {}

  void Send(const Payload& payload) override { SendBytes(payload.all()); }

  Stamp Receive(Checker& checker) override {
    const ssize_t size = ::recv(fd_, received_.data(), received_.size(), 0);
    Must(size > 0, "recv");
    checker.Frame({received_.data(), static_cast<std::size_t>(size)});
    return checker.EndMessage();
  }

  bool Echo(Shape /*shape*/) override {
    const ssize_t size = ::recv(fd_, received_.data(), received_.size(), 0);
    Must(size >= 0, "recv");
    if (size == 0) {
      return false;
    }
    SendBytes({received_.data(), static_cast<std::size_t>(size)});
    return true;
  }

 private:
  void SendBytes(Bytes bytes) {
    Must(::send(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "send");
  }

  int fd_;
  std::vector<unsigned char> received_;
};

class SeqpacketActor : public Actor {
 public:
  SeqpacketActor(const ActorFunction& function, Shape shape) {
    Must(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds_) == 0, "socketpair");
    end_ = std::make_unique<SeqpacketEnd>(fds_[0], shape);
    thread_ = std::thread([this, &function, shape] {
      Must(::send(fds_[1], "", 1, 0) == 1, "send");
      SeqpacketEnd end(fds_[1], shape);
      function(end);
    });
    char ready = 0;
    Must(::recv(fds_[0], &ready, 1, 0) == 1, "recv");
  }

  ~SeqpacketActor() override {
    ::close(fds_[0]);
    thread_.join();
    ::close(fds_[1]);
  }

  End& end() override { return *end_; }

 private:
  int fds_[2] = {-1, -1};
  std::unique_ptr<SeqpacketEnd> end_;
  std::thread thread_;
};

struct Pair {
  int fds[2];
};

// The processes inherit the sockets; all senders of a connection share one end.
class Seqpacket : public System {
 public:
  bool Supports(Shape shape) const override { return shape.frames == 1 && shape.size <= kMost; }

  std::unique_ptr<Actor> Start(const ActorFunction& function, Shape shape) override {
    return std::make_unique<SeqpacketActor>(function, shape);
  }

  void Prepare(unsigned connections) override {
    for (unsigned i = 0; i < connections; ++i) {
      Pair pair{};
      Must(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.fds) == 0, "socketpair");
      pairs_.push_back(pair);
    }
  }

  std::unique_ptr<End> Pull(unsigned connection, Shape shape) override {
    return std::make_unique<SeqpacketEnd>(pairs_.at(connection).fds[0], shape);
  }

  std::unique_ptr<End> Push(unsigned connection, Shape shape) override {
    return std::make_unique<SeqpacketEnd>(pairs_.at(connection).fds[1], shape);
  }

 private:
  std::vector<Pair> pairs_;
};

}  // namespace

std::unique_ptr<System> MakeSeqpacket() { return std::make_unique<Seqpacket>(); }

}  // namespace bench
