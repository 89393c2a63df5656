// keygen.cpp - jpipe keygen: a certificate for export and import.
#include <czmq.h>
#include <unistd.h>

#include "commands.h"
#include "report.h"

namespace jpipe {

int MakeCertificate(const Options& options) {
  const std::string& file = options.operands[0];
  const std::string secret = file + "_secret";
  for (const std::string& name : {file, secret}) {
    if (::access(name.c_str(), F_OK) == 0) {
      throw Failure(kFailed, name + " already exists: remove it first, or choose another name");
    }
  }
  if (!zsys_has_curve()) {
    throw Failure(kFailed, "this ZeroMQ was built without CURVE: install one that has it");
  }
  zsys_handler_set(nullptr);  // the signals are jpipe's own
  zcert_t* certificate = zcert_new();
  const bool saved = certificate != nullptr && zcert_save(certificate, file.c_str()) == 0;
  zcert_destroy(&certificate);
  if (!saved) {
    throw Failure(kFailed, "cannot write " + file + " and " + secret +
                               ": check that the directory exists and is writable");
  }
  return kDone;
}

}  // namespace jpipe
