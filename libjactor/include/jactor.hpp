// jactor.hpp - actors, messages and named endpoints for C++17, on top of jactor.h
//
// One header, and nothing to link but libjactor. What jactor.h says about limits,
// blocking, threads and endpoints holds here too; this header adds owners,
// results and exceptions:
//
// 1. Ownership. Message, Frame, Sock and Actor own one object each and can only be
//    moved; their destructors release it. A moved-from or sent Message is empty:
//    every use of it is defined, and fails. SockRef owns nothing and is copied.
// 2. Failures throw jactor::error, a std::system_error: its text says what failed,
//    its code is the errno of the call in jactor.h. Where it is normal that there is
//    nothing to return, as at the end of a stream, the result is a std::optional.
// 3. Threads. Only one thread at a time may use an object, as in jactor.h.
// 4. Event loops. <jactor_zloop.hpp> watches socks in a CZMQ loop, <jactor_asio.hpp> receives
//    and sends in an asio loop.
#ifndef JACTOR_HPP
#define JACTOR_HPP

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "jactor.h"

namespace jactor {

// Why a call failed: code() compares with std::errc, as in
// `failure.code() == std::errc::broken_pipe`.
class error : public std::system_error {
 public:
  explicit error(const std::string& what, int reason = errno)
      : std::system_error(reason, std::generic_category(), what) {}
};

// The part of C++20's std::span that is needed here: where some bytes are and how
// many. It owns nothing. Made from a pointer and a size, or from any contiguous
// range of such elements: an array, a vector, a std::span.
template <class T>
class View {
 public:
  constexpr View() noexcept = default;
  constexpr View(T* data, std::size_t size) noexcept : data_(data), size_(size) {}
  template <class Range, class = std::enable_if_t<std::is_convertible_v<
                             decltype(std::data(std::declval<Range&>())), T*>>>
  constexpr View(Range&& range) : data_(std::data(range)), size_(std::size(range)) {}

  constexpr T* data() const noexcept { return data_; }
  constexpr std::size_t size() const noexcept { return size_; }
  constexpr bool empty() const noexcept { return size_ == 0; }
  constexpr T* begin() const noexcept { return data_; }
  constexpr T* end() const noexcept { return data_ + size_; }
  constexpr T& operator[](std::size_t i) const { return data_[i]; }

 private:
  T* data_ = nullptr;
  std::size_t size_ = 0;
};

using Bytes = View<unsigned char>;             // may be changed in place
using ConstBytes = View<const unsigned char>;  // read only

namespace detail {

// Owns an object of the C interface, and destroys it with the given call.
template <auto Destroy>
struct Destroyer {
  template <class Object>
  void operator()(Object* object) const noexcept {
    Destroy(&object);
  }
};
template <class Object, auto Destroy>
using Owner = std::unique_ptr<Object, Destroyer<Destroy>>;

// A frame's text: anything a std::string_view can be made from, except null.
struct Text : std::string_view {
  template <class Source,
            class = std::enable_if_t<std::is_convertible_v<const Source&, std::string_view> &&
                                     !std::is_null_pointer_v<Source>>>
  Text(const Source& source) : std::string_view(source) {}
};

}  // namespace detail

// A block of bytes taken out of a message. The views are valid until the frame is
// destroyed; moving the frame does not affect them.
class Frame {
 public:
  // Takes over a frame of the C interface; null gives an empty Frame.
  explicit Frame(JCXXFrame* frame) noexcept : frame_(frame) {}

  std::size_t size() const noexcept { return j_frame_size(get()); }
  Bytes bytes() const noexcept { return {j_frame_data(get()), size()}; }
  std::string_view text() const noexcept {
    return {reinterpret_cast<const char*>(j_frame_data(get())), size()};
  }
  unsigned char* begin() const noexcept { return bytes().begin(); }
  unsigned char* end() const noexcept { return bytes().end(); }

  // The C handle, which stays the Frame's.
  JCXXFrame* get() const noexcept { return frame_.get(); }

 private:
  detail::Owner<JCXXFrame, j_frame_destroy> frame_;
};

class FrameRange;

// A list of frames, or a signal.
//
//     jactor::Message message{"temperature"};
//     message.add(&celsius, sizeof celsius);
//     sock.send(std::move(message));
class Message {
 public:
  // A data message without frames. Throws error when memory has run out.
  Message() : msg_(j_msg_new()) {
    if (msg_ == nullptr) {
      throw error("jactor: no memory for a message");
    }
  }

  // A data message with these frames. Throws what add() throws.
  explicit Message(std::initializer_list<detail::Text> frames) : Message() {
    for (const std::string_view frame : frames) {
      add(frame);
    }
  }

  // Takes over a message of the C interface; null gives an empty Message.
  explicit Message(JCXXMsg* msg) noexcept : msg_(msg) {}

  // Whether there is a message: false once it was sent or moved away.
  explicit operator bool() const noexcept { return msg_ != nullptr; }

  // Append a frame holding a copy of the bytes. Throw error when there are more
  // than JACTOR_MAX_SIZE, the message is a signal or empty, or memory has run out;
  // then the message is unchanged.
  Message& add(const void* data, std::size_t size) {
    if (j_msg_addmem(get(), size == 0 ? "" : data, size) != 0) {
      throw error("jactor: cannot add a frame of " + std::to_string(size) + " bytes");
    }
    return *this;
  }
  Message& add(std::string_view text) { return add(text.data(), text.size()); }
  Message& add(ConstBytes bytes) { return add(bytes.data(), bytes.size()); }

  // Take the first frame out. Nothing when no frame is left.
  std::optional<Frame> pop() {
    JCXXFrame* frame = j_msg_pop(get());
    return frame == nullptr ? std::nullopt : std::optional(Frame(frame));
  }
  std::optional<std::string> pop_string() {
    const std::optional<Frame> frame = pop();
    return frame ? std::optional(std::string(frame->text())) : std::nullopt;
  }

  // The frames from first to last, for one pass: each is taken out of the message
  // when it is reached, and may be moved away.
  //
  //     for (jactor::Frame& frame : message.frames()) {
  //       std::cout << frame.text() << '\n';
  //     }
  FrameRange frames() &;

  // The value of a signal; nothing for a data message.
  std::optional<unsigned char> signal() const noexcept {
    const int value = j_msg_signal(get());
    return value < 0 ? std::nullopt : std::optional(static_cast<unsigned char>(value));
  }

  // The C handle, which stays the Message's.
  JCXXMsg* get() const noexcept { return msg_.get(); }

  // Passes the C handle to the caller.
  [[nodiscard]] JCXXMsg* release() noexcept { return msg_.release(); }

 private:
  detail::Owner<JCXXMsg, j_msg_destroy> msg_;
};

// What Message::frames() returns. It must not outlive the message.
class FrameRange {
 public:
  struct Sentinel {};

  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Frame;
    using difference_type = std::ptrdiff_t;
    using pointer = Frame*;
    using reference = Frame&;

    explicit Iterator(FrameRange* range) noexcept : range_(range) {}
    Frame& operator*() const { return *range_->current_; }
    Frame* operator->() const { return &*range_->current_; }
    Iterator& operator++() {
      range_->current_ = range_->message_->pop();
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const Iterator& it, Sentinel) { return it.done(); }
    friend bool operator!=(const Iterator& it, Sentinel) { return !(it == Sentinel()); }

   private:
    bool done() const noexcept { return !range_->current_; }

    FrameRange* range_;
  };

  explicit FrameRange(Message& message) noexcept : message_(&message) {}
  Iterator begin() { return ++Iterator(this); }
  Sentinel end() const noexcept { return {}; }

 private:
  Message* message_;
  std::optional<Frame> current_;
};

inline FrameRange Message::frames() & { return FrameRange(*this); }

// The outcome of a receive with a time limit.
struct Received {
  std::optional<Message> message;  // what arrived
  bool timed_out = false;          // without a message: the time was up, not the stream
};

namespace detail {

using Clock = std::chrono::steady_clock;

// The moment `limit` from now; the clock's last moment for a limit of centuries.
template <class Rep, class Period>
Clock::time_point deadline_after(const std::chrono::duration<Rep, Period>& limit) {
  constexpr double kLongest = 3e9;
  const double seconds = std::chrono::duration<double>(limit).count();
  if (seconds > kLongest) {
    return Clock::time_point::max();
  }
  return seconds > 0 ? Clock::now() + std::chrono::ceil<Clock::duration>(limit) : Clock::now();
}

// The time-out for poll(), rounded up so that it never ends early.
inline int milliseconds_until(Clock::time_point deadline) {
  const auto now = Clock::now();
  if (deadline <= now) {
    return 0;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
  return left < INT_MAX ? static_cast<int>(left) : INT_MAX;
}

// Waits until one of the descriptors has something, the deadline has passed, or a
// signal handler ran.
inline void poll_once(pollfd* fds, nfds_t count, Clock::time_point deadline) {
  if (::poll(fds, count, milliseconds_until(deadline)) < 0 && errno != EINTR) {
    throw error("jactor: poll failed");
  }
}

// As j_sock_wait, but ignores EINTR. Result: whether a receive would not block.
inline bool wait_once(void* self, int milliseconds) {
  const int ready = j_sock_wait(self, milliseconds);
  if (ready < 0 && errno != EINTR) {
    throw error("jactor: cannot wait for a message");
  }
  return ready > 0;
}

enum class Wait { kReady, kTimedOut, kEnded };

// Waits until a receive would not block, or the deadline has passed.
inline Wait wait_until(void* self, Clock::time_point deadline) {
  for (;;) {
    const int left = milliseconds_until(deadline);
    if (wait_once(self, left)) {
      return Wait::kReady;
    }
    if (left == 0) {
      return Wait::kTimedOut;
    }
  }
}

// The same for a stream to which nothing more is written once `done_fd` is readable.
inline Wait wait_until_done(void* self, int done_fd, Clock::time_point deadline) {
  for (pollfd fds[] = {{j_sock_fd(self), POLLIN, 0}, {done_fd, POLLIN, 0}};;) {
    // Checked first, so that everything written before the end is seen below.
    const bool done = fds[1].revents != 0;
    if (wait_once(self, 0)) {
      return Wait::kReady;
    }
    if (done && j_sock_buffered(self) > 0) {
      throw error("jactor: the actor ended inside a message", EBADMSG);
    }
    if (done || Clock::now() >= deadline) {
      return done ? Wait::kEnded : Wait::kTimedOut;
    }
    poll_once(fds, 2, deadline);
  }
}

// Runs `call`. Result: the exception it threw, or null. Lets the cancellation of the
// thread pass, which is not a C++ exception and so has no pointer.
template <class Call>
std::exception_ptr capture(Call call) {
  try {
    call();
  } catch (...) {
    if (std::exception_ptr thrown = std::current_exception(); thrown != nullptr) {
      return thrown;
    }
    throw;
  }
  return nullptr;
}

// What can be done with a SockRef, a Sock and an Actor alike.
template <class Self>
class Stream {
 public:
  // Sends the message. Blocks while the pipe is full.
  //
  // The message is empty afterwards if it was sent. If send throws error, the message is
  // unchanged: it was empty, it is too large, or the write failed. After EIO a part of
  // it is on the stream, which is then unusable.
  void send(Message&& message) const {
    if (const std::error_code failure = try_send(std::move(message))) {
      throw error(message ? "jactor: cannot send the message" : "jactor: no message to send",
                  failure.value());
    }
  }

  // The same without exceptions. Result: why the message was not sent, such as
  // std::errc::broken_pipe; none if it was.
  [[nodiscard]] std::error_code try_send(Message&& message) const {
    JCXXMsg* msg = message.get();
    if (j_msg_send(&msg, self().get()) != 0) {
      return {errno, std::generic_category()};
    }
    static_cast<void>(message.release());
    return {};
  }

  // Sends a signal. Throws error when the write failed.
  void signal(unsigned char value) const {
    if (j_sock_signal(self().get(), value) != 0) {
      throw error("jactor: cannot send a signal");
    }
  }

  // Receives the next message or signal. Blocks until it is complete.
  //
  // Result: nothing only at the end of the stream. On an actor that is when its
  // function has ended and everything it sent has been received. A pull sock on an
  // endpoint never sees the end: it waits. Throws error on failure: EBADMSG when the
  // bytes are not a message, or end inside one.
  std::optional<Message> receive() const {
    return self().done_fd() < 0 ? take() : receive_until(Clock::time_point::max()).message;
  }

  // The same with a time limit, which may be 0 and which covers the whole message:
  // the part of one that has arrived stays in the sock. A message that is there is
  // returned even when the limit has passed. The clock is the monotonic one, the
  // resolution a millisecond, rounded up. A signal handler does not end the wait; it
  // does end j_sock_wait(sock.get(), milliseconds).
  template <class Rep, class Period>
  Received receive_for(const std::chrono::duration<Rep, Period>& limit) const {
    return receive_until(deadline_after(limit));
  }
  Received receive_until(std::chrono::steady_clock::time_point deadline) const {
    const int done_fd = self().done_fd();
    const Wait wait = done_fd < 0 ? wait_until(self().get(), deadline)
                                  : wait_until_done(self().get(), done_fd, deadline);
    if (wait != Wait::kReady) {
      return {std::nullopt, wait == Wait::kTimedOut};
    }
    return {take(), false};
  }

  // Whether a receive would not block: for the handlers of an event loop that watches
  // fd(). Throws error on a sock that cannot be waited for.
  bool has_message() const { return wait_once(self().get(), 0); }

  // The descriptor for an event loop: ask has_message() before the loop waits for it. Never
  // read, write or close it. Throws error when there is none.
  int fd() const {
    const int descriptor = j_sock_fd(self().get());
    if (descriptor < 0) {
      throw error("jactor: no sock to wait for");
    }
    return descriptor;
  }

  // The bytes taken from the descriptor and not yet received.
  std::size_t buffered() const noexcept { return j_sock_buffered(self().get()); }

 protected:
  Stream() = default;
  Stream(const Stream&) = default;
  Stream& operator=(const Stream&) = default;
  ~Stream() = default;

  int done_fd() const noexcept { return -1; }

 private:
  const Self& self() const noexcept { return static_cast<const Self&>(*this); }

  std::optional<Message> take() const {
    JCXXMsg* msg = j_msg_recv(self().get());
    if (msg == nullptr && errno != 0) {
      throw error("jactor: cannot receive");
    }
    return msg == nullptr ? std::nullopt : std::optional(Message(msg));
  }
};

class ActorState;
class ReceiveOperation;  // in jactor_asio.hpp

}  // namespace detail

// A sock that something else owns, such as the actor whose function uses it. It must
// not be used after its owner has gone.
class SockRef : public detail::Stream<SockRef> {
 public:
  explicit SockRef(JCXXSock* sock) noexcept : sock_(sock) {}

  // As for every sock; on the one that an actor's function is given, the first
  // signal tells the creator that the actor is running.
  void signal(unsigned char value) const {
    Stream::signal(value);
    if (started_ != nullptr) {
      *started_ = true;
    }
  }
  void ready() const { signal(0); }

  // The C handle, for calls other than j_sock_destroy.
  JCXXSock* get() const noexcept { return sock_; }

 private:
  friend detail::ActorState;
  SockRef(JCXXSock* sock, bool* started) noexcept : sock_(sock), started_(started) {}

  JCXXSock* sock_;
  bool* started_ = nullptr;
};

// One end of a named endpoint, such as "ipc://jobs". Use each only in the direction
// it was made for. Closing the last one loses messages not yet received.
class Sock : public detail::Stream<Sock> {
 public:
  // Open the reading or the writing end. Never wait for a partner. Throw error
  // when the name is refused or the FIFO cannot be opened.
  static Sock pull(const std::string& endpoint) { return Sock(endpoint, j_pipe_new_pull); }
  static Sock push(const std::string& endpoint) { return Sock(endpoint, j_pipe_new_push); }

  operator SockRef() const& noexcept { return SockRef(get()); }
  operator SockRef() const&& = delete;

  // The C handle, which stays the Sock's.
  JCXXSock* get() const noexcept { return sock_.get(); }

 private:
  Sock(const std::string& endpoint, JCXXSock* (*open)(const char*))
      : sock_(endpoint.find('\0') == std::string::npos ? open(endpoint.c_str())
                                                       : (errno = EINVAL, nullptr)) {
    if (sock_ == nullptr) {
      throw error("jactor: cannot open the endpoint " + endpoint);
    }
  }

  detail::Owner<JCXXSock, j_sock_destroy> sock_;
};

namespace detail {

// What an actor's thread and its creator share. It outlives the thread.
class ActorState {
 public:
  ActorState() : done_fd_(::eventfd(0, EFD_CLOEXEC)) {
    if (done_fd_ < 0) {
      throw error("jactor: no descriptor for an actor");
    }
  }
  ActorState(const ActorState&) = delete;
  ActorState& operator=(const ActorState&) = delete;
  virtual ~ActorState() { ::close(done_fd_); }

  // The actor function that the library runs.
  static void main(j_sock_t* sock, void* arg) {
    auto& state = *static_cast<ActorState*>(arg);
    sigset_t pipe_signal;
    ::sigemptyset(&pipe_signal);
    ::sigaddset(&pipe_signal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    const AtExit at_exit{state, sock};
    state.failure_ = capture([&] { state.call(SockRef(sock, &state.started_)); });
  }

  int done_fd() const noexcept { return done_fd_; }
  bool finished() const noexcept { return finished_.load(std::memory_order_acquire); }

  // Whether the function threw before it was ready.
  bool failed_early() const noexcept { return finished() && !started_ && failure_ != nullptr; }

  // What the function threw. Only once it has finished.
  const std::exception_ptr& failure() const noexcept { return failure_; }

 private:
  // Also runs when the thread is cancelled or calls pthread_exit.
  struct AtExit {
    ActorState& state;
    JCXXSock* sock;
    ~AtExit() { state.finish(sock); }
  };

  virtual void call(SockRef sock) = 0;

  // The creator may read the other fields as soon as it sees `finished_`, and starts
  // to look when it has the signal that it waits for.
  void finish(JCXXSock* sock) noexcept {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    finished_.store(true, std::memory_order_release);
    if (!started_) {
      j_sock_signal(sock, 0);
    }
    ::eventfd_write(done_fd_, 1);
  }

  int done_fd_;
  bool started_ = false;
  std::exception_ptr failure_;
  std::atomic<bool> finished_{false};
};

template <class Callable>
class ActorOf final : public ActorState {
 public:
  template <class Argument>
  explicit ActorOf(Argument&& callable) : callable_(std::forward<Argument>(callable)) {}

 private:
  void call(SockRef sock) override { std::invoke(std::move(callable_), sock); }

  Callable callable_;
};

}  // namespace detail

// A callable on its own thread, connected to its creator by a pipe pair.
//
//     jactor::Actor echo([](jactor::SockRef sock) {
//       sock.ready();
//       while (auto message = sock.receive()) {  // nothing: asked to stop
//         sock.send(std::move(*message));
//       }
//     });
//
// The callable says that it is ready with its first SockRef::signal() or ready();
// what it sends before that is thrown away. If it returns first, that counts as ready.
// (j_sock_signal on the C handle is not noticed: one more signal follows when the
// callable returns.) SIGPIPE is blocked in its thread, so that a send to a creator
// that has gone throws error; programs that it executes inherit the blocked signal.
class Actor : public detail::Stream<Actor> {
 public:
  // Copies or moves the callable and runs it once. Blocks until it is ready, has
  // returned or has thrown. Throws what it threw before it was ready, and error
  // when there are no more threads, pipes or memory.
  template <class Callable,
            class = std::enable_if_t<std::is_invocable_v<std::decay_t<Callable>, SockRef>>>
  explicit Actor(Callable&& callable)
      : state_(std::make_unique<detail::ActorOf<std::decay_t<Callable>>>(
            std::forward<Callable>(callable))),
        actor_(j_actor_new(detail::ActorState::main, state_.get())) {
    if (actor_ == nullptr) {
      throw error("jactor: cannot start an actor");
    }
    if (state_->failed_early()) {
      join();
    }
  }

  // The destructor asks the callable to stop, by ending its stream, and waits
  // without a limit until it has returned. What it threw is dropped: call join() to
  // get it. The callable itself must not run this.
  ~Actor() = default;
  Actor(Actor&& other) noexcept = default;

  // Stops the actor on the left first, as the destructor does.
  Actor& operator=(Actor&& other) noexcept {
    actor_ = std::move(other.actor_);
    state_ = std::move(other.state_);
    return *this;
  }

  // Stops the actor as the destructor does, and throws what the callable threw.
  // The actor is empty afterwards, and joining it again does nothing.
  void join() {
    actor_.reset();
    if (const auto state = std::move(state_); state != nullptr && state->failure() != nullptr) {
      std::rethrow_exception(state->failure());
    }
  }

  // Throws what the callable threw, without stopping anything. Does nothing while
  // it runs, or if it returned normally.
  void rethrow() const {
    if (state_ != nullptr && state_->finished() && state_->failure() != nullptr) {
      std::rethrow_exception(state_->failure());
    }
  }

  // Whether the callable has ended, in any way; true for an empty actor.
  bool finished() const noexcept { return state_ == nullptr || state_->finished(); }

  // The creator's end; valid as long as the actor. Its receive() does not notice that
  // the callable has ended, and saves a poll().
  SockRef sock() const noexcept { return SockRef(j_actor_sock(get())); }

  // The C handle, which stays the Actor's.
  JCXXActor* get() const noexcept { return actor_.get(); }

 private:
  friend detail::Stream<Actor>;
  friend detail::ReceiveOperation;
  int done_fd() const noexcept { return state_ == nullptr ? -1 : state_->done_fd(); }

  std::unique_ptr<detail::ActorState> state_;  // outlives the actor
  detail::Owner<JCXXActor, j_actor_destroy> actor_;
};

}  // namespace jactor

#endif
