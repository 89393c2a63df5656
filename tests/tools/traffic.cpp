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
#include <jactor.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

struct Message {
  int signal = -1;
  std::vector<std::string> frames;
  bool operator==(const Message&) const = default;
};

std::string RandomBytes(std::minstd_rand& random, std::size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random() >> 8);
  }
  return bytes;
}

Message Numbered(unsigned long k, std::minstd_rand& random) {
  return {-1, {std::to_string(k), RandomBytes(random, 1 + random() % 3000)}};
}

Message Mixed(unsigned long k, std::minstd_rand& random) {
  Message message;
  if (k % 11 == 3) {
    message.signal = static_cast<int>(random() % 256);
  } else if (k % 10007 == 5) {
    message.frames.push_back(RandomBytes(random, JACTOR_MAX_SIZE));
  } else if (k % 997 == 7) {
    message.frames = {RandomBytes(random, 70000), "", RandomBytes(random, 5000)};
  } else if (k % 499 == 9) {
    message.frames.assign(511, "x");
  } else if (const unsigned long count = random() % 6; count > 0) {
    for (unsigned long f = 1; f < count; ++f) {
      message.frames.push_back(RandomBytes(random, random() % 40));
    }
    // The wire cannot tell an empty frame at the end from a message of its own.
    message.frames.push_back(RandomBytes(random, count > 1 ? 1 + random() % 200 : random() % 20));
  }
  return message;
}

Message Make(unsigned long k, const std::string& shape) {
  std::minstd_rand random(static_cast<unsigned>(k + 1));
  return shape == "mixed" ? Mixed(k, random) : Numbered(k, random);
}

[[noreturn]] void Die(const char* what, unsigned long k) {
  std::printf("%s at message %lu\n", what, k);
  std::exit(1);
}

void Send(JCXXSock* sock, const Message& message, unsigned long k) {
  if (message.signal >= 0) {
    if (j_sock_signal(sock, static_cast<unsigned char>(message.signal)) != 0) {
      Die("cannot signal", k);
    }
    return;
  }
  JCXXMsg* msg = j_msg_new();
  for (const std::string& frame : message.frames) {
    j_msg_addmem(msg, frame.data(), frame.size());
  }
  if (j_msg_send(&msg, sock) != 0) {
    Die("cannot send", k);
  }
}

Message Receive(JCXXSock* sock, unsigned long k) {
  JCXXMsg* msg = j_msg_recv(sock);
  if (msg == nullptr) {
    Die("cannot receive", k);
  }
  Message message{j_msg_signal(msg), {}};
  while (JCXXFrame* frame = j_msg_pop(msg)) {
    const auto* data = reinterpret_cast<const char*>(j_frame_data(frame));
    message.frames.emplace_back(data == nullptr ? "" : data, j_frame_size(frame));
    j_frame_destroy(&frame);
  }
  j_msg_destroy(&msg);
  return message;
}

void Pause() {
  std::puts("paused");
  std::fflush(stdout);
  while (std::getchar() != '\n') {
  }
}

void Check(JCXXSock* sock, unsigned long count, const std::string& shape, unsigned long pause) {
  unsigned long lost = 0;
  for (unsigned long next = 0, received = 0; next < count; ++next) {
    const Message message = Receive(sock, next);
    const bool named = shape == "numbered" && !message.frames.empty();
    const unsigned long k = named ? std::strtoul(message.frames[0].c_str(), nullptr, 10) : next;
    if (k < next || message != Make(k, shape)) {
      Die("other bytes than were sent", next);
    }
    if (k > next) {
      std::printf("missing %lu to %lu\n", next, k - 1);
      lost += k - next;
      next = k;
    }
    if (++received == pause) {
      Pause();
    }
  }
  std::printf("received %lu lost %lu\n", count - lost, lost);
}

int SendForeign(const char* address) {
  zsock_t* push = zsock_new_push(address);
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
  if (argc == 3) {
    return SendForeign(argv[2]);
  }
  if (argc < 5) {
    return 2;
  }
  const unsigned long count = std::strtoul(argv[3], nullptr, 10);
  const bool sends = std::strcmp(argv[1], "send") == 0;
  JCXXSock* sock = sends ? j_pipe_new_push(argv[2]) : j_pipe_new_pull(argv[2]);
  for (unsigned long k = 0; sends && k < count; ++k) {
    Send(sock, Make(k, argv[4]), k);
  }
  if (!sends) {
    Check(sock, count, argv[4], argc > 5 ? std::strtoul(argv[5], nullptr, 10) : 0);
  }
  j_sock_destroy(&sock);
}
