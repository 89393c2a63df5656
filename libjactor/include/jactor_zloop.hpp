// jactor_zloop.hpp - watching the socks of jactor.hpp in a CZMQ event loop
#ifndef JACTOR_ZLOOP_HPP
#define JACTOR_ZLOOP_HPP

#include <czmq.h>

#include <cerrno>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "jactor.hpp"

namespace jactor {

// What the end of the stream ends: only the watch, or the loop as well.
enum class AtEnd { kEndWatch, kEndLoop };

namespace detail {

class WatchState;

// The socks that are watched. A second watch on one would end together with the first,
// since the library finds its registration by the descriptor.
class Watched {
 public:
  // Throws error when the sock is already watched.
  static void add(JCXXSock* sock, WatchState* state) {
    const std::lock_guard<std::mutex> lock(all().mutex_);
    if (!all().states_.emplace(sock, state).second) {
      throw error("jactor: the sock is watched already", EBUSY);
    }
  }
  static void remove(JCXXSock* sock) noexcept {
    const std::lock_guard<std::mutex> lock(all().mutex_);
    all().states_.erase(sock);
  }
  static WatchState* find(JCXXSock* sock) noexcept {
    const std::lock_guard<std::mutex> lock(all().mutex_);
    const auto found = all().states_.find(sock);
    return found == all().states_.end() ? nullptr : found->second;
  }

 private:
  // Never destroyed, since a static Watch may outlive it.
  static Watched& all() {
    static auto& watched = *new Watched;
    return watched;
  }

  std::mutex mutex_;
  std::map<JCXXSock*, WatchState*> states_;
};

// The registration. The loop's callback shares it, so that a handler may destroy
// its own Watch.
class WatchState : public std::enable_shared_from_this<WatchState> {
 public:
  WatchState(zloop_t* loop, SockRef sock, AtEnd at_end)
      : loop_(loop), sock_(sock), at_end_(at_end) {}
  WatchState(const WatchState&) = delete;
  WatchState& operator=(const WatchState&) = delete;
  virtual ~WatchState() = default;

  void begin() {
    zmq_pollitem_t item = {nullptr, sock_.fd(), ZMQ_POLLIN, 0};
    Watched::add(sock_.get(), this);
    if (hybrid_zloop_reader(loop_, sock_.get(), on_readable, this) != 0) {
      const int reason = errno;
      Watched::remove(sock_.get());
      throw error("jactor: the loop does not take the sock", reason);
    }
    active_ = true;
    // An intolerant loop drops a poller at its second event with an error flag,
    // and a hang-up that comes with data is one.
    zloop_poller_set_tolerant(loop_, &item);
    look_again();
  }

  void end() noexcept {
    if (std::exchange(active_, false)) {
      hybrid_zloop_reader_end(loop_, sock_.get());
      Watched::remove(sock_.get());
    }
  }

  bool active() const noexcept { return active_; }
  std::exception_ptr take_error() noexcept { return std::exchange(error_, nullptr); }

 private:
  virtual bool handle(Message&& message) = 0;

  static int on_readable(zloop_t*, j_sock_t*, void* arg) {
    return static_cast<WatchState*>(arg)->drain();
  }

  // Makes the loop look once at what the sock has read ahead, which poll() does not see:
  // when the watch begins, and when the loop was left with messages there. The timer is
  // not ended with the watch, as a loop may still run one that was ended in the same turn.
  void look_again() {
    if (sock_.buffered() > 0) {
      zloop_timer(loop_, 0, 1, on_timer, sock_.get());
    }
  }
  static int on_timer(zloop_t* loop, int, void* sock) {
    WatchState* state = Watched::find(static_cast<JCXXSock*>(sock));
    return state != nullptr && state->loop_ == loop ? state->drain() : 0;
  }

  // Handles what is there. Result: for the loop; -1 ends it. No exception may pass through
  // the loop's C code: the first one is kept for rethrow().
  int drain() {
    const auto keep = shared_from_this();
    bool go_on = false;
    if (std::exception_ptr thrown = capture([&] { go_on = handle_messages(); })) {
      error_ = error_ != nullptr ? error_ : thrown;
    }
    if (!go_on && active_) {
      look_again();
    }
    return go_on ? 0 : -1;
  }

  // Handles messages until the read-ahead buffer has none: poll() does not see what
  // waits there. Result: whether the loop goes on.
  bool handle_messages() {
    while (active_ && sock_.has_message()) {
      std::optional<Message> message = receive_or_end();
      if (!message) {
        return at_end_ == AtEnd::kEndWatch;
      }
      if (!handle(std::move(*message))) {
        return false;
      }
      if (active_ && sock_.buffered() == 0) {
        return true;  // the loop sees the rest, after its timers
      }
    }
    return true;
  }

  // Ends the watch together with the stream, whether the stream ends normally or not.
  std::optional<Message> receive_or_end() {
    std::optional<Message> message;
    try {
      message = sock_.receive();
    } catch (const error&) {
      end();
      throw;
    }
    if (!message) {
      end();
    }
    return message;
  }

  zloop_t* loop_;
  SockRef sock_;
  AtEnd at_end_;
  bool active_ = false;
  std::exception_ptr error_;
};

template <class Handler>
class WatchOf final : public WatchState {
 public:
  using Result = std::invoke_result_t<Handler&, Message>;
  static_assert(std::is_void_v<Result> || std::is_same_v<Result, int>,
                "a handler returns nothing, or 0 to go on and -1 to end the loop");

  template <class Argument>
  WatchOf(zloop_t* loop, SockRef sock, AtEnd at_end, Argument&& handler)
      : WatchState(loop, sock, at_end), handler_(std::forward<Argument>(handler)) {}

 private:
  bool handle(Message&& message) override {
    if constexpr (std::is_void_v<Result>) {
      std::invoke(handler_, std::move(message));
      return true;
    } else {
      return std::invoke(handler_, std::move(message)) == 0;
    }
  }

  Handler handler_;
};

}  // namespace detail

// A registration with an event loop, made by watch(). Its destructor ends it; the
// loop and the sock must live until then.
class [[nodiscard]] Watch {
 public:
  explicit Watch(std::shared_ptr<detail::WatchState> state) : state_(std::move(state)) {
    state_->begin();
  }
  Watch(Watch&&) noexcept = default;
  Watch& operator=(Watch&& other) noexcept {
    Watch taken(std::move(other));
    state_.swap(taken.state_);
    return *this;
  }
  ~Watch() { end(); }

  // Ends the registration; the handler is not called again.
  void end() noexcept {
    if (state_ != nullptr) {
      state_->end();
    }
  }

  // Whether the handler may be called again: false after end(), and once the end
  // of the stream was seen.
  bool active() const noexcept { return state_ != nullptr && state_->active(); }

  // Throws, once, the first exception of the handler, or the error with which the stream
  // ended. Call it when the loop has ended.
  void rethrow() {
    if (state_ != nullptr) {
      if (const std::exception_ptr error = state_->take_error(); error != nullptr) {
        std::rethrow_exception(error);
      }
    }
  }

 private:
  std::shared_ptr<detail::WatchState> state_;
};

// Makes the loop call `handler(Message)` on its thread for every message and signal that
// is already there or arrives on the sock. A sock has at most one watch at a time, in any
// loop.
//
// Part of a message waits in the sock until the rest arrives, and the loop goes on.
// A handler that returns -1 ends the loop, and so does one that throws: Watch::rethrow()
// throws that again. Messages not handled by then wait for the next run of the loop. A
// handler may end or destroy its own watch, and then destroy the sock.
//
// At the end of the stream the registration ends, and with AtEnd::kEndLoop the loop as
// well. Bytes that are not a message end both, and Watch::rethrow() throws the error. (The
// creator's end of an actor does not see the end of its function, and a pull sock on an
// endpoint never sees the end of the stream.)
//
// Throws error when the sock is already watched (EBUSY), or cannot be watched by this loop.
template <class Handler>
Watch watch(zloop_t* loop, SockRef sock, Handler&& handler, AtEnd at_end = AtEnd::kEndWatch) {
  return Watch(std::make_shared<detail::WatchOf<std::decay_t<Handler>>>(
      loop, sock, at_end, std::forward<Handler>(handler)));
}

}  // namespace jactor

#endif
