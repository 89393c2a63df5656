// jcxxsock.cpp - reading and writing exact byte counts on descriptors, the
// pipe-pair sock, and the sock on a named FIFO, in this order.
//
// Every system call's EINTR, EAGAIN and short count is handled here and nowhere
// else.
#include "jcxxsock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "cancellation.h"
#include "descriptor.h"
#include "jcxxactorapi.h"
#include "jcxxmsg.h"
#include "log.h"
#include "process.h"
#include "reason.h"
#include "registry.h"

namespace {

bool MustRepeat(int error) { return error == EAGAIN || error == EINTR; }

// Whether errno says that the step that has just failed on `fd` is to be repeated. If
// somebody has made the descriptor non-blocking, first waits until it is ready for
// `event`, so that repeating takes no processor time.
bool RepeatWhenReady(int fd, short event) {
  if (errno == EAGAIN) {
    pollfd waiting = {fd, event, 0};
    while (::poll(&waiting, 1, -1) < 0 && errno == EINTR) {
    }
    return true;
  }
  return errno == EINTR;
}

// Asks a sock for one of its descriptors. Result: 0 and `fd` not negative, or
// what the operation returns.
int DescriptorOf(JCXXSock& sock, int (JCXXSock::*get)(int&), int& fd) {
  fd = -1;
  if (const int rc = (sock.*get)(fd); rc != 0 || fd < 0) {
    reason::Fail(EBADF);
    return rc != 0 ? rc : -1;
  }
  return 0;
}

}  // namespace

JCXXSock::JCXXSock()
    : read_buffer(nullptr), read_buffer_pos(nullptr), read_buffer_size(0), read_buffer_avail(0) {
  registry::Api().JCXXSockPtrAdd(this);
}

JCXXSock::JCXXSock(JCXXSock const& /*other*/)
    : read_buffer(nullptr), read_buffer_pos(nullptr), read_buffer_size(0), read_buffer_avail(0) {
  JACTOR_TRACE("JCXXSock copy constructor");
  registry::Api().JCXXSockPtrAdd(this);
}

JCXXSock& JCXXSock::operator=(JCXXSock const& other) {
  JACTOR_TRACE("JCXXSock copy assignment operator");
  if (this != &other) {
    registry::Api().JCXXSockPtrAdd(this);
  }
  return *this;
}

JCXXSock::~JCXXSock() {
  delete[] read_buffer;
  read_buffer = nullptr;
  registry::Api().JCXXSockPtrRemove(this);
}

int JCXXSock::GetReadFD(int& /*fd*/) { return -1; }

int JCXXSock::GetWriteFD(int& /*fd*/) { return -1; }

// Writing

namespace {

constexpr const char* kWriteBlockingIOV = "WriteBlockingIOV";

void LogWriteFailure(int error) {
  if (error == EAGAIN) {
    JACTOR_ERROR_AS(kWriteBlockingIOV, "EAGAIN");
  } else if (error == EINTR) {
    JACTOR_ERROR_AS(kWriteBlockingIOV, "EINTR");
  }
}

// Rebuilds `rest` so that it describes what is left of `iov` after its first
// `sent` bytes, and returns the first entry that is not empty: what was sent in
// full, and empty entries where the last write stopped, are skipped.
int SkipSent(const iovec* iov, std::size_t sent, std::vector<iovec>& rest) {
  int first = 0;
  std::size_t end = iov[0].iov_len;
  while (end <= sent) {
    ++first;
    end += iov[first].iov_len;
  }
  const std::size_t start = end - iov[first].iov_len;
  iovec& front = rest[static_cast<std::size_t>(first)];
  front.iov_base = static_cast<unsigned char*>(iov[first].iov_base) + (sent - start);
  front.iov_len = end - sent;
  return first;
}

// Writes what the first write of `iov` left over. Result: 0 when all `total`
// bytes are out, otherwise -1.
int WriteRemainder(int fd, const iovec* iov, int iovcnt, std::size_t sent, std::size_t total) {
  reason::Fail(EIO);  // unless all of it is written after all
  std::vector<iovec> rest(iov, iov + iovcnt);
  while (sent < total) {
    const int first = SkipSent(iov, sent, rest);
    for (int j = first; j < iovcnt; ++j) {
      const iovec& entry = rest[static_cast<std::size_t>(j)];
      JACTOR_TRACE_AS(kWriteBlockingIOV, "front_iov[j].iov_len=%zd", entry.iov_len);
      JACTOR_TRACE_AS(kWriteBlockingIOV, "front_iov[j].iov_base=0x%zx",
                      reinterpret_cast<std::size_t>(entry.iov_base));
    }
    const ssize_t waswritten = ::writev(fd, rest.data() + first, iovcnt - first);
    if (waswritten == 0) {
      return -1;
    }
    if (waswritten > 0) {
      sent += static_cast<std::size_t>(waswritten);
      continue;
    }
    LogWriteFailure(errno);
    if (!RepeatWhenReady(fd, POLLOUT)) {
      return -1;
    }
  }
  reason::Clear();
  JACTOR_TRACE_AS(kWriteBlockingIOV, "remainder all sent");
  return 0;
}

}  // namespace

int JCXXSock::WriteBlocking(unsigned char* buf, std::size_t len, std::size_t& written) {
  written = 0;
  if (buf == nullptr) {
    return reason::Fail(EINVAL);
  }
  int fd = -1;
  if (const int rc = DescriptorOf(*this, &JCXXSock::GetWriteFD, fd); rc != 0) {
    return rc;
  }
  std::size_t done = 0;
  while (done < len) {
    const ssize_t step = ::write(fd, buf + done, len - done);
    if (step > 0) {
      done += static_cast<std::size_t>(step);
    } else if (step == 0 || !RepeatWhenReady(fd, POLLOUT)) {
      return reason::Fail(step == 0 || done > 0 ? EIO : errno);
    }
  }
  written = len;
  return 0;
}

int JCXXSock::WriteBlockingIOV(const iovec* iov, int iovcnt, std::size_t& written) {
  JACTOR_TRACE("WriteBlockingIOV");
  written = 0;
  if (iov == nullptr || iovcnt < 0) {
    return reason::Fail(EINVAL);
  }
  int fd = -1;
  if (const int rc = DescriptorOf(*this, &JCXXSock::GetWriteFD, fd); rc != 0) {
    return rc;
  }
  std::size_t total_size = 0;
  for (int j = 0; j < iovcnt; ++j) {
    JACTOR_TRACE("iov[j].iov_len=%zd", iov[j].iov_len);
    JACTOR_TRACE("iov[j].iov_base=0x%zx", reinterpret_cast<std::size_t>(iov[j].iov_base));
    total_size += iov[j].iov_len;
  }
  if (total_size == 0) {
    return 0;
  }
  JACTOR_TRACE("total_size=%zd", total_size);
  JACTOR_TRACE("before writev");
  const ssize_t waswritten = ::writev(fd, iov, iovcnt);
  const int error = errno;
  JACTOR_TRACE("after writev, waswritten=%zd", waswritten);
  if (waswritten < 0) {
    LogWriteFailure(error);
    if (!MustRepeat(error)) {
      JACTOR_ERROR("other error, errno=%d", error);
    }
    return reason::Fail(error == EINVAL ? EMSGSIZE : error);  // too many entries
  }
  const auto sent = static_cast<std::size_t>(waswritten);
  if (sent == total_size) {
    JACTOR_TRACE("all in one");
  } else {
    JACTOR_ERROR("partial write, waswritten=%zd", waswritten);
    if (sent == 0) {
      return reason::Fail(EIO);
    }
    if (WriteRemainder(fd, iov, iovcnt, sent, total_size) != 0) {
      return -1;
    }
  }
  written = total_size;
  return 0;
}

// Reading

namespace {

constexpr const char* kReadStep = "ReadBlockingReadaheadBuffered";

constexpr std::size_t kReadAheadCap = 16384;
constexpr std::size_t kReadAheadFallback = 4096;

// Serves the caller's bytes from the buffer.
std::size_t ServeFromBuffer(JCXXSock& sock, void* buf, std::size_t s) {
  JACTOR_TRACE_AS(kReadStep, "use data from the buffer");
  if (sock.read_buffer_avail >= s) {
    JACTOR_TRACE_AS(kReadStep, "full");
    std::memcpy(buf, sock.read_buffer_pos, s);
    sock.read_buffer_pos += s;
    sock.read_buffer_avail -= s;
    return s;
  }
  JACTOR_TRACE_AS(kReadStep, "partial");
  const std::size_t held = sock.read_buffer_avail;
  std::memcpy(buf, sock.read_buffer_pos, held);
  sock.read_buffer_pos = nullptr;
  sock.read_buffer_avail = 0;
  return held;
}

void CreateBuffer(JCXXSock& sock, int fd) {
  JACTOR_TRACE_AS(kReadStep, "create the buffer");
  std::size_t size = kReadAheadFallback;
  const int capacity = ::fcntl(fd, F_GETPIPE_SZ);
  if (capacity < 0) {
    JACTOR_ERROR_AS(kReadStep, "F_GETPIPE_SZ returned an error, errno=%d", errno);
  } else {
    size = std::min(static_cast<std::size_t>(capacity), kReadAheadCap);
  }
  sock.read_buffer = new unsigned char[size];
  sock.read_buffer_pos = sock.read_buffer;
  sock.read_buffer_size = size;
  sock.read_buffer_avail = 0;
}

// The read step when `pending` bytes wait, more than the `s` that the caller wants.
ssize_t ReadAhead(JCXXSock& sock, int fd, void* buf, std::size_t s, std::size_t pending) {
  if (sock.read_buffer == nullptr) {
    CreateBuffer(sock, fd);
  }
  std::size_t readahead_size = pending - s;
  JACTOR_TRACE_AS(kReadStep, "readahead_size=%zd", readahead_size);
  if (sock.read_buffer_size < readahead_size) {
    readahead_size = sock.read_buffer_size;
    JACTOR_TRACE_AS(kReadStep, "readahead_size=%zd", readahead_size);
  }
  const iovec both[2] = {{buf, s}, {sock.read_buffer, readahead_size}};
  const ssize_t wasread = ::readv(fd, both, 2);
  if (wasread < 0) {
    JACTOR_ERROR_AS(kReadStep, "read error, errno=%d", errno);
    return wasread;
  }
  if (wasread == 0) {
    JACTOR_ERROR_AS(kReadStep, "end of file or unable to read");
    return 0;
  }
  JACTOR_TRACE_AS(kReadStep, "wasread=%zd", wasread);
  const auto count = static_cast<std::size_t>(wasread);
  if (count < s + readahead_size) {
    JACTOR_TRACE_AS(kReadStep, "short read");
    if (count <= s) {
      JACTOR_TRACE_AS(kReadStep, "only enough for caller");
      return wasread;
    }
  }
  sock.read_buffer_pos = sock.read_buffer;
  sock.read_buffer_avail = count - s;
  JACTOR_TRACE_AS(kReadStep, "read_buffer_avail=%zd", sock.read_buffer_avail);
  return static_cast<ssize_t>(s);
}

// The read step when no more bytes wait than the caller wants.
ssize_t ReadDirect(int fd, void* buf, std::size_t s) {
  JACTOR_TRACE_AS(kReadStep, "direct");
  const ssize_t wasread = ::read(fd, buf, s);
  if (wasread < 0) {
    JACTOR_ERROR_AS(kReadStep, "read error, errno=%d", errno);
  } else if (wasread == 0) {
    JACTOR_TRACE_AS(kReadStep, "end of file or unable to read");
  }
  return wasread;
}

}  // namespace

int JCXXSock::AvailableToRead(std::size_t& avail) {
  avail = 0;
  int fd = -1;
  if (const int rc = DescriptorOf(*this, &JCXXSock::GetReadFD, fd); rc != 0) {
    return rc;
  }
  int count = 0;
  while (::ioctl(fd, FIONREAD, &count) < 0) {
    if (!MustRepeat(errno)) {
      return -1;
    }
  }
  avail = static_cast<std::size_t>(count);
  JACTOR_TRACE("avail=%zd", avail);
  return 0;
}

ssize_t JCXXSock::ReadBlockingReadaheadBuffered(void* buf, std::size_t s) {
  if (buf == nullptr) {
    return -1;
  }
  int fd = -1;
  if (const int rc = DescriptorOf(*this, &JCXXSock::GetReadFD, fd); rc != 0) {
    errno = EBADF;  // ReadBlocking checks errno: an old EINTR must not make it repeat
    return rc;
  }
  if (s == 0) {
    return 0;
  }
  JACTOR_TRACE("s=%zd", s);
  JACTOR_TRACE("read_buffer_avail=%zd", read_buffer_avail);
  if (read_buffer_avail > 0) {
    return static_cast<ssize_t>(ServeFromBuffer(*this, buf, s));
  }
  std::size_t avail = 0;
  if (AvailableToRead(avail) != 0) {
    JACTOR_TRACE("no available");
    avail = 0;
  }
  JACTOR_TRACE("avail=%zd", avail);
  return avail > s ? ReadAhead(*this, fd, buf, s, avail) : ReadDirect(fd, buf, s);
}

int JCXXSock::ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got) {
  got = 0;
  if (buf == nullptr) {
    return reason::Fail(EINVAL);
  }
  int fd = -1;
  if (const int rc = DescriptorOf(*this, &JCXXSock::GetReadFD, fd); rc != 0) {
    return rc;
  }
  std::size_t done = 0;
  while (done < len) {
    const ssize_t step = ReadBlockingReadaheadBuffered(buf + done, len - done);
    if (step > 0) {
      done += static_cast<std::size_t>(step);
    } else if (step == 0 || !RepeatWhenReady(fd, POLLIN)) {
      return reason::Fail(step == 0 ? 0 : errno);
    }
  }
  got = len;
  return 0;
}

std::size_t JCXXSock::BufferedToRead() { return read_buffer_avail; }

// Not supported

int JCXXSock::ReadNonBlocking(unsigned char* /*buf*/, std::size_t /*len*/, std::size_t& /*got*/) {
  return -1;
}

int JCXXSock::WriteNonBlocking(unsigned char* /*buf*/, std::size_t /*len*/,
                               std::size_t& /*written*/) {
  return -1;
}

// Whole messages

int JCXXSock::Send(JCXXMsg** msg) {
  if (msg == nullptr || *msg == nullptr) {
    return reason::Fail(EINVAL);
  }
  if (const int rc = (*msg)->WriteMessage(this); rc != 0) {
    return rc;
  }
  delete *msg;
  *msg = nullptr;
  return 0;
}

JCXXMsg* JCXXSock::Recv() { return JCXXMsg::ReadMessage(this); }

// The pipe pair

namespace {

int HandOut(int descriptor, int& fd) {
  if (descriptor < 0) {
    return -1;
  }
  fd = descriptor;
  return 0;
}

// Makes a sock, which then takes over both descriptors.
std::unique_ptr<JCXXSock> TakeOver(Descriptor& read_end, Descriptor& write_end) {
  auto sock = std::make_unique<SockFromPipes>(read_end.get(), write_end.get());
  read_end.Release();
  write_end.Release();
  return sock;
}

}  // namespace

SockFromPipes::SockFromPipes() : read_fd(-1), write_fd(-1) {}

SockFromPipes::SockFromPipes(int reading, int writing) : read_fd(reading), write_fd(writing) {}

SockFromPipes::SockFromPipes(SockFromPipes const& /*other*/)
    : JCXXSock(), read_fd(-1), write_fd(-1) {
  JACTOR_TRACE("SockFromPipes copy constructor");
}

SockFromPipes& SockFromPipes::operator=(SockFromPipes const& other) {
  JACTOR_TRACE("SockFromPipes copy assignment operator");
  if (this != &other) {
    CloseDescriptor(read_fd);
    CloseDescriptor(write_fd);
  }
  return *this;
}

SockFromPipes::~SockFromPipes() {
  const NoCancellation destroying;
  CloseDescriptor(read_fd);
  CloseDescriptor(write_fd);
}

int SockFromPipes::GetReadFD(int& fd) { return HandOut(read_fd, fd); }

int SockFromPipes::GetWriteFD(int& fd) { return HandOut(write_fd, fd); }

std::tuple<JCXXSock*, JCXXSock*> SockFromPipes::MakeSockPairFromPipes() {
  Pipe first;
  Pipe second;
  first.SetCloseOnExec();
  second.SetCloseOnExec();
  auto a = TakeOver(second.read_end, first.write_end);
  auto b = TakeOver(first.read_end, second.write_end);
  return {a.release(), b.release()};
}

// The named FIFO

SockFromNamedEndpoint::SockFromNamedEndpoint() : fd(-1) {
  JACTOR_TRACE("SockFromNamedEndpoint constructor");
}

SockFromNamedEndpoint::SockFromNamedEndpoint(int descriptor) : fd(descriptor) {
  JACTOR_TRACE("SockFromNamedEndpoint constructor from fd");
}

SockFromNamedEndpoint::SockFromNamedEndpoint(SockFromNamedEndpoint const& /*other*/)
    : JCXXSock(), fd(-1) {
  JACTOR_TRACE("SockFromNamedEndpoint copy constructor");
}

SockFromNamedEndpoint& SockFromNamedEndpoint::operator=(SockFromNamedEndpoint const& other) {
  JACTOR_TRACE("SockFromNamedEndpoint copy assignment operator");
  if (this != &other) {
    fd = -1;
  }
  return *this;
}

SockFromNamedEndpoint::~SockFromNamedEndpoint() {
  const NoCancellation destroying;
  JACTOR_TRACE("SockFromNamedEndpoint destructor");
  if (read_buffer_avail > 0) {
    JACTOR_ERROR("%zd bytes read ahead and not received are lost", read_buffer_avail);
  }
  CloseDescriptor(fd);
}

int SockFromNamedEndpoint::GetReadFD(int& descriptor) { return HandOut(fd, descriptor); }

int SockFromNamedEndpoint::GetWriteFD(int& descriptor) { return HandOut(fd, descriptor); }

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers pass it by value
std::list<std::string> SockFromNamedEndpoint::SplitAtCommas(std::string names) {
  std::list<std::string> pieces;
  std::size_t start = 0;
  for (std::size_t comma = names.find(','); comma != std::string::npos;
       comma = names.find(',', start)) {
    pieces.push_back(names.substr(start, comma - start));
    start = comma + 1;
  }
  pieces.push_back(names.substr(start));
  return pieces;
}

void SockFromNamedEndpoint::SplitLikeURI(std::string& name, std::string& transport,
                                         std::string& path) {
  constexpr std::size_t kSeparatorLength = 3;
  transport.clear();
  path.clear();
  const std::size_t at = name.find("://");
  if (at == std::string::npos || at == 0 || at + kSeparatorLength == name.size()) {
    return;
  }
  transport = name.substr(0, at);
  path = name.substr(at + kSeparatorLength);
}

namespace {

// Every log line of these functions names the one public call.

namespace fs = std::filesystem;

constexpr const char* kOpenEndpoint = "NewSockFromNamedEndpoint";
constexpr const char* kRunDirectory = "/var/run/jactor";
constexpr mode_t kFifoMode = 0666;

bool IsThere(fs::file_type type) {
  return type != fs::file_type::none && type != fs::file_type::not_found;
}

// Says why a step failed: the file system refused, or another process was faster.
bool Failed(std::error_code error) {
  reason::Fail(error ? error.value() : EEXIST);
  return false;
}

bool Removed(const std::string& path) {
  std::error_code error;
  return fs::remove(path, error) || Failed(error);
}

// Takes the direction prefix off the name. Either one is accepted, whatever the
// direction asked for.
void StripPrefix(std::string& name, bool pull) {
  const char prefix = name.front();
  if (prefix != '@' && prefix != '>') {
    return;
  }
  name.erase(0, 1);
  if (pull && prefix == '@') {
    JACTOR_TRACE_AS(kOpenEndpoint, "user requested a pull sock and specified pull with @");
  } else if (pull) {
    JACTOR_TRACE_AS(kOpenEndpoint, "user requested a pull sock but specified push with >");
  } else if (prefix == '@') {
    JACTOR_TRACE_AS(kOpenEndpoint, "user requested a push sock but specified pull with @");
  } else {
    JACTOR_TRACE_AS(kOpenEndpoint, "user requested a push sock and specified push with >");
  }
}

bool TransportSupported(const std::string& transport) {
  if (transport == "inproc") {
    JACTOR_TRACE_AS(kOpenEndpoint, "inproc supported");
    return true;
  }
  if (transport == "ipc") {
    JACTOR_TRACE_AS(kOpenEndpoint, "ipc supported");
    return true;
  }
  if (transport == "tcp") {
    JACTOR_ERROR_AS(kOpenEndpoint, "tcp not supported");
  } else if (transport == "pgm") {
    JACTOR_ERROR_AS(kOpenEndpoint, "pgm not supported");
  } else if (transport == "epgm") {
    JACTOR_ERROR_AS(kOpenEndpoint, "epgm not supported");
  } else {
    JACTOR_ERROR_AS(kOpenEndpoint, "unrecognized transport not supported");
  }
  reason::Fail(EPROTONOSUPPORT);
  return false;
}

// Checks the endpoint string before any file is touched. Result: whether it names
// one endpoint that can be opened.
bool ParseEndpoint(const char* endpoint, bool pull, std::string& transport, std::string& path) {
  const std::list<std::string> names = SockFromNamedEndpoint::SplitAtCommas(endpoint);
  JACTOR_TRACE_AS(kOpenEndpoint, "splitlist:");
  for (const std::string& name : names) {
    JACTOR_TRACE_AS(kOpenEndpoint, "s=[%s]", name.c_str());
  }
  if (names.size() > 1) {
    JACTOR_ERROR_AS(kOpenEndpoint, "multiple endpoint names not supported");
    reason::Fail(EINVAL);
    return false;
  }
  std::string name = names.front();
  if (name.size() <= 4) {
    JACTOR_ERROR_AS(kOpenEndpoint, "endpoint name too short");
    reason::Fail(EINVAL);
    return false;
  }
  StripPrefix(name, pull);
  SockFromNamedEndpoint::SplitLikeURI(name, transport, path);
  if (transport.empty()) {
    JACTOR_ERROR_AS(kOpenEndpoint, "bad transport");
    reason::Fail(EINVAL);
    return false;
  }
  JACTOR_TRACE_AS(kOpenEndpoint, "transport=[%s]", transport.c_str());
  JACTOR_TRACE_AS(kOpenEndpoint, "path=[%s]", path.c_str());
  return TransportSupported(transport);
}

std::string FifoPath(const std::string& transport, std::string path) {
  std::replace(path.begin(), path.end(), '/', '_');
  std::replace(path.begin(), path.end(), '\\', '_');
  JACTOR_TRACE_AS(kOpenEndpoint, "path=[%s]", path.c_str());
  std::string fifopath = std::string(kRunDirectory) + "/J" + transport + "_" + path;
  JACTOR_TRACE_AS(kOpenEndpoint, "fifopath=[%s]", fifopath.c_str());
  return fifopath;
}

// Makes sure that the run directory's path is a directory, whatever else was there.
bool EnsureRunDirectory() {
  const std::string tmpdir = kRunDirectory;
  if (const fs::file_type type = fs::status(tmpdir).type(); type == fs::file_type::directory) {
    JACTOR_TRACE_AS(kOpenEndpoint, "tmpdir exists and is a directory.");
  } else if (IsThere(type)) {
    JACTOR_ERROR_AS(kOpenEndpoint, "tmpdir exists but is not a directory.");
    if (!Removed(tmpdir)) {
      JACTOR_ERROR_AS(kOpenEndpoint, "unable to remove non-directory tmpdir");
      return false;
    }
  }
  if (IsThere(fs::status(tmpdir).type())) {
    return true;
  }
  JACTOR_TRACE_AS(kOpenEndpoint, "tmpdir doesn't exist.");
  std::error_code ignored;
  if (std::error_code error; !fs::create_directory(tmpdir, error)) {
    JACTOR_ERROR_AS(kOpenEndpoint, "unable to create tmpdir");
    return Failed(error);
  }
  fs::permissions(tmpdir, fs::perms::all | fs::perms::set_gid, fs::perm_options::replace, ignored);
  return true;
}

// Makes the FIFO for everybody, whatever the umask. One thread at a time changes the
// umask: two at the same time could leave it changed.
bool CreateFifo(const std::string& fifopath) {
  const process::CriticalSection section(process::umask_mutex);
  const mode_t old_umask = ::umask(0);
  const int rc = ::mkfifo(fifopath.c_str(), kFifoMode);
  const int error = errno;
  ::umask(old_umask);
  if (rc != 0) {
    reason::Fail(error);
  }
  return rc == 0;
}

// Makes sure that the path is a FIFO, whatever else was there.
bool EnsureFifo(const std::string& fifopath) {
  if (const fs::file_type type = fs::status(fifopath).type(); type == fs::file_type::fifo) {
    JACTOR_TRACE_AS(kOpenEndpoint, "fifopath exists and is a fifo.");
  } else if (IsThere(type)) {
    JACTOR_ERROR_AS(kOpenEndpoint, "fifopath exists but is not a fifo.");
    if (!Removed(fifopath)) {
      JACTOR_ERROR_AS(kOpenEndpoint, "unable to remove non-fifo fifopath");
      return false;
    }
  }
  if (IsThere(fs::status(fifopath).type())) {
    return true;
  }
  if (!CreateFifo(fifopath)) {
    JACTOR_ERROR_AS(kOpenEndpoint, "unable to create fifo");
    return false;
  }
  return true;
}

bool IsFifo(int fd) {
  struct stat status = {};
  return ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Opens the FIFO both ways, so that opening waits for nobody. Result: none when it cannot
// be opened, or when the file has been replaced with something else.
Descriptor OpenFifo(const std::string& fifopath) {
  Descriptor opened(::open(fifopath.c_str(), O_RDWR | O_NOFOLLOW | O_NOATIME | O_CLOEXEC));
  if (!opened || !IsFifo(opened.get())) {
    reason::Fail(opened ? EEXIST : errno);
    JACTOR_ERROR_AS(kOpenEndpoint, "unable to open fifo");
    return Descriptor();
  }
  return opened;
}

}  // namespace

JCXXSock* SockFromNamedEndpoint::NewSockFromNamedEndpoint(char const* name, bool pull) {
  if (name == nullptr) {
    reason::Fail(EINVAL);
    return nullptr;
  }
  process::RefuseToStartAtTheEnd();
  std::string transport;
  std::string path;
  if (!ParseEndpoint(name, pull, transport, path)) {
    return nullptr;
  }
  const std::string fifopath = FifoPath(transport, path);
  if (!EnsureRunDirectory() || !EnsureFifo(fifopath)) {
    return nullptr;
  }
  Descriptor opened = OpenFifo(fifopath);
  if (!opened) {
    return nullptr;
  }
  auto sock = std::make_unique<SockFromNamedEndpoint>(opened.get());
  opened.Release();
  return sock.release();
}

JCXXSock* JCXXSock::NewPull(char const* name) {
  return SockFromNamedEndpoint::NewSockFromNamedEndpoint(name, true);
}

JCXXSock* JCXXSock::NewPush(char const* name) {
  return SockFromNamedEndpoint::NewSockFromNamedEndpoint(name, false);
}
