// supervised.cpp - a supervisor that notices a failed actor and starts another
//
// The exception that ends the worker is passed on to its supervisor, which reports
// it, starts a new worker, and goes on with the next job.
#include <iostream>
#include <jactor.hpp>

using jactor::Actor;
using jactor::Message;
using jactor::SockRef;

namespace {

long number(const std::string& text) {
  std::size_t used = 0;
  long value = 0;
  try {
    value = std::stol(text, &used);
  } catch (const std::logic_error&) {
    used = std::string::npos;
  }
  if (used != text.size()) {
    throw std::invalid_argument('"' + text + "\" is not a number");
  }
  return value;
}

// Answers every number with its square.
void worker(SockRef sock) {
  sock.ready();
  while (auto job = sock.receive()) {
    const long value = number(job->pop_string().value());
    sock.send(Message{std::to_string(value * value)});
  }
}

// Why the worker ended.
std::string reason(Actor& ended) {
  try {
    ended.join();
    return "it returned";
  } catch (const std::exception& failure) {
    return failure.what();
  }
}

void supervise() {
  Actor actor(worker);
  for (const char* job : {"12", "seven", "7", "", "-9"}) {
    actor.send(Message{job});
    if (auto answer = actor.receive()) {
      std::cout << job << " squared is " << answer->pop_string().value() << '\n';
    } else {
      std::cout << "the worker failed: " << reason(actor) << "; starting another\n";
      actor = Actor(worker);
    }
  }
}

}  // namespace

int main() {
  try {
    supervise();
  } catch (const std::exception& failure) {
    std::cerr << "supervised: " << failure.what() << '\n';
    return 1;
  }
}
