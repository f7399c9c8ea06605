#pragma once

#include <cstdint>
#include <string>

namespace Lum {
namespace Su {

// The software update settings, from the "softwareUpdate" section of the
// configuration text: where the payload is assembled and the largest block
// asked for in one request.
class SoftwareUpdateConfig {
 public:
  // Never throws: an unusable text or section leaves the defaults.
  explicit SoftwareUpdateConfig(const std::string& configText);

  // Absolute: a relative location is taken from the working directory.
  const std::string& getStagingLocation() const { return stagingLocation_; }
  // 0: the update's own block size applies.
  uint32_t getMaxBlockSizeBytes() const { return maxBlockSizeBytes_; }

 private:
  // Product builds set their own defaults here before the text is read.
  void setCustomValues();
  void normalizeStagingLocation();

  std::string stagingLocation_ = "/tmp/staging.raw";
  uint32_t maxBlockSizeBytes_ = 0;
};

}  // namespace Su
}  // namespace Lum
