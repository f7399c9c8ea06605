#include "HttpTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace LumHttpTest {

namespace {

struct Material {
  Lum::Tools::TestPki pki;
  Lum::Tools::DeviceIdentity device;
};

const Material& Shared() {
  static Material material;
  static std::once_flag once;
  std::call_once(once, [] {
    // A proxy from the environment would take the loopback traffic elsewhere.
    // As in the host process, a write to a connection the peer already closed
    // must not kill the process (libcurl is told not to touch signals).
    setenv("no_proxy", "*", 1);
    setenv("NO_PROXY", "*", 1);
    signal(SIGPIPE, SIG_IGN);
    std::string error;
    const std::string name = Lum::Tools::TestPki::DeviceCommonName("OPID", 0);
    if (!material.pki.generate(&error) ||
        !material.pki.issueDevice(name, &material.device, Lum::Tools::TestPki::kDefaultPassPhrase,
                                  Lum::Tools::KeyType::Rsa2048, &error)) {
      ADD_FAILURE() << "test PKI: " << error;
    }
  });
  return material;
}

}  // namespace

const Lum::Tools::TestPki& Pki() {
  return Shared().pki;
}
const Lum::Tools::DeviceIdentity& Device() {
  return Shared().device;
}

std::unique_ptr<Lum::Tools::Backend> StartBackend(Lum::Tools::BackendOptions options) {
  auto backend = std::make_unique<Lum::Tools::Backend>(Pki(), std::move(options));
  std::string error;
  if (!backend->start(&error)) {
    ADD_FAILURE() << "back end did not start: " << error;
    return nullptr;
  }
  return backend;
}

Lum::Core::Http::Request DeviceRequest(Lum::Core::Http::Verb verb, const std::string& url) {
  Lum::Core::Http::Request request;
  request.verb = verb;
  request.clientCertificate = Device().certPem.c_str();
  request.clientKey = Device().keyPem.c_str();
  request.caCertificates = Pki().caCertPem().c_str();
  request.url = url;
  request.connectTimeout = 5000;
  request.messageTimeout = 20000;
  return request;
}

std::chrono::steady_clock::duration PerformCancelled(Lum::Core::Http::Request& request,
                                                     Lum::Core::Http::Response& response,
                                                     const std::function<bool()>& underWay) {
  std::atomic<bool> cancel{false};
  request.cancel = &cancel;
  std::thread canceller([&] {
    EXPECT_TRUE(underWay());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    cancel = true;
  });
  const auto start = std::chrono::steady_clock::now();
  Lum::Core::Http::Perform(request, response);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  canceller.join();
  request.cancel = nullptr;
  return elapsed;
}

}  // namespace LumHttpTest
