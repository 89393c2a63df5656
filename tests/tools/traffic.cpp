// traffic.cpp - sends numbered messages to an endpoint, or receives them and compares
// every byte; and plays the far ends of a bridge that jpipe has to stand.
//
//   traffic send ENDPOINT COUNT SHAPE
//
// sends COUNT messages, or fewer when it is told to stop with SIGTERM, and a signal as
// their end, and prints how many it were.
//
//   traffic check ENDPOINT SHAPE
//
// receives them up to that signal, prints a line for every 200, and in the end how many
// there were, how many are missing, and how many came again.
//
// SHAPE is "mixed" (anything that the wire can carry, each in its order, none missing)
// or "numbered" (messages that name themselves and fit into PIPE_BUF).
//
//   traffic dealer|push ADDRESS BYTES...
//
// sends messages of one part, with \xHH for a byte, on such a socket, and prints what
// comes back first, if anything may.
//
//   traffic endless ADDRESS
//
// sends a message whose parts do not end, until the other side ends the connection, and
// prints "ended"; its parts have one byte, where memory is used most for what is sent.
#include <arpa/inet.h>
#include <czmq.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <iostream>
#include <random>
#include <vector>

#include "jactor.hpp"

namespace {

constexpr unsigned char kEnd = 255;
volatile std::sig_atomic_t stopped = 0;

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
    return {static_cast<unsigned char>(random() % kEnd), {}};
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

int Check(const jactor::Sock& sock, const std::string& shape) {
  unsigned long next = 0;
  unsigned long lost = 0;
  unsigned long repeated = 0;
  for (unsigned long count = 1;; ++count) {
    const Content content = Receive(sock);
    if (content.signal == kEnd) {
      std::cout << "received " << next - lost << " lost " << lost << " repeated " << repeated
                << std::endl;
      return 0;
    }
    const bool named = shape == "numbered" && !content.frames.empty();
    const unsigned long k = named ? std::strtoul(content.frames[0].c_str(), nullptr, 10) : next;
    if (content != Make(k, shape)) {
      std::cout << "other bytes than were sent at message " << next << std::endl;
      return 1;
    }
    if (k < next) {
      ++repeated;
      continue;
    }
    lost += k - next;
    next = k + 1;
    if (count % 200 == 0) {
      std::cout << count << std::endl;
    }
  }
}

void SendAll(const jactor::Sock& sock, unsigned long count, const std::string& shape) {
  std::signal(SIGTERM, [](int) { stopped = 1; });
  unsigned long k = 0;
  for (; k < count && !stopped; ++k) {
    Send(sock, Make(k, shape));
  }
  sock.signal(kEnd);
  std::cout << "sent " << k << std::endl;
}

std::string Unescaped(const std::string& word) {
  std::string bytes;
  for (std::size_t k = 0; k < word.size(); ++k) {
    if (word.compare(k, 2, "\\x") == 0) {
      bytes.push_back(static_cast<char>(std::stoi(word.substr(k + 2, 2), nullptr, 16)));
      k += 3;
    } else {
      bytes.push_back(word[k]);
    }
  }
  return bytes;
}

void SendParts(const std::string& type, const std::vector<std::string>& words) {
  zsock_t* sock = zsock_new(type == "push" ? ZMQ_PUSH : ZMQ_DEALER);
  zsock_connect(sock, "%s", words[1].c_str());
  for (std::size_t k = 2; k < words.size(); ++k) {
    const std::string bytes = Unescaped(words[k]);
    zmq_send(zsock_resolve(sock), bytes.data(), bytes.size(), 0);
  }
  char answer[1000];
  while (type == "dealer") {
    const int count = zmq_recv(zsock_resolve(sock), answer, sizeof answer, 0);
    if (count >= 5 && answer[4] == 'R') {
      std::cout << std::string(answer + 5, static_cast<std::size_t>(count) - 5) << std::endl;
      break;
    }
  }
  zsock_destroy(&sock);
}

// A ZeroMQ without a queue of its own: the parts go to the network at once.
void SendEndless(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  const std::string host = address.substr(6, colon - 6);
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<std::uint16_t>(std::stoi(address.substr(colon + 1))));
  ::inet_pton(AF_INET, host.c_str(), &to.sin_addr);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
    throw std::runtime_error("cannot connect");
  }
  // ZMTP 3.0: the greeting with no security, and the command READY of a DEALER.
  std::string bytes("\xff\0\0\0\0\0\0\0\1\x7f\3\0NULL", 16);
  bytes.resize(64);
  bytes += std::string("\4\x1c\5READY\13Socket-Type\0\0\0\6DEALER", 30);
  ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  ::recv(fd, bytes.data(), bytes.size(), MSG_WAITALL);  // its greeting, and most of its READY
  bytes.clear();
  for (int k = 0; k < 1000; ++k) {
    bytes += std::string("\1\1x", 3);  // a part of one byte, and more to come
  }
  std::size_t at = 0;
  for (ssize_t count = 0; count >= 0; at = (at + static_cast<std::size_t>(count)) % bytes.size()) {
    count = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (count < 0) {
      break;
    }
  }
  ::close(fd);
  std::cout << "ended" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const std::string& what = words.at(0);
  if (what == "check") {
    return Check(jactor::Sock::pull(words.at(1)), words.at(2));
  }
  if (what == "send") {
    SendAll(jactor::Sock::push(words.at(1)), std::stoul(words.at(2)), words.at(3));
  } else if (what == "endless") {
    SendEndless(words.at(1));
  } else {
    SendParts(what, words);
  }
}
