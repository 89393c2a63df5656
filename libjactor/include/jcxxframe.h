// jcxxframe.h - one frame: the unit in which bytes cross a sock.
//
// A frame has no lock: one thread at a time. It is in the registry of live
// frames from its constructor until its destructor.
#ifndef JCXXFRAME_H
#define JCXXFRAME_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "jactor.h"

struct JACTOR_API JCXXFrame {
  static constexpr std::uint32_t DATA_FRAME = 0;        // a block of payload bytes
  static constexpr std::uint32_t MSG_HEADER_FRAME = 1;  // announces a message's payload bytes
  static constexpr std::uint32_t SIGNAL_FRAME = 2;      // one byte, the signal's value

  // The most bytes that one frame carries, or that one message header announces.
  static constexpr std::size_t kMaxSize = JACTOR_MAX_SIZE;
  static constexpr std::size_t kMaxHeader = 5;

  std::uint32_t type;                // one of the three kinds, never changed
  std::uint32_t msg_size;            // message header: the bytes announced; otherwise 0
  std::vector<unsigned char> data;   // the payload; for a signal its one byte
  unsigned char header[kMaxHeader];  // the wire header as BuildHeaderInFive last made it
  std::size_t header_len;            // valid bytes in `header`; 0 before and after a failure

  // An empty data frame.
  JCXXFrame();

  // A signal frame holding `value`.
  explicit JCXXFrame(unsigned char value);

  // A message-header frame announcing `size` bytes. Throws std::bad_alloc when
  // `size` is above kMaxSize; then nothing is registered.
  explicit JCXXFrame(unsigned int size);

  // Copies nothing: the new frame is an empty data frame.
  JCXXFrame(JCXXFrame const& other);

  // Copies nothing, and logs.
  JCXXFrame& operator=(JCXXFrame const& other);

  ~JCXXFrame();

  // For a message header the announced size, otherwise the payload length.
  std::size_t GetSize();

  // The first payload byte, or null when there is none. Valid until the frame
  // is resized or destroyed.
  unsigned char* GetData();

  // Makes the payload `n` bytes long; bytes added are 0. Throws std::bad_alloc.
  void SetSize(std::size_t n);

  // Makes the payload a copy of the `n` bytes at `src`. Throws std::bad_alloc.
  void CopyIntoBuffer(unsigned char* src, std::size_t n);

  bool IsDataFrame();
  bool IsMsgHeaderFrame();
  bool IsSignalFrame();

  // Computes the wire header into `header` and `header_len`.
  // Result: 0; -1 and header_len 0 for a signal frame that does not hold exactly
  //         one byte.
  int BuildHeaderInFive();

  // Describes header and payload as one or two gather entries that point into
  // this frame, which must not change until they have been written.
  // `n` is the room in `piov`, at least 2 for any frame.
  // Result: 0, `used` = entries filled, `total` = bytes described; non-zero when
  //         `piov` is null, `n` is too small (neither count is touched then) or
  //         the header cannot be made (both counts are 0 then).
  int FillWriteIOVs(iovec* piov, int n, int& used, std::size_t& total);

  // Writes this frame, and changes nothing in it. Blocks until it is written.
  // Result: 0; non-zero when `psock` is null or the write failed (a part of the
  //         frame may be on the stream), -1 for a signal frame that does not hold
  //         exactly one byte (nothing is written).
  int WriteFrameToSock(JCXXSock* psock);

  // The same as WriteFrameToSock: it blocks too.
  int WriteFrameToSockNonBlocking(JCXXSock* psock);

  // Reads the next frame. Blocks until it is complete.
  // Result:    the frame, or null at the end of the stream, when the read
  //            failed, or when a frame announces more than kMaxSize bytes. The
  //            bytes already taken are gone; the stream is not resynchronised.
  // Ownership: the frame is the caller's.
  // Throws:    std::bad_alloc.
  static JCXXFrame* ReadFrameFromSock(JCXXSock* psock);

  // The same as ReadFrameFromSock: it blocks too.
  static JCXXFrame* ReadFrameFromSockNonBlocking(JCXXSock* psock);
};

#endif
