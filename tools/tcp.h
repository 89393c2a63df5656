// tcp.h - what the system knows about a TCP connection. In a separate file, since the
// system's header for it conflicts with the one that ZeroMQ's headers include.
#ifndef JPIPE_TCP_H
#define JPIPE_TCP_H

#include <cstdint>

namespace jpipe {

// The bytes that have arrived on the connection `fd`; 0 when it is not a TCP connection.
std::uint64_t BytesReceived(int fd);

}  // namespace jpipe

#endif
