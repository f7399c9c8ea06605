// lum-pki: writes a throwaway PKI for running the agent against the local
// back end by hand, e.g.
//   lum-pki /tmp/pki --opid LUMDEV01 --port 8443
//   lum-backend --pki /tmp/pki --port 8443
#include <cstdlib>
#include <iostream>
#include <string>

#include "tools/pki/TestPki.h"

namespace {

int Usage() {
  std::cerr << "usage: lum-pki DIR --opid OPID --port PORT [--pass PHRASE]\n"
               "Writes the CAs, server certificates, OCSP responses and a device\n"
               "whose common name is OPID.lum.localhost:PORT into DIR.\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  std::string opid;
  std::string pass = Lum::Tools::TestPki::kDefaultPassPhrase;
  int port = 0;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--opid" && hasValue) {
      opid = argv[++i];
    } else if (arg == "--port" && hasValue) {
      port = std::atoi(argv[++i]);
    } else if (arg == "--pass" && hasValue) {
      pass = argv[++i];
    } else if (dir.empty() && !arg.empty() && arg[0] != '-') {
      dir = arg;
    } else {
      return Usage();
    }
  }
  if (dir.empty() || opid.empty() || port <= 0 || port > 65535) {
    return Usage();
  }
  Lum::Tools::TestPki pki;
  Lum::Tools::DeviceIdentity device;
  std::string error;
  if (!pki.generate(&error) ||
      !pki.issueDevice(Lum::Tools::TestPki::DeviceCommonName(opid, port), &device, pass,
                       Lum::Tools::KeyType::Rsa2048, &error) ||
      !pki.writeTo(dir, &device, &error)) {
    std::cerr << "lum-pki: " << error << "\n";
    return 1;
  }
  std::cout << "wrote the test PKI to " << dir << " for device " << device.commonName << "\n";
  return 0;
}
