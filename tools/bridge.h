// bridge.h - how an export and an import talk to each other.
//
// Each side first greets the other one with its role and its identity, 16 random bytes.
// Then the import grants a window: how many messages and bytes may be unconfirmed. It
// confirms a message when it has written it to its endpoint. The export keeps what is not
// confirmed, and sends it again when the same import is back after a loss of the
// connection, or another one has joined. It numbers its messages in increasing order, so
// that the import knows which ones it has.
//
// Every message begins with three bytes, a version and a type:
//
//   JPB 1 H  role (E or I), identity (16 bytes)                      a greeting
//   JPB 1 W  last number confirmed (8), messages (4), bytes (4)      import: a window
//   JPB 1 D  number (8), a message in the form of the endpoints      export: data
//   JPB 1 E  last number confirmed (8)     export: nothing more is under way; its answer
//                                          to a window of no messages
//   JPB 1 R  text                                  a refusal
//
// Numbers are big-endian. Signature, version and refusals are the same in every version,
// so that each side can tell the other one that they do not fit together.
#ifndef JPIPE_BRIDGE_H
#define JPIPE_BRIDGE_H

#include <jactor.h>

#include <map>
#include <string>
#include <string_view>

#include "content.h"
#include "network.h"
#include "waiting.h"

namespace jpipe {

enum class Role : char { kExport = 'E', kImport = 'I' };

enum class BridgeType : char {
  kGreeting = 'H',
  kWindow = 'W',
  kData = 'D',
  kEnd = 'E',
  kRefusal = 'R',
};

using Identity = std::string;

// How many messages and bytes may be under way.
struct Window {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
};

// How long a side that was asked to stop waits for the other one.
constexpr double kUsualLinger = 5;  // seconds

// The longest form of a message in an endpoint: it may have as many frames as bytes.
constexpr std::size_t kMaxOnWire = 2 * std::size_t{JACTOR_MAX_SIZE} + std::size_t{128} * 1024;

// What a progress line counts of a message in the form of the endpoints.
Content ContentToCount(std::string_view bytes);

// Numbers in a message.
void Append(std::string& bytes, std::uint64_t number, std::size_t size);
std::uint64_t TakeNumber(std::string_view& bytes, std::size_t size);

// The user of a bridge: an export or an import. None of these throws.
class Carrier {
 public:
  virtual ~Carrier() = default;
  virtual void Joined(const Identity& far) = 0;
  virtual void Left(const Identity& far) = 0;
  // Result: empty, or why the far end is refused.
  virtual std::string Got(const Identity& far, BridgeType type, std::string_view body) = 0;
};

class Bridge : private NetworkEvents {
 public:
  // Fails with kUsage if the address or the certificates make no sense.
  Bridge(const Options& options, const std::string& address, Role role, Link usual,
         Carrier& carrier);

  // Readable when Serve has something to do. Serve calls the carrier.
  int fd() const { return network_.fd(); }
  bool Serve() { return network_.Serve(); }

  // `head` is the body, or its beginning.
  void Send(const Identity& far, BridgeType type, const std::string& head = {},
            std::string_view rest = {});

  // Whether anybody has joined and not left.
  bool IsJoined() const { return !joined_.empty(); }
  bool IsJoined(const Identity& far) const { return joined_.count(far) != 0; }

  // Fails when there has been no far end for longer than the options allow.
  void CheckConnection();

 private:
  struct Far {
    Identity identity;  // once it has greeted
    std::string name;
    bool refused = false;
    unsigned ignored = 0;  // messages since then
  };

  void Connected() override;
  void Received(const std::string& name, std::string_view bytes) override;
  void Ended(const std::string& name) override;

  std::string Read(const std::string& address, Far& far, std::string_view bytes);
  std::string Greeted(const std::string& address, Far& far, std::string_view body);
  void Join(const std::string& address, Far& far, const Identity& identity);
  void SendTo(const std::string& address, BridgeType type, const std::string& head,
              std::string_view rest = {});
  void Refuse(const std::string& address, Far& far, const std::string& why);

  const Options& options_;
  const Role role_;
  Carrier& carrier_;
  const Identity identity_;
  std::map<std::string, Far> fars_;         // by their address in the network
  std::map<Identity, std::string> joined_;  // their addresses
  bool was_joined_ = false;
  std::optional<Network::Clock::time_point> alone_since_;
  Network network_;
};

}  // namespace jpipe

#endif
