// network.cpp - ZeroMQ's sockets, monitor and connections.
#include "network.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "certificates.h"
#include "report.h"
#include "tcp.h"

namespace jpipe {
namespace {

constexpr const char* kMonitorAddress = "inproc://jpipe-monitor";
constexpr std::chrono::seconds kRetryInterval{1};
constexpr int kHeartbeat = 5000;          // milliseconds
constexpr int kHeartbeatTimeout = 20000;  // milliseconds without an answer
constexpr int kClosing = 1000;            // milliseconds for what waits to be sent
constexpr std::size_t kMostConnections = 256;
constexpr std::size_t kSpareDescriptors = 10;
constexpr std::size_t kMostSaid = 100;
constexpr int kBatch = 1000;  // messages between two looks at the rest

// tcp://HOST:PORT, where a binding side may have "*" for either.
void CheckAddress(const std::string& address, bool binds) {
  const std::string prefix = "tcp://";
  const std::size_t colon = address.rfind(':');
  const bool has_form = address.compare(0, prefix.size(), prefix) == 0 && colon > prefix.size();
  if (!has_form || colon + 1 == address.size()) {
    throw Failure(kUsage, "\"" + address + "\": give an address like tcp://HOST:PORT");
  }
  const std::string host = address.substr(prefix.size(), colon - prefix.size());
  const std::string port = address.substr(colon + 1);
  if (!binds && (host == "*" || port == "*")) {
    throw Failure(kUsage, "\"" + address + "\": a side that connects needs the other side's host " +
                              "and port (with --bind this side waits for the other one)");
  }
  if (port != "*") {
    Number("port", port, 1, 65535);
  }
}

// The number of connections that the limit on open files leaves room for.
std::size_t RoomForConnections() {
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const std::filesystem::directory_iterator open("/proc/self/fd");
  const auto used = static_cast<std::size_t>(std::distance(begin(open), end(open)));
  const std::size_t taken = used + kSpareDescriptors;
  return limit.rlim_cur > taken ? std::min<std::size_t>(limit.rlim_cur - taken, kMostConnections)
                                : 1;
}

std::string FarName(int fd) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      ::getnameinfo(reinterpret_cast<sockaddr*>(&address), size, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "a host that has disconnected";
  }
  const std::string name = host;
  return (name.find(':') != std::string::npos ? "[" + name + "]" : name) + ":" + port;
}

std::string HostOf(const std::string& name) { return name.substr(0, name.rfind(':')); }

// Why a handshake has failed. If the socket types do not fit together, or a server cannot
// show its key, one side ends the connection without a reason.
std::string WhyRefused(int event, std::uint32_t value, bool binds) {
  if (event == 0 || event == ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL) {
    return binds ? "it left without a greeting: it is an older jpipe, or not a jpipe"
                 : "the other side ended the connection: it is an older jpipe or not a jpipe, or "
                   "only it encrypts, or its certificate is not the one in --curve-server";
  }
  if (event == ZMQ_EVENT_HANDSHAKE_FAILED_AUTH) {
    return binds ? "its certificate is not among those in --curve-clients"
                 : "the other side does not accept this certificate: have it added to the other "
                   "side's --curve-clients";
  }
  if (value == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH) {
    return "one side encrypts and the other does not: give --curve-cert on both sides or neither";
  }
  if (value == ZMQ_PROTOCOL_ERROR_ZMTP_CRYPTOGRAPHIC) {
    return "the keys do not match: --curve-server of the side that connects must be the "
           "certificate of the side that binds";
  }
  return Text("it violates ZeroMQ's protocol (%#x)", value);
}

}  // namespace

Network::Network(const Options& options, const std::string& address, Link usual,
                 const Limits& limits, NetworkEvents& events)
    : binds_((options.link == Link::kDefault ? usual : options.link) == Link::kBind),
      events_(events),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      limits_(limits) {
  CheckAddress(address, binds_);
  CheckCertificateOptions(options, binds_);
  zsys_handler_set(nullptr);  // jpipe handles signals itself
  zsys_set_logstream(stderr);
  socket_ = zsock_new(binds_ ? ZMQ_ROUTER : ZMQ_DEALER);
  monitor_ = zsock_new(ZMQ_PAIR);
  if (socket_ == nullptr || monitor_ == nullptr || !epoll_ || !timer_) {
    throw Failure(kFailed, std::string("cannot make a ZeroMQ socket: ") + std::strerror(errno));
  }
  Open(options);
  LinkTo(address);
}

Network::~Network() {
  zsock_destroy(&socket_);
  zsock_destroy(&monitor_);
  zactor_destroy(&authenticator_);
}

void Network::Open(const Options& options) {
  zsock_set_maxmsgsize(socket_, static_cast<int>(limits_.message));
  zsock_set_sndhwm(socket_, limits_.queued);
  zsock_set_linger(socket_, kClosing);
  zsock_set_immediate(socket_, 1);  // what is queued for a connection ends with it
  if (binds_) {
    zsock_set_router_mandatory(socket_, 1);
  }
  // Detects a host that has vanished.
  zsock_set_heartbeat_ivl(socket_, kHeartbeat);
  zsock_set_heartbeat_timeout(socket_, kHeartbeatTimeout);
  authenticator_ = SetCertificates(options, binds_, socket_);
  zmq_socket_monitor(zsock_resolve(socket_), kMonitorAddress,
                     ZMQ_EVENT_CONNECTED | ZMQ_EVENT_CONNECT_RETRIED | ZMQ_EVENT_ACCEPTED |
                         ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_SUCCEEDED |
                         ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL |
                         ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH);
  zsock_connect(monitor_, "%s", kMonitorAddress);
  Watch(zsock_fd(socket_), EPOLLIN);
  Watch(zsock_fd(monitor_), EPOLLIN);
  Watch(timer_.get(), EPOLLIN);
}

void Network::LinkTo(const std::string& address) {
  zsock_set_ipv6(socket_, address.find('[') != std::string::npos ? 1 : 0);
  const int result = binds_ ? zsock_bind(socket_, "%s", address.c_str())
                            : zsock_connect(socket_, "%s", address.c_str());
  if (result < 0) {
    throw Failure(kFailed, Text("cannot %s %s: %s", binds_ ? "bind to" : "connect to",
                                address.c_str(), std::strerror(errno)));
  }
  const char* endpoint = zsock_endpoint(socket_);
  linked_ = endpoint != nullptr ? endpoint : address;
  most_connections_ = RoomForConnections();
  Note((binds_ ? "bound to " : "connecting to ") + linked_);
}

void Network::Watch(int fd, std::uint32_t events) const {
  epoll_event event = {};
  event.events = events;
  event.data.fd = fd;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void Network::SayOnce(const std::string& text) {
  if (said_.size() < kMostSaid && said_.insert(text).second) {
    Note(text);
  }
}

void Network::SetTimer() {
  std::optional<Clock::time_point> next = retry_;
  if (wake_ && (!next || *wake_ < *next)) {
    next = wake_;
  }
  itimerspec when = {};
  if (next) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(*next - Clock::now());
    const auto nanoseconds = std::max<long long>(left.count(), 1);
    when.it_value.tv_sec = nanoseconds / 1'000'000'000;
    when.it_value.tv_nsec = nanoseconds % 1'000'000'000;
  }
  ::timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void Network::ServeTimer() {
  if (retry_ && Clock::now() >= *retry_) {
    retry_.reset();
    zmq_connect(zsock_resolve(socket_), linked_.c_str());
  }
  if (wake_ && Clock::now() >= *wake_) {
    wake_.reset();
  }
  SetTimer();
}

void Network::WakeAt(Clock::time_point moment) {
  wake_ = moment;
  SetTimer();
}

void Network::Added(int fd) {
  const auto connection = std::make_shared<Connection>();
  connection->fd = fd;
  connection->name = FarName(fd);
  connection->order = ++connections_made_;
  connections_[fd] = connection;
  Watch(fd, EPOLLIN | EPOLLET);  // reports everything that arrives, see CheckBytes
  if (binds_) {
    MakeRoom();
  }
}

// Reads what ZeroMQ has reported since the last time. A connection that has ended may still
// have messages to be received.
void Network::ReadMonitor() {
  void* monitor = zsock_resolve(monitor_);
  unsigned char bytes[6];
  while (zmq_recv(monitor, bytes, sizeof bytes, ZMQ_DONTWAIT) == sizeof bytes) {
    zmq_recv(monitor, nullptr, 0, 0);  // the address
    std::uint16_t event = 0;
    std::uint32_t value = 0;
    std::memcpy(&event, bytes, sizeof event);
    std::memcpy(&value, bytes + sizeof event, sizeof value);
    const int fd = static_cast<int>(value);
    if (event == ZMQ_EVENT_CONNECTED || event == ZMQ_EVENT_ACCEPTED) {
      Added(fd);
    }
    happenings_.push_back({event, value, nullptr});
    if (const auto found = connections_.find(fd);
        event == ZMQ_EVENT_DISCONNECTED && found != connections_.end()) {
      happenings_.back().connection = found->second;
      connections_.erase(found);
    }
  }
}

// The connection that a message arrived on; nullptr when that cannot be told. The
// descriptor may already belong to a new connection while messages of the old one are
// still there.
std::shared_ptr<Network::Connection> Network::ConnectionOf(int fd, const std::string& far) {
  if (const auto live = connections_.find(fd);
      live != connections_.end() && live->second->heard && live->second->far == far) {
    return live->second;
  }
  for (const Happening& happening : happenings_) {
    const auto& ended = happening.connection;
    if (ended != nullptr && ended->fd == fd && ended->heard && ended->far == far) {
      return ended;
    }
  }
  ReadMonitor();
  std::shared_ptr<Connection> connection;
  if (const auto live = connections_.find(fd); live != connections_.end()) {
    connection = live->second;
  }
  for (const Happening& happening : happenings_) {
    if ((connection == nullptr || connection->heard) && happening.connection != nullptr &&
        happening.connection->fd == fd) {
      connection = happening.connection;
    }
  }
  if (connection == nullptr || connection->heard) {
    return nullptr;
  }
  connection->heard = true;
  connection->far = far;
  return connection;
}

bool Network::ReceiveOne() {
  void* socket = zsock_resolve(socket_);
  zmq_msg_t part;
  zmq_msg_init(&part);
  std::string far;
  if (zmq_msg_recv(&part, socket, ZMQ_DONTWAIT) < 0) {
    zmq_msg_close(&part);
    return false;
  }
  if (binds_) {
    far.assign(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
    zmq_msg_recv(&part, socket, 0);
  }
  const bool whole = zmq_msg_more(&part) == 0;
  while (zmq_msg_more(&part) != 0) {
    zmq_msg_recv(&part, socket, 0);
  }
  if (const auto connection = ConnectionOf(zmq_msg_get(&part, ZMQ_SRCFD), far)) {
    connection->took = true;
  }
  const std::string_view bytes(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
  events_.Received(far, whole ? bytes : std::string_view());
  zmq_msg_close(&part);
  return true;
}

void Network::Cut(Connection& connection, const std::string& why) {
  if (!connection.cut) {
    connection.cut = true;
    SayOnce("closed the connection to " + HostOf(connection.name) + ": " + why);
    const linger none = {1, 0};  // the far end learns of it even when it only sends
    ::setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    ::shutdown(connection.fd, SHUT_RDWR);
  }
}

void Network::Cut(const std::string& far, const std::string& why) {
  for (const auto& [fd, connection] : connections_) {
    if (connection->heard && connection->far == far) {
      Cut(*connection, why);
    }
  }
}

// Called after something has arrived: the far end must not have sent more than the limit
// since the last whole message that was received here.
void Network::CheckBytes(Connection& connection) {
  const std::uint64_t received = BytesReceived(connection.fd);
  if (connection.took) {
    connection.took = false;
    connection.received = received;
  } else if (received - connection.received > limits_.under_way) {
    Cut(connection, "it sends a message that does not end");
  }
}

// Whether something has arrived on a connection: then its bytes are checked.
bool Network::CheckArrivals() {
  epoll_event ready[16];
  const int count = ::epoll_wait(epoll_.get(), ready, 16, 0);
  bool any = false;
  for (int k = 0; k < count; ++k) {
    if (ready[k].data.fd == timer_.get()) {
      ServeTimer();
    } else if (const auto found = connections_.find(ready[k].data.fd);
               found != connections_.end()) {
      CheckBytes(*found->second);
      any = true;
    }
  }
  return any;
}

// What a connection has sent is there before ZeroMQ reports its end, so it is received
// before the end is reported on.
bool Network::Serve() {
  while (CheckArrivals()) {
  }
  ReadMonitor();
  const std::size_t count = happenings_.size();
  int received = 0;
  while (received < kBatch && ReceiveOne()) {
    ++received;
  }
  if (received < kBatch) {
    for (std::size_t k = 0; k < count; ++k) {
      Tell(Happening(happenings_[k]));
    }
    happenings_.erase(happenings_.begin(), happenings_.begin() + static_cast<long>(count));
  }
  return count > 0 || received > 0;
}

void Network::Tell(const Happening& happening) {
  switch (happening.event) {
    case ZMQ_EVENT_HANDSHAKE_SUCCEEDED:
      reason_.clear();
      if (!binds_) {
        up_ = true;
        events_.Connected();
      }
      break;
    case ZMQ_EVENT_HANDSHAKE_FAILED_AUTH:
    case ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL:
    case ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL:
      reason_ = WhyRefused(happening.event, happening.value, binds_);
      break;
    case ZMQ_EVENT_DISCONNECTED:
      if (happening.connection != nullptr) {
        TellEnd(*happening.connection);
      }
      break;
    case ZMQ_EVENT_CONNECT_RETRIED:
      SayOnce("no connection to " + linked_ + ": still trying");
      break;
    default:
      break;
  }
}

// A connection that has ended without a message (on the connecting side: before its
// handshake was done) was refused by one of the two sides.
void Network::TellEnd(const Connection& connection) {
  const bool refused = binds_ ? !connection.heard && !connection.cut : !up_;
  if (!refused) {
    up_ = false;
    events_.Ended(connection.far);
    return;
  }
  const std::string why = reason_.empty() ? WhyRefused(0, 0, binds_) : reason_;
  reason_.clear();
  if (binds_) {
    SayOnce("refused a connection from " + HostOf(connection.name) + ": " + why);
  } else {
    Refused(why);
  }
}

// ZeroMQ gives up some refused connections, and retries others immediately.
void Network::Refused(const std::string& reason) {
  why_refused_ = reason;
  up_ = false;
  connections_.clear();
  SayOnce("the connection to " + linked_ + " is refused: " + reason);
  zmq_disconnect(zsock_resolve(socket_), linked_.c_str());
  retry_ = Clock::now() + kRetryInterval;
  if (!refused_since_) {
    refused_since_ = Clock::now();
  }
  SetTimer();
}

void Network::Accepted() {
  refused_since_.reset();
  said_.clear();
}

// If no descriptor were left, ZeroMQ would try for ever to accept the next connection. So
// there are never that many: the oldest one that has said nothing is closed, or else the
// newest.
void Network::MakeRoom() {
  std::size_t count = 0;
  std::shared_ptr<Connection> silent;
  std::shared_ptr<Connection> newest;
  for (const auto& [fd, connection] : connections_) {
    if (connection->cut) {
      continue;
    }
    ++count;
    if (!connection->heard && (silent == nullptr || connection->order < silent->order)) {
      silent = connection;
    }
    if (newest == nullptr || connection->order > newest->order) {
      newest = connection;
    }
  }
  if (count > most_connections_) {
    Cut(silent != nullptr ? *silent : *newest, "there are too many connections");
  }
}

std::string Network::NameOf(const std::string& far) const {
  if (!binds_) {
    return linked_;
  }
  for (const auto& [fd, connection] : connections_) {
    if (connection->heard && connection->far == far) {
      return connection->name;
    }
  }
  return "a host that has disconnected";
}

void Network::Send(const std::string& far, std::string_view head, std::string_view body) {
  void* socket = zsock_resolve(socket_);
  zmq_msg_t message;
  if (zmq_msg_init_size(&message, head.size() + body.size()) != 0) {
    return Cut(far, "out of memory");
  }
  auto* bytes = static_cast<char*>(zmq_msg_data(&message));
  std::copy(head.begin(), head.end(), bytes);
  std::copy(body.begin(), body.end(), bytes + head.size());
  zsock_events(socket_);  // makes ZeroMQ look at its connections first
  if ((binds_ && zmq_send(socket, far.data(), far.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0) ||
      zmq_msg_send(&message, socket, ZMQ_DONTWAIT) < 0) {
    const bool is_full = errno == EAGAIN && limits_.queued > 0;  // and not gone
    zmq_msg_close(&message);
    if (is_full) {
      Cut(far, "it does not read what is sent to it");
    }
  }
}

}  // namespace jpipe
