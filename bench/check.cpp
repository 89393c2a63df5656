// check.cpp - payloads, their checks, and how a run fails.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "bench.h"

namespace bench {

namespace {

std::uint64_t SumWords(Bytes data) {
  std::uint64_t sum = 0;
  for (std::size_t at = 0; at < data.size(); at += sizeof sum) {
    std::uint64_t word = 0;
    std::memcpy(&word, data.data() + at, sizeof word);
    sum += word;
  }
  return sum;
}

}  // namespace

void Fail(const char* what) {
  const int error = errno;
  std::fprintf(stderr, "jactor_bench: %s failed: %s\n", what, std::strerror(error));
  std::exit(1);
}

Payload::Payload(Shape shape) : shape_(shape), bytes_(shape.frames * shape.size) {
  unsigned char next = 1;
  for (unsigned char& byte : bytes_) {
    byte = next;
    next = static_cast<unsigned char>(next * 5 + 3);
  }
  SetStamp({0});
}

Checker::Checker(Shape shape, unsigned senders)
    : shape_(shape), pattern_sum_(SumWords(Payload(shape).all())), next_(senders) {}

void Checker::Frame(Bytes data) {
  Must(data.size() == shape_.size, "check of a frame's size");
  if (frames_ == 0) {
    std::memcpy(&stamp_.word, data.data(), sizeof stamp_.word);
  }
  ++frames_;
  sum_ += SumWords(data);
}

Stamp Checker::EndMessage() {
  Must(frames_ == shape_.frames, "check of the number of frames");
  Must(sum_ == pattern_sum_ + stamp_.word, "check of the sum");
  Must(stamp_.sender() < next_.size(), "check of the sender");
  Must(stamp_.number() == next_[stamp_.sender()]++, "check of the order");
  ++messages_;
  frames_ = 0;
  sum_ = 0;
  return stamp_;
}

std::unique_ptr<Actor> System::Start(const ActorFunction& /*function*/, Shape /*shape*/) {
  Fail("starting an actor, which this system does not offer,");
  return nullptr;
}

void System::Prepare(unsigned /*connections*/) {}

void System::CleanUp() {
  for (const std::string& path : paths_) {
    ::unlink(path.c_str());
  }
}

std::unique_ptr<End> System::Pull(unsigned /*connection*/, Shape /*shape*/) {
  Fail("connecting processes, which this system does not offer,");
  return nullptr;
}

std::unique_ptr<End> System::Push(unsigned connection, Shape shape) {
  return Pull(connection, shape);
}

void System::BuildAndTakeApart(const Payload& /*payload*/, Checker& /*checker*/) {
  Fail("building a message of frames, which this system does not offer,");
}

std::string UniquePath(const char* kind, unsigned number) {
  return "/tmp/jactor_bench." + std::string(kind) + "." + std::to_string(::getpid()) + "." +
         std::to_string(number);
}

std::unique_ptr<System> MakeSystem(const std::string& name) {
  static constexpr struct {
    const char* name;
    std::unique_ptr<System> (*make)();
  } kSystems[] = {{"jactor", MakeJactor}, {"pipe", MakePipe}, {"fifo", MakeFifo},
                  {"czmq", MakeCzmq},     {"nng", MakeNng},   {"seqpacket", MakeSeqpacket}};
  for (const auto& system : kSystems) {
    if (name == system.name) {
      return system.make();
    }
  }
  return nullptr;
}

}  // namespace bench
