// sock.h - an endpoint's sock for a command that must be able to stop.
#ifndef JPIPE_SOCK_H
#define JPIPE_SOCK_H

#include <jactor.h>
#include <jcxxsock.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "content.h"
#include "descriptor.h"
#include "waiting.h"

namespace jpipe {

enum class Direction { kPull, kPush };

// A sock on an endpoint that reads and writes without blocking and waits with a
// Patience in between.
//
// It reads no byte that the current message does not need. The library's socks read ahead,
// and what they have read ahead is lost when the process ends; a command that takes a few
// messages and leaves must not lose any.
class EndpointSock final : public JCXXSock {
 public:
  // Opens the endpoint. Fails with the reason and what to do about it.
  EndpointSock(const std::string& endpoint, Direction direction, Patience& patience);
  EndpointSock(const EndpointSock&) = delete;
  EndpointSock& operator=(const EndpointSock&) = delete;
  ~EndpointSock() override = default;

  // Receives the next message. Result: kReady and `content`, which is valid until
  // the next call; or what ended the wait. Fails when the bytes are not a message.
  Outcome Take(Content& content);

  // Sends a message. Result: kReady, or what ended the wait. Fails when the
  // message is too large, or cannot be written.
  Outcome Put(const Content& content);

  // The message received last, as bytes on the wire.
  const std::string& wire() const { return wire_; }

  // Sends a message given as bytes on the wire.
  Outcome PutWire(std::string& bytes);

  // Makes Take and Put treat every message as begun: it gets the grace period even when no
  // byte of it was read or written.
  void GoesOnInGrace() { goes_on_in_grace_ = true; }

  // Makes Put send a message whole and without waiting, or not at all: its result is then kFull.
  void NeverWaitForRoom() { waits_for_room_ = false; }

  // Waits with another Patience from now on.
  void WaitWith(Patience& patience) { patience_ = &patience; }

  // Leaves the endpoint when nothing waits in it or another process stays; until then waits,
  // since the bytes would be lost, and says so once. Result: kReady, or what ended the
  // wait. Leaves in any case. Call MarkAsLeaving first.
  Outcome LeaveWhenSafe();

  // Leaves the endpoint, and reports bytes that are lost because nobody else has it open.
  void Leave();

  int fd() const { return fd_; }
  std::size_t Waiting() const;
  const std::string& endpoint() const { return endpoint_; }

  int GetReadFD(int& fd) override;
  int GetWriteFD(int& fd) override;
  int ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got) override;
  int WriteBlocking(unsigned char* buf, std::size_t len, std::size_t& written) override;
  int WriteBlockingIOV(const iovec* iov, int iovcnt, std::size_t& written) override;

 private:
  struct DestroyMsg {
    void operator()(JCXXMsg* msg) const { j_msg_destroy(&msg); }
  };
  struct DestroyFrame {
    void operator()(JCXXFrame* frame) const { j_frame_destroy(&frame); }
  };
  using Msg = std::unique_ptr<JCXXMsg, DestroyMsg>;

  void Begin();
  bool HasRoomFor(std::size_t size) const;
  bool MayGoOn(short events, bool begun);
  Outcome Unfinished(Direction direction);
  void TakeApart(JCXXMsg* msg, Content& content);
  void KeepALook();
  bool LeaveTo(std::optional<pid_t> keeper);

  std::string endpoint_;
  Patience* patience_;
  Descriptor open_;  // the endpoint; later only a look at it
  int fd_;
  bool waits_for_room_ = true;
  bool goes_on_in_grace_ = false;
  std::string wire_;
  std::size_t moved_ = 0;            // bytes of the message under way
  std::size_t size_on_wire_ = 0;     // of the message being sent
  Outcome ended_ = Outcome::kReady;  // what ended the message under way
  int error_ = 0;                    // errno of its failed system call
  std::vector<std::unique_ptr<JCXXFrame, DestroyFrame>> frames_;  // of the last message
};

}  // namespace jpipe

#endif
