// bridge.cpp - greetings and refusals.
#include "bridge.h"

#include <sys/random.h>

#include <cmath>

#include "formats.h"
#include "report.h"
#include "wire.h"

namespace jpipe {
namespace {

constexpr std::string_view kSignature = "JPB";
constexpr char kVersion = 1;
constexpr std::size_t kHeader = 5;
constexpr std::size_t kIdentitySize = 16;
constexpr std::size_t kMostOfText = 200;
constexpr unsigned kMostIgnored = 10000;
constexpr std::size_t kOverhead = 128;  // bytes of ZeroMQ and TCP around a short message
constexpr double kRefusedFor = 10;      // seconds, unless an option says otherwise

Identity RandomIdentity() {
  Identity identity(kIdentitySize, '\0');
  if (::getrandom(identity.data(), identity.size(), 0) != static_cast<ssize_t>(kIdentitySize)) {
    throw Failure(kFailed, "the system has no random bytes");
  }
  return identity;
}

const char* NameOf(Role role) { return role == Role::kExport ? "export" : "import"; }

// What an honest far end may have under way. An import queues its confirmations; what an
// export queues is bounded by the window.
Network::Limits LimitsOf(const Options& options, Role role) {
  Network::Limits limits;
  limits.message = kMaxOnWire + kOverhead;
  limits.under_way = options.window_bytes + limits.message + (options.window + 16) * kOverhead;
  limits.queued = role == Role::kExport ? 0 : static_cast<int>(2 * options.window + 16);
  return limits;
}

}  // namespace

// The first header says how many bytes of payload there are.
Content ContentToCount(std::string_view bytes) {
  const wire::Header header = wire::Decode(reinterpret_cast<const unsigned char*>(bytes.data()));
  Content content;
  if (header.kind == wire::Kind::kSignal) {
    content.signal = static_cast<int>(header.number);
  } else {
    content.frames.push_back(bytes.substr(bytes.size() - header.number));
  }
  return content;
}

void Append(std::string& bytes, std::uint64_t number, std::size_t size) {
  for (std::size_t k = size; k-- > 0;) {
    bytes.push_back(static_cast<char>(number >> (8 * k)));
  }
}

std::uint64_t TakeNumber(std::string_view& bytes, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t k = 0; k < size; ++k) {
    number = number << 8 | static_cast<unsigned char>(bytes[k]);
  }
  bytes.remove_prefix(size);
  return number;
}

Bridge::Bridge(const Options& options, const std::string& address, Role role, Link usual,
               Carrier& carrier)
    : options_(options),
      role_(role),
      carrier_(carrier),
      identity_(RandomIdentity()),
      alone_since_(Network::Clock::now()),
      network_(options, address, usual, LimitsOf(options, role), *this) {}

void Bridge::SendTo(const std::string& address, BridgeType type, const std::string& head,
                    std::string_view rest) {
  std::string bytes(kSignature);
  bytes += kVersion;
  bytes += static_cast<char>(type);
  network_.Send(address, bytes + head, rest);
}

void Bridge::Send(const Identity& far, BridgeType type, const std::string& head,
                  std::string_view rest) {
  if (const auto found = joined_.find(far); found != joined_.end()) {
    SendTo(found->second, type, head, rest);
  }
}

void Bridge::Connected() {
  Ended("");
  SendTo("", BridgeType::kGreeting, static_cast<char>(role_) + identity_);
}

void Bridge::Received(const std::string& address, std::string_view bytes) {
  Far& far = fars_[address];
  if (far.refused) {
    if (++far.ignored > kMostIgnored) {
      network_.Cut(address, "it was refused, but goes on sending");
    }
    return;
  }
  if (const std::string wrong = Read(address, far, bytes); !wrong.empty()) {
    Refuse(address, far, wrong);
  }
}

// Result: empty, or why the far end is refused.
std::string Bridge::Read(const std::string& address, Far& far, std::string_view bytes) {
  if (bytes.size() < kHeader || bytes.substr(0, kSignature.size()) != kSignature) {
    return "it does not speak jpipe's protocol";
  }
  const auto type = static_cast<BridgeType>(bytes[kHeader - 1]);
  const std::string_view body = bytes.substr(kHeader);
  if (type == BridgeType::kRefusal) {
    Ended(address);
    fars_[address].refused = true;
    const std::string why = "it says: " + Harmless(body.substr(0, kMostOfText));
    if (network_.binds()) {
      network_.SayOnce(network_.NameOf(address) + " does not work with this side: " + why);
    } else {
      network_.Refused(why);
    }
    return {};
  }
  if (bytes[kSignature.size()] != kVersion) {
    return Text(
        "one jpipe speaks version %d of the bridge's protocol, the other version %d: "
        "install the same version on both machines",
        kVersion, bytes[kSignature.size()]);
  }
  if (type == BridgeType::kGreeting) {
    return Greeted(address, far, body);
  }
  return far.identity.empty() ? "it sends without a greeting"
                              : carrier_.Got(far.identity, type, body);
}

std::string Bridge::Greeted(const std::string& address, Far& far, std::string_view body) {
  if (body.size() != 1 + kIdentitySize) {
    return "its greeting is damaged";
  }
  const Role wanted = role_ == Role::kExport ? Role::kImport : Role::kExport;
  if (body[0] != static_cast<char>(wanted)) {
    return Text("both sides are an %s: one has to be an %s", NameOf(role_), NameOf(wanted));
  }
  const Identity identity(body.substr(1));
  if (far.identity.empty()) {
    Join(address, far, identity);
    return {};
  }
  return far.identity == identity ? "" : "it has changed its identity";
}

void Bridge::Join(const std::string& address, Far& far, const Identity& identity) {
  if (const auto old = joined_.find(identity); old != joined_.end()) {
    Ended(std::string(old->second));  // it is back before its old connection was found dead
  }
  if (network_.binds()) {
    SendTo(address, BridgeType::kGreeting, static_cast<char>(role_) + identity_);
  }
  far.identity = identity;
  far.name = network_.NameOf(address);
  joined_[identity] = address;
  alone_since_.reset();
  network_.Accepted();
  Note(network_.binds() ? far.name + " has connected"
                        : "connected to " + far.name + (was_joined_ ? " again" : ""));
  was_joined_ = true;
  carrier_.Joined(identity);
}

void Bridge::Ended(const std::string& address) {
  const auto found = fars_.find(address);
  if (found == fars_.end()) {
    return;
  }
  const Far far = found->second;
  fars_.erase(found);
  if (far.identity.empty()) {
    return;
  }
  joined_.erase(far.identity);
  if (joined_.empty()) {
    alone_since_ = Network::Clock::now();
  }
  Note("the connection to " + far.name + " has ended");
  carrier_.Left(far.identity);
}

void Bridge::Refuse(const std::string& address, Far& far, const std::string& why) {
  SendTo(address, BridgeType::kRefusal, why);
  const std::string name = network_.NameOf(address);
  if (!far.identity.empty()) {
    Ended(address);
  }
  if (network_.binds()) {
    fars_[address].refused = true;
    network_.SayOnce("refused " + name + ": " + why);
  } else {
    fars_.erase(address);
    network_.Refused(why);
  }
}

void Bridge::CheckConnection() {
  if (!alone_since_) {
    return;
  }
  const bool refused = network_.refused_since().has_value();
  if (!options_.connect_timeout && !refused) {
    return;
  }
  const double seconds = options_.connect_timeout.value_or(kRefusedFor);
  const auto since = options_.connect_timeout ? *alone_since_ : *network_.refused_since();
  const auto limit = since + std::chrono::duration_cast<Network::Clock::duration>(
                                 std::chrono::duration<double>(seconds));
  if (Network::Clock::now() >= limit) {
    throw Failure(kFailed, Text("no connection for %g seconds, %s%s: giving up", seconds,
                                network_.address().c_str(),
                                refused ? (": " + network_.why_refused()).c_str() : ""));
  }
  network_.WakeAt(limit);
}

}  // namespace jpipe
