#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Platform/Http.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace LumHttpTest {

// One PKI and one device for the whole test binary: generating RSA keys per
// test would dominate the run time.
const Lum::Tools::TestPki& Pki();
const Lum::Tools::DeviceIdentity& Device();

// A started local back end on an ephemeral loopback port; null (with a test
// failure recorded) when it cannot start.
std::unique_ptr<Lum::Tools::Backend> StartBackend(
    Lum::Tools::BackendOptions options = Lum::Tools::BackendOptions());

// A request carrying the device's credentials (plain key) and time-outs
// short enough for tests, long enough for a loaded sanitizer build.
Lum::Core::Http::Request DeviceRequest(Lum::Core::Http::Verb verb, const std::string& url);

// Performs `request`, setting its cancel flag from another thread once
// `underWay` holds (then 200 ms later); returns how long Perform took.
std::chrono::steady_clock::duration PerformCancelled(Lum::Core::Http::Request& request,
                                                     Lum::Core::Http::Response& response,
                                                     const std::function<bool()>& underWay);

}  // namespace LumHttpTest
