// input.cpp - lines and bytes from a file or standard input.
#include "input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "report.h"

namespace jpipe {

InputReader::InputReader(const std::string& name)
    : name_(name == "-" ? "standard input" : name),
      file_(name == "-" ? -1 : ::open(name.c_str(), O_RDONLY | O_CLOEXEC)),
      fd_(name == "-" ? STDIN_FILENO : file_.get()) {
  if (fd_ < 0) {
    throw Failure(kFailed, "cannot open " + name + ": " + std::strerror(errno));
  }
}

// Reads once, and appends to what was read ahead.
Outcome InputReader::Fill() {
  constexpr std::size_t kPiece = 65536;
  const Outcome outcome = patience_->Wait(fd_, POLLIN, false);
  if (outcome != Outcome::kReady) {
    return outcome;
  }
  ahead_.erase(0, start_);
  start_ = 0;
  const std::size_t before = ahead_.size();
  ahead_.resize(before + kPiece);
  const ssize_t count = ::read(fd_, ahead_.data() + before, kPiece);
  const int error = errno;
  ahead_.resize(before + (count > 0 ? static_cast<std::size_t>(count) : 0));
  if (count < 0 && error != EINTR && error != EAGAIN) {
    throw Failure(kFailed, "cannot read " + name_ + ": " +
                               (error == EBADF ? "it is closed" : std::strerror(error)));
  }
  searched_ = before;
  ended_ = count == 0;
  return Outcome::kReady;
}

Outcome InputReader::Next(std::string& line, std::size_t most, bool& at_end) {
  ++number_;
  searched_ = start_;
  std::size_t newline = std::string::npos;
  while ((newline = ahead_.find('\n', searched_)) == std::string::npos && !ended_ &&
         Left() <= most) {
    if (const Outcome outcome = Fill(); outcome != Outcome::kReady) {
      return outcome;
    }
  }
  const std::size_t length = newline == std::string::npos ? Left() : newline - start_;
  if (length > most) {
    throw Failure(kFailed, Text("line %llu of %s has more than %zu bytes, the most that fits into "
                                "a message: it and what follows were not sent; split it",
                                number_, name_.c_str(), most));
  }
  at_end = newline == std::string::npos && length == 0;
  line.assign(ahead_, start_, length);
  start_ += newline == std::string::npos ? length : length + 1;
  return Outcome::kReady;
}

Outcome InputReader::Rest(std::string& bytes, std::size_t most) {
  while (!ended_ && Left() <= most) {
    if (const Outcome outcome = Fill(); outcome != Outcome::kReady) {
      return outcome;
    }
  }
  if (Left() > most) {
    throw Failure(kFailed, Text("%s has more than %zu bytes, the most that fits into a message: "
                                "nothing was sent; split it",
                                name_.c_str(), most));
  }
  bytes = ahead_.substr(start_);
  start_ = ahead_.size();
  return Outcome::kReady;
}

std::size_t InputReader::Read(char* bytes, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    if (Left() == 0 && (ended_ || Fill() != Outcome::kReady)) {
      break;
    }
    const std::size_t count = ahead_.copy(bytes + done, size - done, start_);
    done += count;
    start_ += count;
  }
  return done;
}

}  // namespace jpipe
