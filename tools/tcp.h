// tcp.h - what the system knows of a TCP connection. In a file of its own, as the
// system's header for it does not go together with the one that ZeroMQ's headers have.
#ifndef JPIPE_TCP_H
#define JPIPE_TCP_H

#include <cstdint>

namespace jpipe {

// The bytes that have come on the connection `fd`; 0 when it is none.
std::uint64_t BytesReceived(int fd);

}  // namespace jpipe

#endif
