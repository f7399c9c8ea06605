#pragma once

#include <string>

namespace Lum {
namespace Core {

// The description of the television reported to the back end: id, model,
// sub-model, brand, ESN, MAC address and software version. Each value starts
// as a "veltrane_..." placeholder, is replaced by the platform's value and
// then by the member of the device text, so a placeholder is reported only
// when neither supplies the value. An empty platform value counts as not
// supplied; a member present in the device text always wins, empty or not.
//
// Written only by the constructor and read-only afterwards, so it needs no
// mutex of its own (the core manager owns it under its mutex).
class DeviceValues {
 public:
  // `device`: the device JSON text; null counts as empty. With
  // `enableSwVersionSimulation` the software version is a simulated one: the
  // text member "swVersion" of the JSON object in the file "swVersion" under
  // `persistentPath` (a directory ending in "/" or empty), or
  // `initialSimulatedSwVersion` when that file has none.
  DeviceValues(const char* device, bool enableSwVersionSimulation,
               const std::string& initialSimulatedSwVersion, const std::string& persistentPath);

  const std::string& getId() const { return id_; }
  const std::string& getModel() const { return model_; }
  const std::string& getSubModel() const { return subModel_; }
  const std::string& getBrand() const { return brand_; }
  const std::string& getEsn() const { return esn_; }
  const std::string& getMac() const { return mac_; }
  const std::string& getSwVersion() const { return swVersion_; }

  void logStateDebug() const;

 private:
  // Product hook, run before the text is read.
  void setCustomValues();
  std::string simulatedSwVersion() const;
  void takeMembers(const char* device);

  const bool enableSwVersionSimulation_;
  const std::string initialSimulatedSwVersion_;
  const std::string persistentPath_;

  std::string id_ = "veltrane_id";
  std::string model_ = "veltrane_model";
  std::string subModel_ = "veltrane_sub_model";
  std::string brand_ = "veltrane_brand";
  std::string esn_ = "veltrane_esn";
  std::string mac_ = "veltrane_mac";
  std::string swVersion_ = "veltrane_sw_version";
};

}  // namespace Core
}  // namespace Lum
