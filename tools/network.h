// network.h - the ZeroMQ socket of a bridge, and what happens to its connections.
//
// The side that connects has a DEALER socket and one far end, whose name is empty. The
// side that binds has a ROUTER socket and many far ends, each named by its routing id.
// All messages have one part: one with more is not a message of a bridge. ZeroMQ keeps the
// parts until the last one is there, so a connection that sends more bytes than allowed
// without a whole message is closed.
//
// One thread: the one that runs the command.
#ifndef JPIPE_NETWORK_H
#define JPIPE_NETWORK_H

#include <czmq.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "options.h"

namespace jpipe {

// What a network reports to its owner. None of these throws.
class NetworkEvents {
 public:
  virtual ~NetworkEvents() = default;
  // The side that connects: the connection is up.
  virtual void Connected() = 0;
  // A message has arrived; `bytes` is empty if it had more than one part.
  virtual void Received(const std::string& far, std::string_view bytes) = 0;
  // The connection of a far end that had sent something, or was up, has ended, and
  // everything it sent has been received.
  virtual void Ended(const std::string& far) = 0;
};

class Network {
 public:
  // For each far end.
  struct Limits {
    std::size_t message = 0;    // bytes of one
    std::size_t under_way = 0;  // bytes that it has sent and this side has not taken
    int queued = 0;             // messages that wait to be sent to it, 0 for any number
  };

  // Binds or connects, as the options say or else as `usual` says.
  // Fails with kUsage if the address or the certificates make no sense.
  Network(const Options& options, const std::string& address, Link usual, const Limits& limits,
          NetworkEvents& events);
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;
  ~Network();

  bool binds() const { return binds_; }

  // Readable when Serve has something to do.
  int fd() const { return epoll_.get(); }

  // Reports what has happened. Result: whether anything has.
  bool Serve();

  // Sends one message, given in two pieces. A far end that does not take it is cut off.
  void Send(const std::string& far, std::string_view head, std::string_view body = {});

  // Closes the connection to a far end, and says why.
  void Cut(const std::string& far, const std::string& why);

  // The side that connects: the connection is refused. It is tried again later.
  void Refused(const std::string& reason);

  // The far end was accepted.
  void Accepted();

  // Writes a note only once, until the next Accepted.
  void SayOnce(const std::string& text);

  // The address of the far end.
  std::string NameOf(const std::string& far) const;

  // Since when the connection has been refused without an Accepted, and why.
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> refused_since() const { return refused_since_; }
  const std::string& why_refused() const { return why_refused_; }

  // This side's address.
  const std::string& address() const { return linked_; }

  // Makes fd() readable at that moment too.
  void WakeAt(Clock::time_point moment);

 private:
  struct Connection {
    int fd = -1;
    unsigned long long order = 0;
    std::string name;  // host and port
    bool heard = false;
    std::string far;             // the far end that was heard
    bool cut = false;            // by this side
    std::uint64_t received = 0;  // bytes, as of the last message
    bool took = false;           // a message since then
  };
  struct Happening {
    int event;
    std::uint32_t value;
    std::shared_ptr<Connection> connection;  // the one that has ended
  };

  void Open(const Options& options);
  void LinkTo(const std::string& address);
  void Watch(int fd, std::uint32_t events) const;
  void SetTimer();
  void ServeTimer();
  void Added(int fd);
  void ReadMonitor();
  std::shared_ptr<Connection> ConnectionOf(int fd, const std::string& far);
  bool ReceiveOne();
  void Cut(Connection& connection, const std::string& why);
  void CheckBytes(Connection& connection);
  bool CheckArrivals();
  void Tell(const Happening& happening);
  void TellEnd(const Connection& connection);
  void MakeRoom();

  const bool binds_;
  NetworkEvents& events_;
  zactor_t* authenticator_ = nullptr;
  zsock_t* socket_ = nullptr;
  zsock_t* monitor_ = nullptr;
  const Descriptor epoll_;
  const Descriptor timer_;
  std::string linked_;  // the address in use
  std::size_t most_connections_ = 1;
  const Limits limits_;
  std::map<int, std::shared_ptr<Connection>> connections_;
  unsigned long long connections_made_ = 0;
  std::vector<Happening> happenings_;  // not yet reported
  bool up_ = false;                    // the side that connects: it is connected
  std::string reason_;                 // why the last handshake failed
  std::string why_refused_;
  std::optional<Clock::time_point> refused_since_;
  std::optional<Clock::time_point> retry_;
  std::optional<Clock::time_point> wake_;
  std::set<std::string> said_;
};

}  // namespace jpipe

#endif
