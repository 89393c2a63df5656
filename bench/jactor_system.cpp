// jactor_system.cpp - this library, through its C interface only.
#include <unistd.h>

#include "bench.h"
#include "messages.h"

namespace bench {

namespace {

JCXXMsg* Built(const Payload& payload) {
  JCXXMsg* msg = messages::Build(payload.frames(), [&](std::size_t i) { return payload.frame(i); });
  Must(msg != nullptr, "j_msg_addmem");
  return msg;
}

Stamp Checked(JCXXMsg* msg, Checker& checker) {
  const auto check = [&](Bytes frame) {
    checker.Frame(frame);
    return true;
  };
  Must(messages::TakeApart(msg, checker.shape().frames, check), "j_msg_pop");
  return checker.EndMessage();
}

// `handle` is a sock or an actor.
class JactorEnd : public End {
 public:
  explicit JactorEnd(void* handle) : handle_(handle) {}

  void Send(const Payload& payload) override {
    JCXXMsg* msg = Built(payload);
    Must(j_msg_send(&msg, handle_) == 0, "j_msg_send");
  }

  Stamp Receive(Checker& checker) override {
    JCXXMsg* msg = j_msg_recv(handle_);
    Must(msg != nullptr, "j_msg_recv");
    return Checked(msg, checker);
  }

  bool Echo(Shape /*shape*/) override {
    JCXXMsg* msg = j_msg_recv(handle_);
    if (msg == nullptr) {
      return false;
    }
    Must(j_msg_send(&msg, handle_) == 0, "j_msg_send");
    return true;
  }

 private:
  void* handle_;
};

class JactorActor : public Actor {
 public:
  explicit JactorActor(const ActorFunction& function)
      : actor_(j_actor_new(Run, const_cast<ActorFunction*>(&function))), end_(actor_) {
    Must(actor_ != nullptr, "j_actor_new");
  }
  ~JactorActor() override { j_actor_destroy(&actor_); }

  End& end() override { return end_; }

 private:
  static void Run(j_sock_t* sock, void* args) {
    j_sock_signal(sock, 0);
    JactorEnd end(sock);
    (*static_cast<const ActorFunction*>(args))(end);
  }

  JCXXActor* actor_;
  JactorEnd end_;
};

// Owns a sock of a named endpoint.
class EndpointEnd : public JactorEnd {
 public:
  explicit EndpointEnd(JCXXSock* sock) : JactorEnd(sock), sock_(sock) {
    Must(sock != nullptr, "j_pipe_new_pull or j_pipe_new_push");
  }
  ~EndpointEnd() override { j_sock_destroy(&sock_); }

 private:
  JCXXSock* sock_;
};

class Jactor : public System {
 public:
  bool Supports(Shape /*shape*/) const override { return true; }

  std::unique_ptr<Actor> Start(const ActorFunction& function, Shape /*shape*/) override {
    return std::make_unique<JactorActor>(function);
  }

  // Makes the FIFOs too, or the processes would race to make them.
  void Prepare(unsigned connections) override {
    for (unsigned i = 0; i < connections; ++i) {
      names_.push_back("jactor_bench." + std::to_string(::getpid()) + "." + std::to_string(i));
      paths_.push_back("/var/run/jactor/Jipc_" + names_.back());
      Pull(i, {1, 8});
    }
  }

  std::unique_ptr<End> Pull(unsigned connection, Shape /*shape*/) override {
    const std::string endpoint = "@ipc://" + names_.at(connection);
    return std::make_unique<EndpointEnd>(j_pipe_new_pull(endpoint.c_str()));
  }

  std::unique_ptr<End> Push(unsigned connection, Shape /*shape*/) override {
    const std::string endpoint = ">ipc://" + names_.at(connection);
    return std::make_unique<EndpointEnd>(j_pipe_new_push(endpoint.c_str()));
  }

  void BuildAndTakeApart(const Payload& payload, Checker& checker) override {
    Checked(Built(payload), checker);
  }

 private:
  std::vector<std::string> names_;
};

}  // namespace

std::unique_ptr<System> MakeJactor() { return std::make_unique<Jactor>(); }

}  // namespace bench
