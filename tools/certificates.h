// certificates.h - the CURVE certificates of a bridge.
#ifndef JPIPE_CERTIFICATES_H
#define JPIPE_CERTIFICATES_H

#include <czmq.h>

#include "options.h"

namespace jpipe {

// Fails with kUsage when the certificate options do not fit together, for the side that
// binds or the one that connects.
void CheckCertificateOptions(const Options& options, bool binds);

// Sets up encryption on `socket` as the options say, before it is bound or connected.
// Result: for a side that binds, the actor that decides who may connect, which the caller
// destroys after the socket; nullptr otherwise. Fails when a certificate cannot be used.
zactor_t* SetCertificates(const Options& options, bool binds, zsock_t* socket);

}  // namespace jpipe

#endif
