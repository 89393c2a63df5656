// traffic.cpp - sends numbered messages of mixed shape to an endpoint, or receives
// them and compares every byte.
//
//   traffic send ENDPOINT COUNT SHAPE
//   traffic check ENDPOINT COUNT SHAPE [PAUSE]
//
// SHAPE is "mixed" (anything that the wire can carry; the check wants every message
// in its order) or "numbered" (messages that name themselves and fit into PIPE_BUF;
// the check allows gaps, wants the order kept, and tells what is missing). After
// PAUSE messages the check prints "paused" and waits for a line of input.
//
//   traffic foreign ADDRESS
//
// sends what no jpipe export sends on a ZeroMQ PUSH socket, and a message behind it.
#include <czmq.h>

#include <iostream>
#include <random>
#include <vector>

#include "jactor.hpp"

namespace {

struct Content {
  std::optional<unsigned char> signal;
  std::vector<std::string> frames;
  bool operator==(const Content&) const = default;
};

std::string RandomBytes(std::minstd_rand& random, std::size_t size) {
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
  return bytes;
}

// What the wire can carry, the rare and large kinds now and then.
Content Mixed(unsigned long k, std::minstd_rand& random) {
  if (k % 11 == 3) {
    return {static_cast<unsigned char>(random()), {}};
  }
  if (k % 4999 == 7) {
    return {{}, {RandomBytes(random, 70000), "", RandomBytes(random, JACTOR_MAX_SIZE - 70000)}};
  }
  if (k % 499 == 9) {
    return {{}, std::vector<std::string>(511, "x")};
  }
  Content content;
  const unsigned long count = random() % 6;
  for (unsigned long f = 1; f <= count; ++f) {
    // The wire cannot tell an empty frame at the end from a message of its own.
    const unsigned long size = f < count ? random() % 40 : random() % 200 + (count > 1 ? 1 : 0);
    content.frames.push_back(RandomBytes(random, size));
  }
  return content;
}

Content Make(unsigned long k, const std::string& shape) {
  std::minstd_rand random(static_cast<unsigned>(k + 1));
  return shape == "mixed"
             ? Mixed(k, random)
             : Content{{}, {std::to_string(k), RandomBytes(random, 1 + random() % 3000)}};
}

void Send(const jactor::Sock& sock, const Content& content) {
  if (content.signal) {
    return sock.signal(*content.signal);
  }
  jactor::Message message;
  for (const std::string& frame : content.frames) {
    message.add(frame);
  }
  sock.send(std::move(message));
}

Content Receive(const jactor::Sock& sock) {
  jactor::Message message = sock.receive().value();
  Content content{message.signal(), {}};
  for (const jactor::Frame& frame : message.frames()) {
    content.frames.emplace_back(frame.text());
  }
  return content;
}

int Check(const jactor::Sock& sock, unsigned long count, const std::string& shape,
          unsigned long pause) {
  unsigned long lost = 0;
  for (unsigned long next = 0, received = 0; next < count; ++next) {
    const Content content = Receive(sock);
    const bool named = shape == "numbered" && !content.frames.empty();
    const unsigned long k = named ? std::strtoul(content.frames[0].c_str(), nullptr, 10) : next;
    if (k < next || content != Make(k, shape)) {
      std::cout << "other bytes than were sent at message " << next << '\n';
      return 1;
    }
    if (k > next) {
      std::cout << "missing " << next << " to " << k - 1 << '\n';
      lost += k - next;
      next = k;
    }
    if (++received == pause) {
      std::cout << "paused" << std::endl;
      std::cin.ignore(INT_MAX, '\n');
    }
  }
  std::cout << "received " << count - lost << " lost " << lost << '\n';
  return 0;
}

int SendForeign(const std::string& address) {
  zsock_t* push = zsock_new_push(address.c_str());
  const std::string half(JACTOR_MAX_SIZE / 2 + 1, 'x');
  zstr_send(push, "X");
  zstr_sendx(push, "S", "ab", nullptr);
  zstr_sendx(push, "M", half.c_str(), half.c_str(), nullptr);
  const int rc = zstr_sendx(push, "M", "good", nullptr);
  zsock_set_linger(push, -1);
  zsock_destroy(&push);
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2) {
    return SendForeign(words[1]);
  }
  const unsigned long count = std::stoul(words.at(2));
  if (words[0] == "check") {
    return Check(jactor::Sock::pull(words[1]), count, words.at(3),
                 words.size() > 4 ? std::stoul(words[4]) : 0);
  }
  const auto sock = jactor::Sock::push(words[1]);
  for (unsigned long k = 0; k < count; ++k) {
    Send(sock, Make(k, words.at(3)));
  }
}
