// whole_reader.cpp - looking into a FIFO before reading it.
#include "whole_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include "message_scan.h"
#include "report.h"

namespace jpipe {

WholeReader::WholeReader(int fifo) : fifo_(fifo) {
  int ends[2];
  if (::pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) {
    throw Failure(kFailed, "cannot make a pipe: close some files or raise the limit (ulimit -n)");
  }
  in_ = Descriptor(ends[0]);
  out_ = Descriptor(ends[1]);
}

// Copies what waits in the FIFO, up to the room of a pipe.
void WholeReader::Look() {
  constexpr std::size_t kRoom = 65536;
  position_ = 0;
  const ssize_t copied = ::tee(fifo_, out_.get(), kRoom, SPLICE_F_NONBLOCK);
  seen_.resize(copied > 0 ? static_cast<std::size_t>(copied) : 0);
  const ssize_t count = ::read(in_.get(), seen_.data(), seen_.size());
  seen_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
}

// The bytes of the next message, if the whole of it was seen; otherwise 0.
std::size_t WholeReader::SizeOfNext() const {
  MessageScan scan;
  const auto* next = reinterpret_cast<const unsigned char*>(seen_.data()) + position_;
  return scan.Look(next, seen_.size() - position_) == MessageScan::Verdict::kWhole ? scan.size()
                                                                                   : 0;
}

bool WholeReader::Take(std::string& bytes) {
  std::size_t size = SizeOfNext();
  if (size == 0) {
    Look();
    size = SizeOfNext();
  }
  bytes.resize(size);
  const ssize_t count = ::read(fifo_, bytes.data(), size);
  position_ += size;
  return size > 0 && count == static_cast<ssize_t>(size);
}

}  // namespace jpipe
