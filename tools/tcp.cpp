// tcp.cpp - asking the system about a TCP connection.
#include "tcp.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace jpipe {

std::uint64_t BytesReceived(int fd) {
  tcp_info info = {};
  socklen_t size = sizeof info;
  return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_received : 0;
}

}  // namespace jpipe
