// sock.cpp - reading and writing an endpoint without blocking for ever.
#include "sock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "endpoint.h"
#include "holders.h"
#include "report.h"
#include "wire.h"

namespace jpipe {
namespace {

constexpr int kOpenings = 3;         // two that race to make the FIFO may both have to try again
constexpr int kLookInterval = 20;    // milliseconds between two looks at the bytes that wait
constexpr int kLooksPerSearch = 10;  // looks between two searches for who has the FIFO open

bool MustRepeat(int error) { return error == EINTR; }

std::string WhyNotOpened(const std::string& endpoint, const std::string& fifo) {
  const std::string reason = "cannot open " + endpoint + ": ";
  struct stat status = {};
  if (::lstat(fifo.c_str(), &status) == 0 && ::geteuid() != 0 && status.st_uid != ::geteuid()) {
    return reason +
           Text("%s belongs to user %u, and only its owner may open it: run jpipe as that user",
                fifo.c_str(), status.st_uid);
  }
  if (::access(kRunDirectory, W_OK | X_OK) != 0) {
    return reason + kRunDirectory + ": " + std::strerror(errno) +
           ": ask the administrator to create it";
  }
  const std::string why = LibraryError();
  return reason + (why.empty() ? "out of memory" : why) + ": see " + fifo;
}

// Opens the endpoint as the library does, and keeps only a copy of the descriptor. To others
// this looks like any sock on the endpoint.
Descriptor Open(const std::string& endpoint, Direction direction) {
  const std::string fifo = FifoPath(endpoint);
  for (int k = 0; k < kOpenings; ++k) {
    ForgetLibraryError();
    JCXXSock* sock = direction == Direction::kPull ? j_pipe_new_pull(endpoint.c_str())
                                                   : j_pipe_new_push(endpoint.c_str());
    if (sock != nullptr) {
      Descriptor opened(::fcntl(j_sock_fd(sock), F_DUPFD_CLOEXEC, 0));
      j_sock_destroy(&sock);
      if (!opened) {
        throw Failure(kFailed, "cannot open " + endpoint + ": " + std::strerror(errno));
      }
      return opened;
    }
  }
  throw Failure(kFailed, WhyNotOpened(endpoint, fifo));
}

void CheckSize(const Content& content) {
  const std::size_t bytes = content.Bytes();
  if (bytes > wire::kMaxSize) {
    throw Failure(kFailed, Text("the message has %zu bytes, but the limit is %u: split it", bytes,
                                wire::kMaxSize));
  }
  if (content.frames.size() > wire::kMaxFrames) {
    throw Failure(kFailed, Text("the message has %zu frames, but the limit is %zu: split it",
                                content.frames.size(), wire::kMaxFrames));
  }
}

}  // namespace

EndpointSock::EndpointSock(const std::string& endpoint, Direction direction, Patience& patience)
    : endpoint_(endpoint),
      patience_(&patience),
      open_(Open(endpoint, direction)),
      fd_(open_.get()) {
  ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
}

int EndpointSock::GetReadFD(int& fd) {
  fd = fd_;
  return 0;
}

int EndpointSock::GetWriteFD(int& fd) { return GetReadFD(fd); }

std::size_t EndpointSock::Waiting() const { return BytesWaiting(fd_); }

// Waits after EAGAIN. Result: whether the transfer may be tried again.
bool EndpointSock::MayGoOn(short events, bool begun) {
  if (errno == EAGAIN) {
    do {
      ended_ = patience_->Wait(fd_, events, begun);
    } while (ended_ == Outcome::kTick);
    return ended_ == Outcome::kReady;
  }
  if (MustRepeat(errno)) {
    return true;
  }
  error_ = errno;
  return false;
}

int EndpointSock::ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got) {
  got = 0;
  std::size_t done = 0;
  while (done < len) {
    const ssize_t count = ::read(fd_, buf + done, len - done);
    if (count > 0) {
      wire_.append(reinterpret_cast<const char*>(buf) + done, static_cast<std::size_t>(count));
      done += static_cast<std::size_t>(count);
      moved_ += static_cast<std::size_t>(count);
    } else if (count == 0 || !MayGoOn(POLLIN, moved_ > 0)) {
      return -1;
    }
  }
  got = len;
  return 0;
}

// Whether a message is certain to fit whole. The kernel guarantees that up to PIPE_BUF bytes.
// Pages are not always full, but any two neighbours hold more than one page's bytes,
// except where the reader has taken from the first.
bool EndpointSock::HasRoomFor(std::size_t size) const {
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t used = Waiting() > 0 ? 2 * (Waiting() + page) : 0;
  const int capacity = ::fcntl(fd_, F_GETPIPE_SZ);
  return size <= PIPE_BUF || (capacity > 0 && used + size <= static_cast<std::size_t>(capacity));
}

int EndpointSock::WriteBlocking(unsigned char* buf, std::size_t len, std::size_t& written) {
  written = 0;
  size_on_wire_ = len;
  if (!waits_for_room_ && !HasRoomFor(len)) {
    ended_ = Outcome::kFull;
    return -1;
  }
  while (moved_ < len) {
    const ssize_t count = ::write(fd_, buf + moved_, len - moved_);
    if (count > 0) {
      moved_ += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN && !waits_for_room_ && moved_ == 0) {
      ended_ = Outcome::kFull;
      return -1;
    } else if (!MayGoOn(POLLOUT, moved_ > 0 || goes_on_in_grace_)) {
      return -1;
    }
  }
  written = len;
  return 0;
}

// A single write keeps a message of up to PIPE_BUF bytes in one piece among other
// writers, however many frames it has.
int EndpointSock::WriteBlockingIOV(const iovec* iov, int iovcnt, std::size_t& written) {
  std::vector<unsigned char> bytes;
  for (int k = 0; k < iovcnt; ++k) {
    const auto* first = static_cast<const unsigned char*>(iov[k].iov_base);
    bytes.insert(bytes.end(), first, first + iov[k].iov_len);
  }
  return WriteBlocking(bytes.data(), bytes.size(), written);
}

void EndpointSock::Begin() {
  moved_ = 0;
  ended_ = Outcome::kReady;
  error_ = 0;
  frames_.clear();
  ForgetLibraryError();
}

void EndpointSock::TakeApart(JCXXMsg* msg, Content& content) {
  content.signal = j_msg_signal(msg);
  content.frames.clear();
  while (JCXXFrame* frame = j_msg_pop(msg)) {
    frames_.emplace_back(frame);
    content.frames.emplace_back(reinterpret_cast<const char*>(j_frame_data(frame)),
                                j_frame_size(frame));
  }
}

// Reports a message that was not transferred completely.
Outcome EndpointSock::Unfinished(Direction direction) {
  const bool pull = direction == Direction::kPull;
  if (ended_ == Outcome::kReady) {
    const std::string why = error_ != 0 ? std::strerror(error_) : LibraryError();
    throw Failure(
        kFailed, pull && error_ == 0
                     ? "the bytes in " + endpoint_ + " are not a message" +
                           (why.empty() ? "" : " (" + why + ")") +
                           ": throw away what is left with: jpipe drain " + endpoint_
                     : "cannot " + std::string(pull ? "read " : "write ") + endpoint_ + ": " + why);
  }
  if (moved_ > 0 && pull) {
    Note(
        Text("lost %s of a message, taken from %s, that its sender did not finish; "
             "once no sender is running, throw away the rest with: jpipe drain %s",
             Counted(moved_, "byte").c_str(), endpoint_.c_str(), endpoint_.c_str()));
  } else if (moved_ > 0) {
    Note(
        Text("only %zu of the %zu bytes of a message went into %s: its reader cannot use them; "
             "throw them away with: jpipe drain %s",
             moved_, size_on_wire_, endpoint_.c_str(), endpoint_.c_str()));
  }
  return ended_;
}

Outcome EndpointSock::Take(Content& content) {
  Begin();
  wire_.clear();
  Outcome outcome = Outcome::kTick;
  while (outcome == Outcome::kTick) {
    outcome = patience_->Wait(fd_, POLLIN, goes_on_in_grace_);
  }
  if (outcome != Outcome::kReady) {
    return outcome;
  }
  const Msg msg(j_msg_recv(static_cast<JCXXSock*>(this)));
  if (msg == nullptr) {
    return Unfinished(Direction::kPull);
  }
  TakeApart(msg.get(), content);
  return Outcome::kReady;
}

Outcome EndpointSock::PutWire(std::string& bytes) {
  Begin();
  std::size_t written = 0;
  return WriteBlocking(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), written) == 0
             ? Outcome::kReady
             : Unfinished(Direction::kPush);
}

Outcome EndpointSock::Put(const Content& content) {
  Begin();
  CheckSize(content);
  JCXXSock* self = this;
  if (content.signal >= 0) {
    return j_sock_signal(self, static_cast<unsigned char>(content.signal)) == 0
               ? Outcome::kReady
               : Unfinished(Direction::kPush);
  }
  Msg msg(j_msg_new());
  for (const std::string_view frame : content.frames) {
    if (j_msg_addmem(msg.get(), frame.empty() ? "" : frame.data(), frame.size()) != 0) {
      throw Failure(kFailed, "out of memory for a message");
    }
  }
  JCXXMsg* sent = msg.release();
  if (sent != nullptr && j_msg_send(&sent, self) == 0) {
    return Outcome::kReady;
  }
  msg.reset(sent);
  return Unfinished(Direction::kPush);
}

// Leaving
//
// The bytes in a FIFO are lost with the last descriptor on it. So a process that leaves first
// closes the endpoint, keeps only a look, and then searches for others: the last one to close
// it finds nobody, and so knows. models/leaving.pml searches these rules for a silent loss.

namespace {

Descriptor OpenAgain(int fd, int flags) {
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return Descriptor(::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

void EndpointSock::KeepALook() {
  open_ = OpenAgain(fd_, O_RDONLY);
  fd_ = open_.get();
}

// Leaves the endpoint to `keeper`, or as it is when there is none. Result: whether that
// loses nothing; otherwise the endpoint is open again.
bool EndpointSock::LeaveTo(std::optional<pid_t> keeper) {
  KeepALook();
  const bool safe = keeper ? Keeps(*keeper, fd_) : Waiting() == 0 || IsHeldElsewhere(fd_);
  if (!safe) {
    open_ = OpenAgain(fd_, O_RDWR);
    fd_ = open_.get();
  }
  return safe;
}

Outcome EndpointSock::LeaveWhenSafe() {
  bool said = false;
  for (int look = 0;; ++look) {
    const bool empty = Waiting() == 0;
    std::optional<pid_t> keeper;
    if (!empty && look % kLooksPerSearch <= 1) {
      keeper = FindKeeper(fd_);
      if (!keeper && look > 0 && !said && Waiting() > 0) {
        said = true;
        Note(
            Text("staying until somebody reads %s waiting in %s: no other process keeps it open, "
                 "so leaving would lose data (--no-wait leaves anyway)",
                 Counted(Waiting(), "byte").c_str(), endpoint_.c_str()));
      }
    }
    if ((empty || keeper) && LeaveTo(keeper)) {
      return Outcome::kReady;
    }
    const Outcome outcome = patience_->Wait(-1, 0, goes_on_in_grace_, kLookInterval);
    if (outcome != Outcome::kTick) {
      Leave();
      return outcome;
    }
  }
}

void EndpointSock::Leave() {
  MarkAsLeaving();
  KeepALook();
  if (Waiting() > 0 && !IsHeldElsewhere(fd_)) {
    Note(Text("lost %s waiting in %s, since no other process has it open",
              Counted(Waiting(), "byte").c_str(), endpoint_.c_str()));
  }
}

}  // namespace jpipe
