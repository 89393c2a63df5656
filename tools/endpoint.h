// endpoint.h - endpoint names and their FIFOs.
#ifndef JPIPE_ENDPOINT_H
#define JPIPE_ENDPOINT_H

#include <cstddef>
#include <string>

#include "descriptor.h"

namespace jpipe {

constexpr const char* kRunDirectory = "/var/run/jactor";

// The FIFO of an endpoint. Fails with kUsage when `endpoint` is not a name that
// the library accepts.
std::string FifoPath(const std::string& endpoint);

// The endpoint of a FIFO's file name, as far as it can be told: where the name
// had "/" or "\" it now has "_". Empty when it is not the FIFO of an endpoint.
std::string EndpointOfFifo(const std::string& file_name);

// Opens a FIFO only to look at it: for reading only and non-blocking, which tells it apart
// from the endpoint's users. Result: no descriptor, and errno, on failure; EINVAL when it
// is not a FIFO.
Descriptor OpenToLook(const std::string& fifo);

// The reason to report when OpenToLook has just failed.
std::string WhyNoLook(const std::string& fifo);

// The bytes that wait in the FIFO.
std::size_t BytesWaiting(int fd);

}  // namespace jpipe

#endif
