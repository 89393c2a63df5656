// reader_fuzz.cpp - arbitrary bytes: the reader must return the same messages and refusals
// as the model.
#include "require.h"
#include "support.h"
#include "sweep/wire_model.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  support::KeepLog(0);
  wire::StringSock sock;
  sock.stream.assign(data, data + size);
  Require(wire::SameVerdicts(sock));
  return 0;
}
