// bench.h - what every compared system offers to the scenarios, and how a run is
// checked.
//
// Each run is a separate process: one scenario over one system. Any error ends the
// process with a message and status 1, so that no figure comes from a run that lost,
// mixed up or changed a message.
#ifndef JACTOR_BENCH_H
#define JACTOR_BENCH_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace bench {

// Ends the process, reporting that `what` failed, with the text of errno.
void Fail(const char* what);
inline void Must(bool good, const char* what) {
  if (!good) [[unlikely]] {
    Fail(what);
  }
}

using Bytes = std::span<const unsigned char>;

// A message: `frames` frames of `size` bytes each; `size` is a multiple of 8.
struct Shape {
  std::size_t frames;
  std::size_t size;
};

// The 8 bytes at the start of a message: its sender, its number, and whether it is the
// sender's last.
struct Stamp {
  static constexpr std::uint64_t kLast = 1ULL << 63;

  std::uint64_t word;

  static Stamp Of(unsigned sender, std::uint64_t number, bool last) {
    return {(last ? kLast : 0) | (std::uint64_t{sender} << 48) | number};
  }
  unsigned sender() const { return static_cast<unsigned>((word >> 48) & 0x7FFF); }
  std::uint64_t number() const { return word & ((1ULL << 48) - 1); }
  bool last() const { return (word & kLast) != 0; }
};

// The payload of a sender's messages: a stamp for each, then a fixed pattern.
class Payload {
 public:
  explicit Payload(Shape shape);

  void SetStamp(Stamp stamp) { std::memcpy(bytes_.data(), &stamp.word, sizeof stamp.word); }
  std::size_t frames() const { return shape_.frames; }
  Bytes frame(std::size_t index) const {
    return Bytes(bytes_).subspan(index * shape_.size, shape_.size);
  }
  Bytes all() const { return bytes_; }

 private:
  Shape shape_;
  std::vector<unsigned char> bytes_;
};

// Checks each received message: number of frames, sizes, the order of every
// sender's messages, and a sum over all 8-byte words.
class Checker {
 public:
  Checker(Shape shape, unsigned senders);

  Shape shape() const { return shape_; }

  // Takes the next frame of the message being received.
  void Frame(Bytes data);

  // Ends the message and returns its stamp.
  Stamp EndMessage();

  std::uint64_t messages() const { return messages_; }

 private:
  Shape shape_;
  std::uint64_t pattern_sum_;        // of one message without its stamp
  std::vector<std::uint64_t> next_;  // by sender, the number that must come next
  std::uint64_t messages_ = 0;
  std::size_t frames_ = 0;
  std::uint64_t sum_ = 0;
  Stamp stamp_{0};
};

// One end of a connection, used by one thread.
class End {
 public:
  End() = default;
  End(const End&) = delete;
  End& operator=(const End&) = delete;
  virtual ~End() = default;

  // Makes a message with the payload's frames and sends it.
  virtual void Send(const Payload& payload) = 0;

  // Receives a message, gives its frames to the checker and releases it.
  virtual Stamp Receive(Checker& checker) = 0;

  // Receives a message and sends it back. Result: false when there are no more.
  virtual bool Echo(Shape shape) = 0;
};

// A function on its own thread, connected to its creator. The destructor asks the
// function to end (its next Echo returns false) and waits for it.
class Actor {
 public:
  Actor() = default;
  Actor(const Actor&) = delete;
  Actor& operator=(const Actor&) = delete;
  virtual ~Actor() = default;

  virtual End& end() = 0;  // the creator's
};

using ActorFunction = std::function<void(End&)>;

// One of the compared systems.
class System {
 public:
  System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;
  virtual ~System() = default;

  virtual bool Supports(Shape shape) const = 0;

  // Starts an actor and waits until it says that it is ready. `function` is the
  // caller's and must outlive the actor.
  virtual std::unique_ptr<Actor> Start(const ActorFunction& function, Shape shape);

  // Named connections between processes, by number. Prepare runs before the fork, with
  // the number of connections, and notes the files that they use; CleanUp unlinks these
  // at the end, in the parent.
  virtual void Prepare(unsigned connections);
  virtual std::unique_ptr<End> Pull(unsigned connection, Shape shape);
  virtual std::unique_ptr<End> Push(unsigned connection, Shape shape);
  void CleanUp();

  // Makes a message with the payload's frames, takes it apart again and gives the frames
  // to the checker.
  virtual void BuildAndTakeApart(const Payload& payload, Checker& checker);

 protected:
  std::vector<std::string> paths_;  // one per connection
};

// A system by name, or null.
std::unique_ptr<System> MakeSystem(const std::string& name);

std::unique_ptr<System> MakeJactor();
std::unique_ptr<System> MakePipe();
std::unique_ptr<System> MakeFifo();
std::unique_ptr<System> MakeCzmq();
std::unique_ptr<System> MakeNng();
std::unique_ptr<System> MakeSeqpacket();

// A path in the temporary folder that no other run uses.
std::string UniquePath(const char* kind, unsigned number);

// When a run ends: after `count` messages, or if `count` is 0 after `seconds`.
struct Budget {
  std::uint64_t count;
  double seconds;
};

struct Options {
  std::string scenario;
  std::string system;
  Shape shape{1, 32};
  unsigned senders = 1;
  Budget budget{0, 0.2};
};

struct Result {
  std::uint64_t messages = 0;
  double seconds = 0;
  double cpu_seconds = 0;  // processor time of all threads and processes meanwhile
  double median_us = 0;    // of a round trip; 0 where none is measured
  double p99_us = 0;
  double bytes_each = 0;  // memory of one actor; 0 where none is measured
};

// Runs one scenario. Result: false when there is none of that name.
bool RunScenario(System& system, const Options& options, Result& result);

}  // namespace bench

#endif
