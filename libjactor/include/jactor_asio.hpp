// jactor_asio.hpp - receiving and sending the messages of jactor.hpp in asio programs
//
//     asio::awaitable<void> serve(jactor::SockRef jobs, jactor::SockRef worker) {
//       while (auto job = co_await jactor::async_receive(jobs, asio::use_awaitable)) {
//         co_await jactor::async_send(worker, std::move(*job), asio::use_awaitable);
//       }
//     }
//
// For standalone asio, or for Boost.Asio if JACTOR_BOOST_ASIO is defined first. C++17, and
// C++20 for coroutines. Cancelling one operation needs asio 1.19 or Boost 1.77; older ones
// ignore it.
#ifndef JACTOR_ASIO_HPP
#define JACTOR_ASIO_HPP

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#ifdef JACTOR_BOOST_ASIO
#include <boost/asio.hpp>
#define JACTOR_ASIO_VERSION BOOST_ASIO_VERSION
#else
#include <asio.hpp>
#define JACTOR_ASIO_VERSION ASIO_VERSION
#endif

#include "jactor.hpp"
#include "jcxxsock.h"

namespace jactor {

#ifdef JACTOR_BOOST_ASIO
namespace asio = boost::asio;
using asio_error = boost::system::error_code;
#else
namespace asio = ::asio;
using asio_error = ::asio::error_code;
#endif

namespace detail {

inline asio_error error_from(int reason) { return {reason, asio::error::get_system_category()}; }

// asio closes what it is not told to release.
struct EndWatch {
  bool lent = true;
  void operator()(asio::posix::stream_descriptor* watched) const {
    if (lent && watched->is_open()) {
      watched->release();
    }
    delete watched;
  }
};

// The common part of both operations. `Self` is asio's part of one: it owns the operation, and
// has the handler with its executor and its cancellation.
class AsioOperation {
 protected:
  // True once, in the call that starts the operation. The handler is never called from there:
  // an operation that finishes immediately is posted.
  template <class Self>
  bool starts(Self& self) {
    static_assert(
        !std::is_same_v<std::decay_t<decltype(self.get_executor())>, asio::system_executor>,
        "this completion token has no executor: use asio::bind_executor(loop, token)");
    if (started_) {
      return false;
    }
#if JACTOR_ASIO_VERSION >= 101900
    self.reset_cancellation_state(asio::enable_total_cancellation());
#endif
    return started_ = true;
  }

  template <class Self>
  static bool cancelled([[maybe_unused]] Self& self) {
#if JACTOR_ASIO_VERSION >= 101900
    return self.get_cancellation_state().cancelled() != asio::cancellation_type::none;
#else
    return false;
#endif
  }

  // Makes the loop watch the descriptor, which is the sock's own: asio must not close it. (A
  // duplicate would keep the pipe open when the sock or the actor is destroyed.) Result: why
  // it cannot, such as EBUSY when it already watches it for another operation.
  template <class Self>
  asio_error watch(Self& self, int fd) {
    watched_.reset(new asio::posix::stream_descriptor(self.get_executor()));
    asio_error failure;
    watched_->assign(fd, failure);
    return failure == error_from(EEXIST) ? error_from(EBUSY) : failure;
  }
  // The same for a descriptor that is closed afterwards.
  template <class Self>
  asio_error watch_own(Self& self, int fd) {
    const asio_error failure = watch(self, fd);
    watched_.get_deleter().lent = bool(failure);
    if (failure) {
      ::close(fd);
    }
    return failure;
  }
  bool watches() const { return watched_ != nullptr; }

  // Called before the handler, which may start the next operation.
  void end_watch() { watched_.reset(); }

  // Continues when the descriptor is ready, or when the operation is cancelled. `self` has
  // been moved away by then.
  template <class Self>
  void wait(Self& self, asio::posix::descriptor_base::wait_type event) {
    asio::posix::stream_descriptor& watched = *watched_;
    watched.async_wait(event, std::move(self));
  }

 private:
  bool started_ = false;
  std::unique_ptr<asio::posix::stream_descriptor, EndWatch> watched_;
};

class ReceiveOperation : AsioOperation {
 public:
  explicit ReceiveOperation(SockRef sock) : sock_(sock) {}
  explicit ReceiveOperation(const Actor& actor) : sock_(actor.sock()), done_fd_(actor.done_fd()) {}

  template <class Self>
  void operator()(Self& self, asio_error waited = {}) {
    const bool starting = starts(self);
    // Checked right before the receive, so that no message is taken for a cancelled one.
    if (!starting && cancelled(self)) {
      end_watch();
      return self.complete(asio::error::operation_aborted, std::nullopt);
    }
    failure_ = failure_ ? failure_ : waited;
    bool ready = is_ready();
    if (!ready && !watches()) {
      failure_ = watch_source(self);
      ready = bool(failure_);
    }
    if (!ready) {
      wait(self, asio::posix::descriptor_base::wait_read);
    } else if (starting) {
      asio::post(std::move(self));
    } else {
      complete(self);
    }
  }

 private:
  // Whether there is a message, which may have been read ahead, an end, or a failure.
  bool is_ready() {
    if (failure_) {
      return true;
    }
    // Checked first, so that everything written before the callable's end is seen below.
    pollfd done = {done_fd_, POLLIN, 0};
    ended_ = done_fd_ >= 0 && ::poll(&done, 1, 0) > 0;
    const int ready = j_sock_wait(sock_.get(), 0);
    if (ready < 0 && errno != EINTR) {
      failure_ = error_from(errno);
    } else if (ready > 0) {
      ended_ = false;
    } else if (ended_ && j_sock_buffered(sock_.get()) > 0) {
      failure_ = error_from(EBADMSG);
    }
    return ready > 0 || ended_ || failure_;
  }

  // An actor is watched through one descriptor for two: its pipe and its end.
  template <class Self>
  asio_error watch_source(Self& self) {
    const int fd = j_sock_fd(sock_.get());
    if (done_fd_ < 0) {
      return watch(self, fd);
    }
    const int both = ::epoll_create1(EPOLL_CLOEXEC);
    for (const int part : {fd, done_fd_}) {
      epoll_event event = {};
      event.events = EPOLLIN;
      if (both < 0 || ::epoll_ctl(both, EPOLL_CTL_ADD, part, &event) != 0) {
        const asio_error failure = error_from(errno);
        ::close(both);
        return failure;
      }
    }
    return watch_own(self, both);
  }

  template <class Self>
  void complete(Self& self) {
    end_watch();
    std::optional<Message> message;
    if (!failure_ && !ended_) {
      if (JCXXMsg* msg = j_msg_recv(sock_.get()); msg != nullptr) {
        message.emplace(msg);
      } else if (errno != 0) {
        failure_ = error_from(errno);
      }
    }
    self.complete(failure_, std::move(message));
  }

  SockRef sock_;
  int done_fd_ = -1;  // readable when the actor's callable has ended
  bool ended_ = false;
  asio_error failure_;
};

// A sock that stores what is sent to it.
class WireBytes final : public JCXXSock {
 public:
  int WriteBlocking(unsigned char* buf, std::size_t len, std::size_t& written) override {
    bytes.insert(bytes.end(), buf, buf + len);
    written = len;
    return 0;
  }
  int WriteBlockingIOV(const iovec* iov, int count, std::size_t& written) override {
    written = 0;
    for (int i = 0; i < count; ++i) {
      const auto* start = static_cast<const unsigned char*>(iov[i].iov_base);
      bytes.insert(bytes.end(), start, start + iov[i].iov_len);
      written += iov[i].iov_len;
    }
    return 0;
  }

  std::vector<unsigned char> bytes;
};

// Writes what the pipe has room for, without waiting in the write. The descriptor is
// non-blocking only while the operation lasts, since another send might fail meanwhile.
class SendOperation : AsioOperation {
 public:
  SendOperation(SockRef sock, Message&& message) : sock_(sock), message_(std::move(message)) {}

  template <class Self>
  void operator()(Self& self, asio_error waited = {}) {
    const bool starting = starts(self);
    if (starting) {
      begin();
      if (!done_) {
        start_writing(watch(self, fd_));
      }
    } else if (!done_ && sent_ == 0 && cancelled(self)) {
      finish(asio::error::operation_aborted);
    } else if (!done_ && waited && !cancelled(self)) {
      finish(sent_ == 0 ? waited : error_from(EIO));
    }
    if (!done_) {
      write();
    }
    if (!done_) {
      wait(self, asio::posix::descriptor_base::wait_write);
    } else if (starting) {
      asio::post(std::move(self));
    } else {
      self.complete(result_);
    }
  }

 private:
  void begin() {
    WireBytes wire;
    JCXXMsg* msg = message_.release();
    if (j_msg_send(&msg, &wire) != 0) {
      message_ = Message(msg);
      return finish(error_from(errno));
    }
    bytes_ = std::move(wire.bytes);
    if (j_sock_fd(sock_.get()) < 0 && errno == EINVAL) {
      return finish(error_from(EINVAL));
    }
    if (sock_.get()->GetWriteFD(fd_) != 0) {
      finish(error_from(EBADF));
    }
  }

  // Nothing is written before the loop has accepted the descriptor, so that no two operations
  // write at the same time.
  void start_writing(asio_error failure) {
    if (failure) {
      return finish(failure);
    }
    flags_ = ::fcntl(fd_, F_GETFL);
    if (flags_ < 0 || ::fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK) < 0) {
      finish(error_from(errno));
    }
  }

  void write() {
    while (sent_ < bytes_.size()) {
      const ssize_t count = ::write(fd_, bytes_.data() + sent_, bytes_.size() - sent_);
      if (count >= 0) {
        sent_ += static_cast<std::size_t>(count);
      } else if (errno == EAGAIN) {
        return;
      } else if (errno != EINTR) {
        return finish(error_from(sent_ == 0 ? errno : EIO));
      }
    }
    finish({});
  }

  void finish(asio_error result) {
    result_ = result;
    done_ = true;
    if (flags_ >= 0) {
      ::fcntl(fd_, F_SETFL, flags_);
    }
    end_watch();
  }

  SockRef sock_;
  Message message_;
  std::vector<unsigned char> bytes_;  // the message on the wire
  std::size_t sent_ = 0;
  int fd_ = -1;
  int flags_ = -1;
  bool done_ = false;
  asio_error result_;
};

}  // namespace detail

// Receives the next message or signal, without holding up the loop.
//
// The token's signature is void(error_code, std::optional<Message>): nothing, and no error, at
// the end of the stream; an error where Stream::receive() would throw, with the same errno, and
// asio::error::operation_aborted after a cancellation of any type. A cancellation loses
// nothing: a whole message, or a part of one, stays in the sock for the next receive.
//
// The handler runs on the token's executor, never before this call has returned. A token
// without one, such as a lambda, needs one: asio::bind_executor(loop, token). That
// executor's loop watches the descriptor, which is non-blocking from then on; the sock's other
// receives work as before.
//
// One receive at a time on a sock: a second one that has to wait fails with EBUSY. On an actor
// the stream ends when its callable has ended and everything it sent has been received; a
// receive on Actor::sock() does not see that.
template <class Token>
auto async_receive(SockRef sock, Token&& token) {
  return asio::async_compose<Token, void(asio_error, std::optional<Message>)>(
      detail::ReceiveOperation(sock), token);
}
template <class Token>
auto async_receive(const Actor& actor, Token&& token) {
  return asio::async_compose<Token, void(asio_error, std::optional<Message>)>(
      detail::ReceiveOperation(actor), token);
}

// Sends the message, without holding up the loop: what does not fit into the pipe is written as
// the reader makes room.
//
// The token's signature is void(error_code). The error is the one that Stream::send() throws, or
// asio::error::operation_aborted after a cancellation that came before the first byte was
// written. Then nothing has been sent, and the message is destroyed. A cancellation that comes
// later has no effect, as half a message would make the stream useless: a message of up to
// PIPE_BUF bytes on the wire is written whole. Only destroying the loop cuts it off.
//
// Until the handler is called, nothing else may be sent on the sock in another way; an async_send
// fails with EBUSY while this one waits for room. If the reader has gone, SIGPIPE is raised as
// in any send. Executors are as for async_receive.
template <class Token>
auto async_send(SockRef sock, Message message, Token&& token) {
  return asio::async_compose<Token, void(asio_error)>(
      detail::SendOperation(sock, std::move(message)), token);
}
template <class Token>
auto async_send(const Actor& actor, Message message, Token&& token) {
  return async_send(actor.sock(), std::move(message), std::forward<Token>(token));
}

}  // namespace jactor

#undef JACTOR_ASIO_VERSION

#endif
