// pipeline.cpp - a source, three stages and a sink, side by side
//
// Each stage owns the actor before it and receives from it; the sink is main().
// A full pipe holds up its sender (back-pressure), so that nothing piles up. The end
// of the source travels down to the sink stage by stage, and so does an exception
// in a stage.
#include <array>
#include <functional>
#include <iostream>
#include <jactor.hpp>
#include <map>
#include <sstream>

using jactor::Actor;
using jactor::Message;
using jactor::SockRef;

namespace {

// A stage's work: turns one message into another, or into nothing to send on.
using Step = std::function<std::optional<Message>(Message)>;

Actor stage(Actor before, Step step) {
  return Actor([before = std::move(before), step = std::move(step)](SockRef sock) mutable {
    sock.ready();
    while (auto message = before.receive()) {
      if (auto result = step(std::move(*message))) {
        sock.send(std::move(*result));
      }
    }
    before.join();  // throws what the previous stage has thrown
  });
}

void source(SockRef sock) {
  static constexpr std::array readings{"north 215", "south 190", "north 225",
                                       "south ?",   "north 241", "south 170"};
  sock.ready();
  for (const char* reading : readings) {
    sock.send(Message{reading});
  }
}

// "north 215" becomes the frames "north" and "215"; a reading without a number is
// dropped.
std::optional<Message> split(Message message) {
  std::istringstream line(message.pop_string().value());
  std::string place;
  int tenths = 0;
  if (!(line >> place >> tenths)) {
    return std::nullopt;
  }
  return Message{place, std::to_string(tenths)};
}

// Replaces each number by the mean of all numbers from its place so far.
class Mean {
 public:
  std::optional<Message> operator()(Message message) {
    const std::string place = message.pop_string().value();
    auto& [sum, count] = seen_[place];
    sum += std::stoi(message.pop_string().value());
    ++count;
    return Message{place, std::to_string(sum / count)};
  }

 private:
  std::map<std::string, std::pair<int, int>> seen_;
};

std::optional<Message> format(Message message) {
  const std::string place = message.pop_string().value();
  const int tenths = std::stoi(message.pop_string().value());
  std::ostringstream line;
  line << place << ": " << tenths / 10 << '.' << tenths % 10 << " degrees on average";
  return Message{line.str()};
}

}  // namespace

int main() {
  try {
    Actor lines = stage(stage(stage(Actor(source), split), Mean()), format);
    int count = 0;
    while (auto line = lines.receive()) {
      std::cout << line->pop_string().value() << '\n';
      ++count;
    }
    lines.join();
    std::cout << count << " lines\n";
  } catch (const std::exception& failure) {
    std::cerr << "pipeline: " << failure.what() << '\n';
    return 1;
  }
}
