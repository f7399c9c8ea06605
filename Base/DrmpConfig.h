#pragma once

#include <cstdint>
#include <string>

namespace Lum {
namespace Drmp {

// The "drmp" section of the configuration text: whether the device takes
// part at all (only with the section, unless it says "enabled": false), how
// often the device asks
// the back end for its object list, how long it waits after a failure, the
// limits the objects must keep to and the time-outs of the calls.
//
// A text that does not parse, lacks the section or holds values of another
// kind leaves the defaults. Built once by the DRMP manager and only read
// afterwards, under the core mutex; no lock of its own.
class DrmpConfig {
 public:
  explicit DrmpConfig(const std::string& configText);

  bool getEnabled() const { return enabled_; }
  uint32_t getCheckIntervalMs() const { return checkIntervalMs_; }
  uint32_t getRetryDelayMs() const { return retryDelayMs_; }
  uint32_t getMaxRetries() const { return maxRetries_; }
  uint32_t getMaxObjectBytes() const { return maxObjectBytes_; }
  uint32_t getMaxTotalBytes() const { return maxTotalBytes_; }
  uint32_t getMaxObjects() const { return maxObjects_; }
  uint32_t getConnectTimeoutMs() const { return connectTimeoutMs_; }
  uint32_t getMessageTimeoutMs() const { return messageTimeoutMs_; }

  void logStateDebug() const;

 private:
  bool enabled_ = false;
  uint32_t checkIntervalMs_ = 24u * 60u * 60u * 1000u;  // once a day
  uint32_t retryDelayMs_ = 5u * 60u * 1000u;
  uint32_t maxRetries_ = 5;
  uint32_t maxObjectBytes_ = 4u * 1024u * 1024u;
  uint32_t maxTotalBytes_ = 16u * 1024u * 1024u;
  uint32_t maxObjects_ = 256;
  uint32_t connectTimeoutMs_ = 15000;
  uint32_t messageTimeoutMs_ = 120000;
};

}  // namespace Drmp
}  // namespace Lum
