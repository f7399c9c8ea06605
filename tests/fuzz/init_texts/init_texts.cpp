// The three texts the host hands to LumInit (identity, configuration,
// device), through the classes the core manager builds from them at start
// and those each manager builds from the configuration, without starting
// the agent's threads.
//
// Input: the three texts separated by NUL bytes, identity first; missing
// texts are empty (the host hands C strings, so a text never holds a NUL).
// Properties: the values taken stay within the limits the agent enforces
// (DRMP delays and sizes, capture rates and buffer counts, absolute
// directories), the device description the state takes is the device
// text's, and scripted answers (injectors) are never empty.
#include <cstdint>
#include <string>

#include "Base/CoreConfig.h"
#include "Base/DataServicesConfig.h"
#include "Base/DeviceValues.h"
#include "Base/DrmpConfig.h"
#include "Base/Injector.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Base/SoftwareUpdateConfig.h"
#include "Base/SupportViewConfig.h"
#include "Platform/Logger.h"
#include "fuzz/FuzzSupport.h"

using LumFuzz::Fail;

namespace {

bool IsDirectoryPath(const std::string& path) {
  return path.empty() || (path.front() == '/' && path.back() == '/');
}

void CheckDrmp(const std::string& config) {
  const Lum::Drmp::DrmpConfig drmp(config);
  if (drmp.getCheckIntervalMs() < 1000 || drmp.getRetryDelayMs() < 1000) {
    Fail("drmp: a delay below one second was taken");
  }
  if (drmp.getMaxObjectBytes() > 64u * 1024u * 1024u || drmp.getMaxObjects() > 4096) {
    Fail("drmp: a limit above the hard maximum was taken");
  }
}

void CheckDataServices(const std::string& config) {
  const Lum::Ds::DataServicesConfig ds(config.c_str());
  const uint32_t rate = ds.getAudioAcrAudioSampleRate();
  if (rate != 16000 && rate != 44100) {
    Fail("dataServices: an unsupported sample rate was taken");
  }
  if (ds.getAudioAcrAudioBufferCount() < 2 || ds.getVideoAcrVideoBufferCount() < 2) {
    Fail("dataServices: fewer than two capture buffers were taken");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LumFuzz::FixedClock::Install();
  // An empty logger configuration first: the logger takes only the first
  // one, so a fuzzed "loggers" array can neither write files nor slow the
  // run down with output.
  Lum::Core::Logger::Instance().initialize(LumJson::Value(LumJson::arrayValue));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string texts[3];
  const std::string input(reinterpret_cast<const char*>(data), size);
  size_t start = 0;
  for (std::string& text : texts) {
    if (start > input.size()) {
      break;
    }
    size_t end = input.find('\0', start);
    if (end == std::string::npos) {
      end = input.size();
    }
    text = input.substr(start, end - start);
    start = end + 1;
  }
  const std::string& identityText = texts[0];
  const std::string& configText = texts[1];
  const std::string& deviceText = texts[2];

  {
    const Lum::Core::CoreConfig config(configText.c_str());
    if (!IsDirectoryPath(config.getPersistentPath()) ||
        !IsDirectoryPath(config.getTemporaryPath())) {
      Fail("core: a directory that is not absolute with a trailing '/' was taken");
    }
    const Lum::Core::ProductIdentity identity(identityText.c_str());
    const Lum::Core::DeviceValues device(deviceText.c_str(), config.getEnableSwVersionSimulation(),
                                         config.getInitialSimulatedSwVersion(),
                                         config.getPersistentPath());
    const Lum::Core::PersistentValues persistent(identity, config, device);
    if (persistent.getDeviceId() != device.getId() ||
        persistent.getDeviceModel() != device.getModel() ||
        persistent.getDeviceSwVersion() != device.getSwVersion() ||
        persistent.getDeviceMac() != device.getMac()) {
      Fail("core: the state does not hold the device's description");
    }
  }
  for (const auto& entry : Lum::Core::Injector::Instance().entries()) {
    if (entry.responses.empty()) {
      Fail("injectors: an entry without answers was taken");
    }
  }
  Lum::Core::Injector::Instance().terminate();

  CheckDataServices(configText);
  CheckDrmp(configText);
  const Lum::Sv::SupportViewConfig supportView(configText);
  const Lum::Su::SoftwareUpdateConfig update(configText);
  if (update.getStagingLocation().empty() || update.getStagingLocation().front() != '/') {
    Fail("softwareUpdate: a staging location that is not absolute was taken");
  }
  return 0;
}
