// jcxxsock.h - byte-stream socks: the base, the pipe pair, the named FIFO.
//
// A sock has no lock: one thread at a time. It is in the registry of live socks
// from its constructor until its destructor.
//
// If somebody has made a descriptor non-blocking, reads and writes wait for it with
// poll() before they go on.
//
// The operations of the base class return 0 for success and non-zero for failure. After
// a failure an out-count is 0, even when some bytes were transferred.
#ifndef JCXXSOCK_H
#define JCXXSOCK_H

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <list>
#include <string>
#include <tuple>

#include "jactor.h"

// A read and a write descriptor, provided by the derived class, and a read-ahead
// buffer. The base class itself has no descriptor: its I/O fails.
struct JACTOR_API JCXXSock {
  unsigned char* read_buffer;      // null until the first read that needs it
  unsigned char* read_buffer_pos;  // the next unread byte while read_buffer_avail is not 0
  std::size_t read_buffer_size;    // capacity in bytes; 0 while there is no buffer
  std::size_t read_buffer_avail;   // bytes held: the next of the stream

  JCXXSock();

  // Copies nothing: the new sock has no read-ahead buffer.
  JCXXSock(JCXXSock const& other);

  // Copies nothing, and logs; the target keeps its buffer.
  JCXXSock& operator=(JCXXSock const& other);

  virtual ~JCXXSock();

  // Store the descriptor in `fd`. Result: 0; -1 and `fd` unchanged if there is none.
  virtual int GetReadFD(int& fd);
  virtual int GetWriteFD(int& fd);

  // Reads exactly `len` bytes, through the read-ahead buffer. Blocks until they
  // have arrived.
  // Result: 0 and `got` = `len`; non-zero and `got` 0 on a bad argument, a failed
  //         read or the end of the stream; then bytes already read are lost.
  // Throws: std::bad_alloc, when the buffer cannot be made.
  virtual int ReadBlocking(unsigned char* buf, std::size_t len, std::size_t& got);

  // Writes exactly `len` bytes. Blocks until they are written.
  // Result: 0 and `written` = `len`; non-zero and `written` 0 on failure; then a
  //         part may be on the stream.
  virtual int WriteBlocking(unsigned char* buf, std::size_t len, std::size_t& written);

  // Not supported: return -1 and change nothing.
  virtual int ReadNonBlocking(unsigned char* buf, std::size_t len, std::size_t& got);
  virtual int WriteNonBlocking(unsigned char* buf, std::size_t len, std::size_t& written);

  // Returns in `avail` how many bytes wait in the read descriptor. Bytes in the
  // read-ahead buffer do not count: see BufferedToRead.
  virtual int AvailableToRead(std::size_t& avail);

  // Writes the `iovcnt` buffers of `iov`, in order, as one run of bytes, with one
  // system call if the pipe takes it whole. Blocks until all is written.
  // Result:    0 and `written` = the sum of the lengths; non-zero and `written` 0
  //            on failure; then a part may be on the stream. More entries than
  //            the system's limit (1,024) fail.
  // Ownership: `iov` and what it points to stay the caller's, unmodified.
  // Throws:    std::bad_alloc after a partial write.
  virtual int WriteBlockingIOV(const iovec* iov, int iovcnt, std::size_t& written);

  // Writes the message `*msg`; on success destroys it and sets `*msg` to null.
  // Result: as JCXXMsg::WriteMessage; -1 when `msg` or `*msg` is null. On failure
  //         the message stays the caller's.
  virtual int Send(JCXXMsg** msg);

  // The same as JCXXMsg::ReadMessage of this sock.
  virtual JCXXMsg* Recv();

  // One read of at most `s` bytes: from the read-ahead buffer while it holds any,
  // otherwise from the descriptor, reading ahead when more is waiting.
  // Result: the bytes placed in `buf`; 0 for `s` 0 or at the end of the stream;
  //         negative on failure, with errno as the failed system call left it.
  // Throws: std::bad_alloc, when the buffer cannot be made.
  ssize_t ReadBlockingReadaheadBuffered(void* buf, std::size_t s);

  // Waits until Recv would not block, at most `milliseconds`; negative: without a limit; 0:
  // does not wait. The part of a message that has arrived stays in the read-ahead buffer,
  // which grows to the size of one message, at most 8 MiB.
  // Result: 1 when a whole message or signal has arrived, or the end of the stream, or bytes
  //         that are not a message, or when a read would fail; 0 when the time is up; -1
  //         without a read descriptor, or when a signal handler has run.
  // Throws: std::bad_alloc; nothing is lost.
  int WaitForMessage(int milliseconds);

  // Bytes taken from the descriptor and not yet delivered to a reader.
  std::size_t BufferedToRead();

  // Open a named endpoint: see j_pipe_new_pull and j_pipe_new_push.
  // Throw: std::bad_alloc, std::filesystem::filesystem_error, and std::system_error
  //        when the process is ending.
  static JCXXSock* NewPull(char const* name);
  static JCXXSock* NewPush(char const* name);
};

// A sock that owns two descriptors, normally of two pipes.
struct JACTOR_API SockFromPipes : JCXXSock {
  int read_fd;   // owned; negative when there is none
  int write_fd;  // owned; negative when there is none

  SockFromPipes();

  // Takes both descriptors, unexamined; either may be negative.
  SockFromPipes(int read_fd, int write_fd);

  // Copies nothing: the new sock has no descriptor.
  SockFromPipes(SockFromPipes const& other);

  // Copies nothing: closes what the target held, unless it is the source.
  SockFromPipes& operator=(SockFromPipes const& other);

  ~SockFromPipes() override;

  int GetReadFD(int& fd) override;
  int GetWriteFD(int& fd) override;

  // Makes two pipes and the two socks at their ends: what one writes, the other
  // reads. The descriptors are blocking and close-on-exec.
  // Ownership: both socks are the caller's to delete.
  // Throws:    std::bad_alloc when a pipe or a sock cannot be made; then nothing is
  //            left behind.
  static std::tuple<JCXXSock*, JCXXSock*> MakeSockPairFromPipes();
};

// A sock on a FIFO in the run directory, opened for reading and writing.
struct JACTOR_API SockFromNamedEndpoint : JCXXSock {
  int fd;  // owned; negative when there is none

  SockFromNamedEndpoint();

  // Takes the descriptor.
  explicit SockFromNamedEndpoint(int fd);

  // Copies nothing: the new sock has no descriptor.
  SockFromNamedEndpoint(SockFromNamedEndpoint const& other);

  // Copies nothing: the target forgets its descriptor without closing it, unless
  // it is the source.
  SockFromNamedEndpoint& operator=(SockFromNamedEndpoint const& other);

  // Closes the descriptor. Bytes that were read ahead are lost, with an error line
  // that says how many. Not a cancellation point.
  ~SockFromNamedEndpoint() override;

  int GetReadFD(int& fd) override;
  int GetWriteFD(int& fd) override;

  // The pieces between the commas, one more than there are commas.
  static std::list<std::string> SplitAtCommas(std::string names);

  // Splits "transport://path" at the first "://". Both parts are empty when the
  // name has no such form.
  static void SplitLikeURI(std::string& name, std::string& transport, std::string& path);

  // Opens the endpoint `name`; `pull` only affects a log line.
  // Result:    the sock, which is the caller's; null when the name is refused or
  //            the directory or the FIFO cannot be made or opened.
  // Throws:    std::bad_alloc, std::filesystem::filesystem_error, std::system_error.
  static JCXXSock* NewSockFromNamedEndpoint(char const* name, bool pull);
};

#endif
