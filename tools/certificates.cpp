// certificates.cpp - loading and checking certificates.
#include "certificates.h"

#include <cstring>
#include <memory>

#include "report.h"

namespace jpipe {
namespace {

struct DestroyCert {
  void operator()(zcert_t* certificate) const { zcert_destroy(&certificate); }
};
using Cert = std::unique_ptr<zcert_t, DestroyCert>;

Cert LoadCertificate(const std::string& file) {
  Cert certificate(zcert_load(file.c_str()));
  if (certificate == nullptr) {
    throw Failure(kFailed,
                  "cannot load the certificate " + file +
                      ": check that it exists and is readable, or make one with: jpipe keygen " +
                      file);
  }
  return certificate;
}

bool HasSecret(zcert_t* certificate) {
  static const byte kNone[32] = {};
  return std::memcmp(zcert_secret_key(certificate), kNone, sizeof kNone) != 0;
}

zactor_t* StartAuthenticator(const std::string& clients) {
  if (clients != CURVE_ALLOW_ANY && !zsys_file_exists(clients.c_str())) {
    throw Failure(kFailed, "--curve-clients " + clients +
                               ": no such directory: it has to hold the public certificates of "
                               "those who may connect");
  }
  zactor_t* authenticator = zactor_new(zauth, nullptr);
  if (authenticator == nullptr) {
    throw Failure(kFailed, "cannot start client authentication");
  }
  zstr_sendx(authenticator, "CURVE", clients.c_str(), nullptr);
  zsock_wait(authenticator);
  return authenticator;
}

}  // namespace

void CheckCertificateOptions(const Options& options, bool binds) {
  if (!options.certificate) {
    if (options.server || options.clients) {
      throw Failure(kUsage, "encryption needs this side's own certificate: add --curve-cert FILE");
    }
    return;
  }
  if (binds && (options.server || !options.clients)) {
    throw Failure(kUsage,
                  "the side that binds says who may connect: give --curve-clients DIR "
                  "(or \"*\" for anybody), and no --curve-server");
  }
  if (!binds && (options.clients || !options.server)) {
    throw Failure(kUsage,
                  "the side that connects says whom it trusts: give --curve-server FILE, "
                  "and no --curve-clients");
  }
}

zactor_t* SetCertificates(const Options& options, bool binds, zsock_t* socket) {
  if (!options.certificate) {
    return nullptr;
  }
  if (!zsys_has_curve()) {
    throw Failure(kFailed, "this ZeroMQ was built without CURVE: install one that has it");
  }
  const Cert own = LoadCertificate(*options.certificate);
  if (!HasSecret(own.get())) {
    throw Failure(kFailed, *options.certificate + " has no secret key: " + *options.certificate +
                               "_secret must be next to it");
  }
  zcert_apply(own.get(), socket);
  if (!binds) {
    const Cert server = LoadCertificate(*options.server);
    zsock_set_curve_serverkey(socket, zcert_public_txt(server.get()));
    return nullptr;
  }
  zactor_t* authenticator = StartAuthenticator(*options.clients);
  zsock_set_zap_domain(socket, "jpipe");
  zsock_set_curve_server(socket, 1);
  return authenticator;
}

}  // namespace jpipe
