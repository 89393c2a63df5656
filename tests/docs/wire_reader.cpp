// wire_reader.cpp - receives messages from standard input, a pipe, until a
// receive returns nothing; tells what came, a line a message, and how many bytes
// stay behind. Each message is sent on to standard error.
#include <unistd.h>

#include <cstdio>
#include <list>

#include "jactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"

namespace {

// "ab" for the bytes a and b; long runs of one byte as "x"*4096.
void PrintFrame(JCXXFrame* frame) {
  const std::size_t size = frame->GetSize();
  if (size > 16) {
    std::printf(" \"%c\"*%zu", *frame->GetData(), size);
  } else {
    std::printf(" \"%.*s\"", static_cast<int>(size),
                size == 0 ? "" : reinterpret_cast<const char*>(frame->GetData()));
  }
}

void Print(JCXXMsg* msg) {
  if (msg->IsSignalMsg()) {
    std::printf("signal %d\n", msg->GetSignalValue());
    return;
  }
  std::printf("message");
  for (JCXXFrame* frame : msg->GetFrameList()) {
    PrintFrame(frame);
  }
  std::printf("\n");
}

}  // namespace

int main() {
  JCXXSock* in = new SockFromPipes(::dup(STDIN_FILENO), -1);
  JCXXSock* out = new SockFromPipes(-1, ::dup(STDERR_FILENO));
  while (JCXXMsg* msg = j_msg_recv(in)) {
    Print(msg);
    if (j_msg_send(&msg, out) != 0) {
      return 1;
    }
  }
  std::size_t behind = j_sock_buffered(in);
  char byte;
  while (::read(STDIN_FILENO, &byte, 1) == 1) {
    ++behind;
  }
  std::printf("null, %zu bytes behind\n", behind);
  j_sock_destroy(&in);
  j_sock_destroy(&out);
  return 0;
}
