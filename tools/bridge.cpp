// bridge.cpp - ZeroMQ for export and import.
#include "bridge.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "report.h"

namespace jpipe {
namespace {

constexpr const char* kMessageMark = "M";
constexpr const char* kSignalMark = "S";
constexpr std::size_t kMaxFrames = 1048576;
constexpr int kUsualClosing = 500;  // milliseconds

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
                              "and port (--bind has this side wait for the other one)");
  }
  if (port != "*") {
    Number("port", port, 1, 65535);
  }
}

struct DestroyCert {
  void operator()(zcert_t* certificate) const { zcert_destroy(&certificate); }
};
using Cert = std::unique_ptr<zcert_t, DestroyCert>;

Cert LoadCertificate(const std::string& file) {
  Cert certificate(zcert_load(file.c_str()));
  if (certificate == nullptr) {
    throw Failure(
        kFailed, "cannot load the certificate " + file +
                     ": see that it is there and readable, or make one with: jpipe keygen " + file);
  }
  return certificate;
}

bool HasSecret(const zcert_t* certificate) {
  static const byte kNone[32] = {};
  return std::memcmp(zcert_secret_key(const_cast<zcert_t*>(certificate)), kNone, sizeof kNone) != 0;
}

void CheckCertificateOptions(const Options& options, bool binds) {
  if (!options.certificate) {
    if (options.server || options.clients) {
      throw Failure(kUsage, "encryption needs this side's own certificate: add --curve-cert FILE");
    }
    return;
  }
  if (binds && (options.server || !options.clients)) {
    throw Failure(kUsage,
                  "the side that binds says who may connect: give --curve-clients DIR "
                  "(or \"*\" for anybody), and no --curve-server");
  }
  if (!binds && (options.clients || !options.server)) {
    throw Failure(kUsage,
                  "the side that connects says whom it trusts: give --curve-server FILE, "
                  "and no --curve-clients");
  }
}

zactor_t* StartAuthenticator(const std::string& clients) {
  if (clients != CURVE_ALLOW_ANY && !zsys_file_exists(clients.c_str())) {
    throw Failure(kFailed, "--curve-clients " + clients +
                               ": there is no such directory: put the public certificates of those "
                               "who may connect into it");
  }
  zactor_t* authenticator = zactor_new(zauth, nullptr);
  if (authenticator == nullptr) {
    throw Failure(kFailed, "cannot start the authentication of clients");
  }
  zstr_sendx(authenticator, "CURVE", clients.c_str(), nullptr);
  zsock_wait(authenticator);
  return authenticator;
}

int OnStopRequest(zloop_t* /*loop*/, zmq_pollitem_t* /*item*/, void* patience) {
  StopRequests::Take();
  static_cast<Patience*>(patience)->Interrupt(Outcome::kStopped);
  return -1;
}

int OnTimeLimit(zloop_t* /*loop*/, int /*timer*/, void* patience) {
  static_cast<Patience*>(patience)->Interrupt(Outcome::kTimedOut);
  return -1;
}

std::string_view Bytes(zframe_t* frame) {
  return {reinterpret_cast<const char*>(zframe_data(frame)), zframe_size(frame)};
}

}  // namespace

Bridge::Bridge(const Options& options, const std::string& address, int type, Link usual)
    : binds_((options.link == Link::kDefault ? usual : options.link) == Link::kBind) {
  CheckAddress(address, binds_);
  CheckCertificateOptions(options, binds_);
  zsys_handler_set(nullptr);  // the signals are jpipe's own
  zsys_set_logstream(stderr);
  socket_ = zsock_new(type);
  if (socket_ == nullptr) {
    throw Failure(kFailed, std::string("cannot make a ZeroMQ socket: ") + std::strerror(errno));
  }
  try {
    zsock_set_sndhwm(socket_, options.high_water);
    zsock_set_rcvhwm(socket_, options.high_water);
    zsock_set_maxmsgsize(socket_, JACTOR_MAX_SIZE);
    zsock_set_linger(socket_, -1);
    // Finds a host that has vanished. ZeroMQ's own heartbeats would drop a far end
    // that is only full: it does not read, and so does not answer.
    zsock_set_tcp_keepalive(socket_, 1);
    zsock_set_ipv6(socket_, address.find('[') != std::string::npos ? 1 : 0);
    SetCertificates(options);
    LinkTo(address);
  } catch (const Failure&) {
    zsock_destroy(&socket_);
    zactor_destroy(&authenticator_);
    throw;
  }
}

Bridge::~Bridge() {
  zsock_destroy(&socket_);
  zactor_destroy(&authenticator_);
}

void Bridge::SetCertificates(const Options& options) {
  if (!options.certificate) {
    return;
  }
  if (!zsys_has_curve()) {
    throw Failure(kFailed, "this ZeroMQ was built without CURVE: install one that has it");
  }
  const Cert own = LoadCertificate(*options.certificate);
  if (!HasSecret(own.get())) {
    throw Failure(kFailed, *options.certificate + " has no secret key: " + *options.certificate +
                               "_secret must lie beside it");
  }
  zcert_apply(own.get(), socket_);
  if (binds_) {
    authenticator_ = StartAuthenticator(*options.clients);
    zsock_set_zap_domain(socket_, "jpipe");
    zsock_set_curve_server(socket_, 1);
  } else {
    const Cert server = LoadCertificate(*options.server);
    zsock_set_curve_serverkey(socket_, zcert_public_txt(server.get()));
  }
}

void Bridge::LinkTo(const std::string& address) {
  const int result = binds_ ? zsock_bind(socket_, "%s", address.c_str())
                            : zsock_connect(socket_, "%s", address.c_str());
  if (result < 0) {
    throw Failure(kFailed, Text("cannot %s %s: %s", binds_ ? "bind to" : "connect to",
                                address.c_str(), std::strerror(errno)));
  }
  const char* endpoint = zsock_endpoint(socket_);
  linked_ = endpoint != nullptr ? endpoint : address;
  Note((binds_ ? "bound to " : "connecting to ") + linked_);
}

void Bridge::Unlink() {
  if (linked_.empty()) {
    return;
  }
  if (binds_) {
    zsock_unbind(socket_, "%s", linked_.c_str());
  } else {
    zsock_disconnect(socket_, "%s", linked_.c_str());
  }
  linked_.clear();
}

// ZeroMQ tells the end of its work only by ending its context, which blocks: a
// thread waits for that, and this one for the thread.
Outcome Bridge::Close(Patience& patience) {
  zsock_destroy(&socket_);
  zactor_destroy(&authenticator_);
  const int done = ::eventfd(0, EFD_CLOEXEC);
  std::thread closing([done] {
    zsys_shutdown();
    ::eventfd_write(done, 1);
  });
  Outcome outcome = patience.Wait(done, POLLIN, true, kUsualClosing);
  if (outcome == Outcome::kTick) {
    Note("waiting for the other side to take what is on its way; interrupt again to give up");
    outcome = patience.Wait(done, POLLIN, true);
  }
  if (outcome == Outcome::kReady) {
    closing.join();
  } else {
    closing.detach();
  }
  return outcome;
}

zmsg_t* ToZmq(const Content& content) {
  zmsg_t* zmsg = zmsg_new();
  if (content.signal >= 0) {
    const auto value = static_cast<unsigned char>(content.signal);
    zmsg_addstr(zmsg, kSignalMark);
    zmsg_addmem(zmsg, &value, 1);
    return zmsg;
  }
  zmsg_addstr(zmsg, kMessageMark);
  for (const std::string_view frame : content.frames) {
    zmsg_addmem(zmsg, frame.empty() ? "" : frame.data(), frame.size());
  }
  return zmsg;
}

std::string FromZmq(zmsg_t* zmsg, Content& content) {
  content = Content();
  zframe_t* part = zmsg_first(zmsg);
  const std::string_view mark = part != nullptr ? Bytes(part) : std::string_view();
  if (mark != kMessageMark && mark != kSignalMark) {
    return "its first part is neither \"M\" nor \"S\": its sender is no jpipe export";
  }
  while ((part = zmsg_next(zmsg)) != nullptr) {
    content.frames.push_back(Bytes(part));
  }
  if (mark == kSignalMark) {
    if (content.frames.size() != 1 || content.frames[0].size() != 1) {
      return "a signal that has not one byte";
    }
    content.signal = static_cast<unsigned char>(content.frames[0][0]);
    content.frames.clear();
  } else if (content.Bytes() > JACTOR_MAX_SIZE) {
    return Text("it has %zu bytes, and the most is %d", content.Bytes(), JACTOR_MAX_SIZE);
  } else if (content.frames.size() > kMaxFrames) {
    return Text("it has %zu frames, and the most is %zu", content.frames.size(), kMaxFrames);
  }
  return {};
}

void RunLoop(zloop_t* loop, const Options& options, Patience& patience) {
  zmq_pollitem_t stop = {};
  stop.fd = StopRequests::fd();
  stop.events = ZMQ_POLLIN;
  zloop_poller(loop, &stop, OnStopRequest, &patience);
  if (options.timeout) {
    const auto milliseconds = static_cast<std::size_t>(*options.timeout * 1000);
    zloop_timer(loop, milliseconds, 1, OnTimeLimit, &patience);
  }
  zloop_set_nonstop(loop, true);
  // A signal may interrupt the loop's poll, and the loop then returns 0 before it
  // has looked at the stop request.
  while (zloop_start(loop) == 0 && patience.Wait(-1, 0, false, 0) == Outcome::kTick) {
  }
}

}  // namespace jpipe
