#include "Base/DataServicesConfig.h"

#include <stdexcept>

#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/DataServicesConfig");

namespace Lum {
namespace Ds {

namespace {

using FP = Core::FilterProperties;

constexpr uint32_t kDefaultAudioSampleRate = 16000;
constexpr uint32_t kAlternateAudioSampleRate = 44100;
constexpr uint32_t kMinimumBufferCount = 2;
constexpr uint32_t kDefaultBufferCount = 4;

const LumJson::Value* Member(const LumJson::Value& section, const char* key) {
  return section.find(key, key + std::char_traits<char>::length(key));
}

// Each reader converts a present value the way jsoncpp's as...() would, but
// asks first whether the conversion is possible: as...() throws on a value it
// cannot convert (a string read as a number), and a configuration must not
// be able to throw out of the constructor.
uint32_t ReadUnsigned(const LumJson::Value& section, const char* key, uint32_t fallback) {
  const LumJson::Value* value = Member(section, key);
  return value != nullptr && value->isConvertibleTo(LumJson::uintValue) ? value->asUInt()
                                                                        : fallback;
}

bool ReadBool(const LumJson::Value& section, const char* key, bool fallback) {
  const LumJson::Value* value = Member(section, key);
  return value != nullptr && value->isConvertibleTo(LumJson::booleanValue) ? value->asBool()
                                                                           : fallback;
}

float ReadFloat(const LumJson::Value& section, const char* key, float fallback) {
  const LumJson::Value* value = Member(section, key);
  return value != nullptr && value->isConvertibleTo(LumJson::realValue) ? value->asFloat()
                                                                        : fallback;
}

std::string ReadText(const LumJson::Value& section, const char* key, const std::string& fallback) {
  const LumJson::Value* value = Member(section, key);
  return value != nullptr && value->isConvertibleTo(LumJson::stringValue) ? value->asString()
                                                                          : fallback;
}

// The string elements of an array in their order; other elements are
// skipped. A value that is not an array leaves the list as it was.
std::vector<std::string> ReadTextList(const LumJson::Value& section, const char* key,
                                      const std::vector<std::string>& fallback) {
  const LumJson::Value* value = Member(section, key);
  if (value == nullptr || !value->isArray()) {
    return fallback;
  }
  std::vector<std::string> list;
  for (const LumJson::Value& element : *value) {
    if (element.isString()) {
      list.push_back(element.asString());
    }
  }
  return list;
}

}  // namespace

DataServicesConfig::DataServicesConfig(const char* configText) {
  LUM_TRACE(FP::SERVICE_DS);
  if (configText == nullptr) {
    throw std::logic_error("DataServicesConfig built from a null configuration text");
  }
  setCustomValues();
  LumJson::Value root;
  if (Core::JsonUtil::ParseStrict(configText, root) && root.isObject()) {
    const LumJson::Value* section = Member(root, "dataServices");
    // A section of another type is as good as none: reading keys from it
    // would make jsoncpp throw.
    if (section != nullptr && section->isObject()) {
      readSection(*section);
    }
  }
  validate();
}

void DataServicesConfig::setCustomValues() {}

void DataServicesConfig::readSection(const LumJson::Value& s) {
  maximumDataBytes_ = ReadUnsigned(s, "maximumDataBytes", maximumDataBytes_);
  collectAudioAcrData_ = ReadBool(s, "collectAudioAcrData", collectAudioAcrData_);
  useAudioAcrSample_ = ReadBool(s, "useAudioAcrSample", useAudioAcrSample_);
  audioAcrAudioSampleRate_ = ReadUnsigned(s, "audioAcrAudioSampleRate", audioAcrAudioSampleRate_);
  audioAcrAudioBufferCount_ =
      ReadUnsigned(s, "audioAcrAudioBufferCount", audioAcrAudioBufferCount_);
  audioAcrSamplePlaybackSpeed_ =
      ReadUnsigned(s, "audioAcrSamplePlaybackSpeed", audioAcrSamplePlaybackSpeed_);
  audioAcrSamplePlaybackCount_ =
      ReadUnsigned(s, "audioAcrSamplePlaybackCount", audioAcrSamplePlaybackCount_);
  audioAcrSamplePlaybackList_ =
      ReadTextList(s, "audioAcrSamplePlaybackList", audioAcrSamplePlaybackList_);
  collectVideoAcrData_ = ReadBool(s, "collectVideoAcrData", collectVideoAcrData_);
  useVideoAcrSample_ = ReadBool(s, "useVideoAcrSample", useVideoAcrSample_);
  videoAcrDeviceID_ = ReadText(s, "videoAcrDeviceID", videoAcrDeviceID_);
  videoAcrAlgorithm_ = ReadUnsigned(s, "videoAcrAlgorithm", videoAcrAlgorithm_);
  videoAcrFormat_ = ReadText(s, "videoAcrFormat", videoAcrFormat_);
  videoAcrOrigin_ = ReadText(s, "videoAcrOrigin", videoAcrOrigin_);
  videoAcrFramesPerSecond_ = ReadFloat(s, "videoAcrFramesPerSecond", videoAcrFramesPerSecond_);
  videoAcrVideoWidth_ = ReadUnsigned(s, "videoAcrVideoWidth", videoAcrVideoWidth_);
  videoAcrVideoHeight_ = ReadUnsigned(s, "videoAcrVideoHeight", videoAcrVideoHeight_);
  videoAcrSamplePlaybackList_ =
      ReadTextList(s, "videoAcrSamplePlaybackList", videoAcrSamplePlaybackList_);
  videoAcrSamplePlaybackSpeed_ =
      ReadUnsigned(s, "videoAcrSamplePlaybackSpeed", videoAcrSamplePlaybackSpeed_);
  videoAcrSampleSrcRate_ = ReadFloat(s, "videoAcrSampleSrcRate", videoAcrSampleSrcRate_);
  videoAcrVideoBufferCount_ =
      ReadUnsigned(s, "videoAcrVideoBufferCount", videoAcrVideoBufferCount_);
  videoAcrSamplePlaybackCount_ =
      ReadUnsigned(s, "videoAcrSamplePlaybackCount", videoAcrSamplePlaybackCount_);
}

// The capture pipelines only support these rates and need at least double
// buffering; anything else would fail far from its cause, so it is replaced
// here where the log line can name the key.
void DataServicesConfig::validate() {
  if (audioAcrAudioSampleRate_ != kDefaultAudioSampleRate &&
      audioAcrAudioSampleRate_ != kAlternateAudioSampleRate) {
    LUM_LOG(FP::SERVICE_DS, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "ACR Audio Sample Rate set to illegal value of %u, defaulting to %u",
            audioAcrAudioSampleRate_, kDefaultAudioSampleRate);
    audioAcrAudioSampleRate_ = kDefaultAudioSampleRate;
  }
  if (audioAcrAudioBufferCount_ < kMinimumBufferCount) {
    LUM_LOG(FP::SERVICE_DS, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "ACR Audio Buffer Count set to illegal value of %u, defaulting to %u",
            audioAcrAudioBufferCount_, kDefaultBufferCount);
    audioAcrAudioBufferCount_ = kDefaultBufferCount;
  }
  if (videoAcrVideoBufferCount_ < kMinimumBufferCount) {
    LUM_LOG(FP::SERVICE_DS, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "ACR Video Buffer Count set to illegal value of %u, defaulting to %u",
            videoAcrVideoBufferCount_, kDefaultBufferCount);
    videoAcrVideoBufferCount_ = kDefaultBufferCount;
  }
}

uint32_t DataServicesConfig::getMaximumDataBytes() const {
  LUM_TRACE(FP::SERVICE_DS);
  return maximumDataBytes_;
}

bool DataServicesConfig::getCollectAudioAcrData() const {
  LUM_TRACE(FP::SERVICE_DS);
  return collectAudioAcrData_;
}

bool DataServicesConfig::getUseAudioAcrSample() const {
  LUM_TRACE(FP::SERVICE_DS);
  return useAudioAcrSample_;
}

uint32_t DataServicesConfig::getAudioAcrAudioSampleRate() const {
  LUM_TRACE(FP::SERVICE_DS);
  return audioAcrAudioSampleRate_;
}

uint32_t DataServicesConfig::getAudioAcrAudioBufferCount() const {
  LUM_TRACE(FP::SERVICE_DS);
  return audioAcrAudioBufferCount_;
}

uint32_t DataServicesConfig::getAudioAcrSamplePlaybackSpeed() const {
  LUM_TRACE(FP::SERVICE_DS);
  return audioAcrSamplePlaybackSpeed_;
}

uint32_t DataServicesConfig::getAudioAcrSamplePlaybackCount() const {
  LUM_TRACE(FP::SERVICE_DS);
  return audioAcrSamplePlaybackCount_;
}

std::vector<std::string> DataServicesConfig::getAudioAcrSamplePlaybackList() const {
  LUM_TRACE(FP::SERVICE_DS);
  return audioAcrSamplePlaybackList_;
}

bool DataServicesConfig::getCollectVideoAcrData() const {
  LUM_TRACE(FP::SERVICE_DS);
  return collectVideoAcrData_;
}

bool DataServicesConfig::getUseVideoAcrSample() const {
  LUM_TRACE(FP::SERVICE_DS);
  return useVideoAcrSample_;
}

std::string DataServicesConfig::getVideoAcrDeviceID() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrDeviceID_;
}

uint32_t DataServicesConfig::getVideoAcrAlgorithm() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrAlgorithm_;
}

std::string DataServicesConfig::getVideoAcrFormat() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrFormat_;
}

std::string DataServicesConfig::getVideoAcrOrigin() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrOrigin_;
}

float DataServicesConfig::getVideoAcrFramesPerSecond() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrFramesPerSecond_;
}

uint32_t DataServicesConfig::getVideoAcrVideoWidth() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrVideoWidth_;
}

uint32_t DataServicesConfig::getVideoAcrVideoHeight() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrVideoHeight_;
}

std::vector<std::string> DataServicesConfig::getVideoAcrSamplePlaybackList() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrSamplePlaybackList_;
}

uint32_t DataServicesConfig::getVideoAcrSamplePlaybackSpeed() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrSamplePlaybackSpeed_;
}

float DataServicesConfig::getVideoAcrSampleSrcRate() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrSampleSrcRate_;
}

uint32_t DataServicesConfig::getVideoAcrVideoBufferCount() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrVideoBufferCount_;
}

uint32_t DataServicesConfig::getVideoAcrSamplePlaybackCount() const {
  LUM_TRACE(FP::SERVICE_DS);
  return videoAcrSamplePlaybackCount_;
}

}  // namespace Ds
}  // namespace Lum
