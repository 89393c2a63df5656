// pipe_system.cpp - the limit: two bare pipes, or FIFOs.
//
// A message is a 4-byte length and the payload, written with one writev; one of
// several frames is a 4-byte total and then each frame with its length, written
// with one writev as well. The reader takes up to 16 KiB in a read and copies the
// payload out of its buffer into memory that it reuses; a payload larger than the
// buffer is read into place. There are no objects, no checks of handles and no
// log: any program that sends messages over a pipe does at least this much.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

constexpr std::size_t kBuffer = 16384;

// Buffered reading of exact counts.
class Reader {
 public:
  explicit Reader(int fd) : fd_(fd), buffer_(kBuffer) {}

  // Result: false at the end of the stream.
  bool Take(void* to, std::size_t size) {
    auto* out = static_cast<unsigned char*>(to);
    while (size > 0) {
      std::size_t part = 0;
      if (held_.empty() && size >= buffer_.size()) {
        part = Read({out, size});
      } else {
        if (held_.empty()) {
          held_ = Bytes(buffer_).first(Read(buffer_));
        }
        part = std::min(size, held_.size());
        std::memcpy(out, held_.data(), part);
        held_ = held_.subspan(part);
      }
      if (part == 0) {
        return false;
      }
      out += part;
      size -= part;
    }
    return true;
  }

 private:
  std::size_t Read(std::span<unsigned char> place) {
    const ssize_t count = ::read(fd_, place.data(), place.size());
    Must(count >= 0, "read");
    return static_cast<std::size_t>(count);
  }

  int fd_;
  std::vector<unsigned char> buffer_;
  Bytes held_;
};

// Memory that starts at the beginning of a page. Otherwise the payload would start a few
// bytes further into its page than the source does into its own, and some processors copy
// to such an address several times more slowly.
class PageAligned {
 public:
  explicit PageAligned(std::size_t size)
      : size_(size),
        data_(static_cast<unsigned char*>(
            std::aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage))) {
    Must(data_ != nullptr, "aligned_alloc");
  }
  PageAligned(const PageAligned&) = delete;
  PageAligned& operator=(const PageAligned&) = delete;
  ~PageAligned() { std::free(data_); }

  unsigned char* data() { return data_; }
  Bytes all() const { return {data_, size_}; }

 private:
  static constexpr std::size_t kPage = 4096;

  std::size_t size_;
  unsigned char* data_;
};

iovec Entry(const void* data, std::size_t size) { return {const_cast<void*>(data), size}; }

// Reads one descriptor and writes another; owns neither.
class StreamEnd : public End {
 public:
  StreamEnd(int read_fd, int write_fd, Shape shape)
      : reader_(read_fd), write_fd_(write_fd), received_(shape.frames * shape.size) {}

  void Send(const Payload& payload) override {
    if (payload.frames() == 1) {
      SendOne(payload.frame(0));
    } else {
      SendFrames(payload);
    }
  }

  Stamp Receive(Checker& checker) override {
    const Shape shape = checker.shape();
    Must(shape.frames == 1 || Expect(shape.frames * (sizeof(std::uint32_t) + shape.size)),
         "reading a message");
    for (std::size_t i = 0; i < shape.frames; ++i) {
      unsigned char* place = received_.data() + i * shape.size;
      Must(Expect(shape.size) && reader_.Take(place, shape.size), "reading a frame");
      checker.Frame({place, shape.size});
    }
    return checker.EndMessage();
  }

  bool Echo(Shape shape) override {
    if (!Expect(shape.size) || !reader_.Take(received_.data(), shape.size)) {
      return false;
    }
    SendOne(received_.all());
    return true;
  }

 private:
  // Reads a length. Result: whether there was one, equal to `length`.
  bool Expect(std::size_t length) {
    std::uint32_t announced = 0;
    return reader_.Take(&announced, sizeof announced) && announced == length;
  }

  void SendOne(Bytes frame) {
    const auto length = static_cast<std::uint32_t>(frame.size());
    const iovec entries[] = {Entry(&length, sizeof length), Entry(frame.data(), frame.size())};
    Write(entries, sizeof length + frame.size());
  }

  void SendFrames(const Payload& payload) {
    const auto length = static_cast<std::uint32_t>(payload.frame(0).size());
    const auto total = static_cast<std::uint32_t>(payload.frames() * (sizeof length + length));
    iovec entries[1 + 2 * 16];
    std::size_t used = 0;
    entries[used++] = Entry(&total, sizeof total);
    for (std::size_t i = 0; i < payload.frames(); ++i) {
      entries[used++] = Entry(&length, sizeof length);
      entries[used++] = Entry(payload.frame(i).data(), length);
    }
    Write({entries, used}, sizeof total + total);
  }

  void Write(std::span<const iovec> entries, std::size_t size) {
    const ssize_t written = ::writev(write_fd_, entries.data(), static_cast<int>(entries.size()));
    Must(written == static_cast<ssize_t>(size), "writev");
  }

  Reader reader_;
  int write_fd_;
  PageAligned received_;
};

class PipeActor : public Actor {
 public:
  PipeActor(const ActorFunction& function, Shape shape) {
    Must(::pipe2(there_, O_CLOEXEC) == 0 && ::pipe2(back_, O_CLOEXEC) == 0, "pipe2");
    end_ = std::make_unique<StreamEnd>(back_[0], there_[1], shape);
    thread_ = std::thread([this, &function, shape] {
      Must(::write(back_[1], "", 1) == 1, "write");
      StreamEnd end(there_[0], back_[1], shape);
      function(end);
    });
    char ready = 0;
    Must(::read(back_[0], &ready, 1) == 1, "read");
  }

  ~PipeActor() override {
    ::close(there_[1]);
    thread_.join();
    ::close(there_[0]);
    ::close(back_[0]);
    ::close(back_[1]);
  }

  End& end() override { return *end_; }

 private:
  int there_[2] = {-1, -1};
  int back_[2] = {-1, -1};
  std::unique_ptr<StreamEnd> end_;
  std::thread thread_;
};

bool FitsStream(Shape shape) { return shape.frames <= 16; }

class Pipe : public System {
 public:
  bool Supports(Shape shape) const override { return FitsStream(shape); }

  std::unique_ptr<Actor> Start(const ActorFunction& function, Shape shape) override {
    return std::make_unique<PipeActor>(function, shape);
  }
};

// An end of a FIFO, opened both ways as a named endpoint is.
class FifoEnd : public StreamEnd {
 public:
  FifoEnd(int fd, Shape shape) : StreamEnd(fd, fd, shape), fd_(fd) { Must(fd >= 0, "open"); }
  ~FifoEnd() override { ::close(fd_); }

 private:
  int fd_;
};

class Fifo : public System {
 public:
  bool Supports(Shape shape) const override { return FitsStream(shape); }

  void Prepare(unsigned connections) override {
    for (unsigned i = 0; i < connections; ++i) {
      paths_.push_back(UniquePath("fifo", i));
      Must(::mkfifo(paths_.back().c_str(), 0600) == 0, "mkfifo");
    }
  }

  std::unique_ptr<End> Pull(unsigned connection, Shape shape) override {
    const int fd = ::open(paths_.at(connection).c_str(), O_RDWR | O_CLOEXEC);
    return std::make_unique<FifoEnd>(fd, shape);
  }
};

}  // namespace

std::unique_ptr<System> MakePipe() { return std::make_unique<Pipe>(); }
std::unique_ptr<System> MakeFifo() { return std::make_unique<Fifo>(); }

}  // namespace bench
