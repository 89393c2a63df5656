// jcxxmsg.h - a message: an ordered list of data frames, or a one-byte signal.
//
// A message has no lock: one thread at a time. It is in the registry of live
// messages from its constructor until its destructor.
#ifndef JCXXMSG_H
#define JCXXMSG_H

#include <cstddef>
#include <cstdint>
#include <list>

#include "jactor.h"

struct JACTOR_API JCXXMsg {
  static constexpr std::uint32_t DATA_MSG = 0;    // a list of data frames
  static constexpr std::uint32_t SIGNAL_MSG = 1;  // one value, no frames

  // The most frames that ReadMessage takes into one message.
  static constexpr std::size_t kMaxFrames = 1048576;

  std::uint32_t type;
  std::uint32_t msg_size;            // sum of the frames' sizes; 0 in a signal message
  std::uint8_t signal_value;         // 0 in a data message
  std::list<JCXXFrame*> frame_list;  // first to last; owned

  // An empty data message.
  JCXXMsg();

  // A signal message carrying `value`.
  explicit JCXXMsg(unsigned char value);

  // The message that a frame read from a sock stands for. A data frame becomes
  // the only frame of the message, which owns it from then on. A signal frame
  // gives a signal message, a message-header frame or null an empty data message;
  // those frames stay the caller's. If it throws, any frame stays the caller's.
  explicit JCXXMsg(JCXXFrame* frame);

  // Copies nothing: the new message is an empty data message.
  JCXXMsg(JCXXMsg const& other);

  // Copies nothing, and logs.
  JCXXMsg& operator=(JCXXMsg const& other);

  // Destroys the frames too.
  ~JCXXMsg();

  unsigned int GetSize();
  bool IsDataMsg();
  bool IsSignalMsg();
  unsigned char GetSignalValue();

  // The message's own list. Code that changes it must keep `msg_size` right.
  std::list<JCXXFrame*>& GetFrameList();

  // Appends a data frame, which the message owns on success.
  // Result: 0; -1 for null, a frame of another kind, or on a signal message; then
  //         the frame stays the caller's.
  int AppendDataFrame(JCXXFrame* frame);

  // Appends a copy of `size` bytes, or `size` zero bytes when `mem` is null.
  // Result: 0; -1 when `size` is above JCXXFrame::kMaxSize or on a signal message.
  // Throws: std::bad_alloc, the message unchanged.
  int AddMem(const void* mem, std::size_t size);

  // Appends a copy of the string without its terminating zero.
  // Result and exceptions: as AddMem; -1 for null too.
  int AddStr(const char* str);

  // Removes the first frame and gives it to the caller; null when there is none.
  JCXXFrame* Pop();

  // Removes the first frame and returns its bytes, and a zero byte after them,
  // in a buffer that the caller releases with free(); null when there is none.
  // Throws: std::bad_alloc; then the frame is still in the message.
  char* PopStr();

  // Destroys all frames.
  void DeallocateList();

  // Writes the message: a signal as its frame, a data message as one gathered
  // write. Blocks until it is written. The message stays the caller's, with its
  // frames.
  // Result: 0; non-zero when `psock` is null or the write failed; then a part of
  //         the message may be on the stream.
  // Throws: std::bad_alloc, with nothing written, when memory has run out or a
  //         message of several frames is larger than JCXXFrame::kMaxSize.
  int WriteMessage(JCXXSock* psock);

  // Reads the next message. Blocks until it is complete.
  // Result:    the message, which is the caller's, or null: no frame could be
  //            read, or the frames do not make a message (a frame inside it that is
  //            not a data frame, more bytes than announced, more than kMaxFrames
  //            frames). What was read is dropped.
  // Throws:    std::bad_alloc.
  static JCXXMsg* ReadMessage(JCXXSock* psock);

  // Writes a signal carrying `value`. Result as WriteMessage.
  static int WriteSignalMessage(JCXXSock* psock, unsigned char value);

  // Reads and drops messages until one is a signal, of any value.
  // Result: 0; -1 as soon as no message can be read.
  static int WaitForSignal(JCXXSock* psock);
};

#endif
