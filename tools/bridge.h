// bridge.h - what export and import share: the ZeroMQ socket, its certificates,
// and the form of a message on it.
//
// On the ZeroMQ side a message is a multi-part message: a first part of one byte,
// "M" for a data message or "S" for a signal, and then a part for each frame, or
// one part of one byte with the signal's value. So a message without frames and
// a signal have a form of their own.
#ifndef JPIPE_BRIDGE_H
#define JPIPE_BRIDGE_H

#include <czmq.h>

#include <optional>
#include <string>

#include "options.h"
#include "sock.h"
#include "waiting.h"

namespace jpipe {

// The ZeroMQ socket of a bridge, bound or connected, with its options set.
class Bridge {
 public:
  // `type`: ZMQ_PUSH or ZMQ_PULL. `usual`: bind or connect when nothing is said.
  // Fails with kUsage on an address or certificates that make no sense.
  Bridge(const Options& options, const std::string& address, int type, Link usual);
  Bridge(const Bridge&) = delete;
  Bridge& operator=(const Bridge&) = delete;
  ~Bridge();

  zsock_t* socket() { return socket_; }

  // Whether a message may be sent (ZMQ_POLLOUT), or one has come (ZMQ_POLLIN).
  bool Has(int event) { return (zsock_events(socket_) & event) != 0; }

  // Takes no further messages from the network; those that ZeroMQ holds stay.
  void Unlink();

  // Closes the socket and waits until ZeroMQ has handed all its messages to the
  // network. Result: kReady, or what ended the wait: then nothing more of ZeroMQ
  // may be used, and the process must leave with _exit.
  Outcome Close(Patience& patience);

 private:
  void SetCertificates(const Options& options);
  void LinkTo(const std::string& address);

  bool binds_;
  zactor_t* authenticator_ = nullptr;
  zsock_t* socket_;
  std::string linked_;  // the address in use
};

// The multi-part message for `content`. The caller's.
zmsg_t* ToZmq(const Content& content);

// The message that `zmsg` stands for; the views point into it. Result: empty, or
// what is wrong with it.
std::string FromZmq(zmsg_t* zmsg, Content& content);

// Runs `loop` until a handler ends it, a stop request comes, or options.timeout is
// over; in the last two cases `patience` tells.
void RunLoop(zloop_t* loop, const Options& options, Patience& patience);

}  // namespace jpipe

#endif
