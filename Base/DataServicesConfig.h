#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace Lum {
namespace Ds {

// The "dataServices" section of the configuration text. Only the byte limit
// drives this library (it sizes the queue); the audio and video content-
// recognition settings are carried, sanity-checked and offered to the
// recognition component that lives outside the library.
//
// Nothing in the text is fatal: a text that does not parse or lacks the
// section leaves the defaults, absent keys keep theirs, values of another
// JSON type go through jsoncpp's usual conversions (one that cannot be
// converted keeps the default), and illegal sample rates and buffer counts
// are replaced and logged.
//
// Built once by the data services manager and only read afterwards; the core
// mutex guards every access, so every member below is guarded by it and the
// class has no lock of its own.
class DataServicesConfig {
 public:
  // `configText` is the whole configuration document. A null pointer is a
  // caller's programming error and throws std::logic_error.
  explicit DataServicesConfig(const char* configText);

  uint32_t getMaximumDataBytes() const;
  bool getCollectAudioAcrData() const;
  bool getUseAudioAcrSample() const;
  uint32_t getAudioAcrAudioSampleRate() const;
  uint32_t getAudioAcrAudioBufferCount() const;
  uint32_t getAudioAcrSamplePlaybackSpeed() const;
  uint32_t getAudioAcrSamplePlaybackCount() const;
  std::vector<std::string> getAudioAcrSamplePlaybackList() const;
  bool getCollectVideoAcrData() const;
  bool getUseVideoAcrSample() const;
  std::string getVideoAcrDeviceID() const;
  uint32_t getVideoAcrAlgorithm() const;
  std::string getVideoAcrFormat() const;
  std::string getVideoAcrOrigin() const;
  float getVideoAcrFramesPerSecond() const;
  uint32_t getVideoAcrVideoWidth() const;
  uint32_t getVideoAcrVideoHeight() const;
  std::vector<std::string> getVideoAcrSamplePlaybackList() const;
  uint32_t getVideoAcrSamplePlaybackSpeed() const;
  float getVideoAcrSampleSrcRate() const;
  uint32_t getVideoAcrVideoBufferCount() const;
  uint32_t getVideoAcrSamplePlaybackCount() const;

 private:
  // Runs after the defaults are set and before the text is read, so that a
  // product build can change defaults the text may still override. This
  // product changes none.
  void setCustomValues();
  void readSection(const LumJson::Value& section);
  void validate();

  uint32_t maximumDataBytes_ = 0;
  bool collectAudioAcrData_ = false;
  bool useAudioAcrSample_ = false;
  uint32_t audioAcrAudioSampleRate_ = 16000;
  uint32_t audioAcrAudioBufferCount_ = 4;
  uint32_t audioAcrSamplePlaybackSpeed_ = 1;
  uint32_t audioAcrSamplePlaybackCount_ = 1;
  std::vector<std::string> audioAcrSamplePlaybackList_;
  bool collectVideoAcrData_ = false;
  bool useVideoAcrSample_ = false;
  std::string videoAcrDeviceID_ = "veltrane_test";
  uint32_t videoAcrAlgorithm_ = 2;
  std::string videoAcrFormat_ = "rgb24";
  std::string videoAcrOrigin_ = "upper_left";
  float videoAcrFramesPerSecond_ = 2.0f;
  uint32_t videoAcrVideoWidth_ = 320;
  uint32_t videoAcrVideoHeight_ = 180;
  std::vector<std::string> videoAcrSamplePlaybackList_;
  uint32_t videoAcrSamplePlaybackSpeed_ = 1;
  float videoAcrSampleSrcRate_ = 23.976025f;
  uint32_t videoAcrVideoBufferCount_ = 4;
  uint32_t videoAcrSamplePlaybackCount_ = 1;
};

}  // namespace Ds
}  // namespace Lum
