// wire_reader.cpp - receives messages from standard input, a pipe, until a
// receive returns nothing; prints what came, a line a message, and how many bytes
// stay behind. Each message is sent on to standard error.
#include <unistd.h>

#include <iostream>
#include <list>
#include <string_view>

#include "jactor.h"
#include "jcxxframe.h"
#include "jcxxmsg.h"
#include "jcxxsock.h"

namespace {

// "ab" for the bytes a and b; long runs of one byte as "x"*4096.
void Print(JCXXFrame& frame) {
  const std::string_view text(reinterpret_cast<char*>(frame.GetData()), frame.GetSize());
  std::cout << " \"" << text.substr(0, text.size() > 16 ? 1 : 16) << '"';
  if (text.size() > 16) {
    std::cout << '*' << text.size();
  }
}

}  // namespace

int main() {
  SockFromPipes in(::dup(STDIN_FILENO), -1);
  SockFromPipes out(-1, ::dup(STDERR_FILENO));
  while (JCXXMsg* msg = j_msg_recv(&in)) {
    const int signal = j_msg_signal(msg);
    std::cout << (signal < 0 ? "message" : "signal " + std::to_string(signal));
    for (JCXXFrame* frame : msg->GetFrameList()) {
      Print(*frame);
    }
    std::cout << '\n';
    if (j_msg_send(&msg, &out) != 0) {
      return 1;
    }
  }
  std::size_t behind = j_sock_buffered(&in);
  for (char byte; ::read(STDIN_FILENO, &byte, 1) == 1;) {
    ++behind;
  }
  std::cout << "null, " << behind << " bytes behind\n";
}
