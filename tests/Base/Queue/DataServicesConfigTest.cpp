#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Base/DataServicesConfig.h"
#include "Platform/JsonUtil.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Ds::DataServicesConfig;
using Strings = std::vector<std::string>;

// The keys in the order of the getters in Snapshot.
Strings Keys() {
  std::istringstream in(
      "maximumDataBytes collectAudioAcrData useAudioAcrSample audioAcrAudioSampleRate "
      "audioAcrAudioBufferCount audioAcrSamplePlaybackSpeed audioAcrSamplePlaybackCount "
      "audioAcrSamplePlaybackList collectVideoAcrData useVideoAcrSample videoAcrDeviceID "
      "videoAcrAlgorithm videoAcrFormat videoAcrOrigin videoAcrFramesPerSecond videoAcrVideoWidth "
      "videoAcrVideoHeight videoAcrSamplePlaybackList videoAcrSamplePlaybackSpeed "
      "videoAcrSampleSrcRate videoAcrVideoBufferCount videoAcrSamplePlaybackCount");
  return {std::istream_iterator<std::string>(in), {}};
}

LumJson::Value Json(const Strings& list) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& element : list) array.append(element);
  return array;
}
template <typename T>
LumJson::Value Json(const T& value) {
  return LumJson::Value(value);
}

// Every getter's value, in the order of Keys(), as a JSON array.
LumJson::Value Snapshot(const std::string& text) {
  const DataServicesConfig c(text.c_str());
  auto array = [](const auto&... values) {
    LumJson::Value array(LumJson::arrayValue);
    (array.append(Json(values)), ...);
    return array;
  };
  return array(c.getMaximumDataBytes(), c.getCollectAudioAcrData(), c.getUseAudioAcrSample(),
               c.getAudioAcrAudioSampleRate(), c.getAudioAcrAudioBufferCount(),
               c.getAudioAcrSamplePlaybackSpeed(), c.getAudioAcrSamplePlaybackCount(),
               c.getAudioAcrSamplePlaybackList(), c.getCollectVideoAcrData(),
               c.getUseVideoAcrSample(), c.getVideoAcrDeviceID(), c.getVideoAcrAlgorithm(),
               c.getVideoAcrFormat(), c.getVideoAcrOrigin(), c.getVideoAcrFramesPerSecond(),
               c.getVideoAcrVideoWidth(), c.getVideoAcrVideoHeight(),
               c.getVideoAcrSamplePlaybackList(), c.getVideoAcrSamplePlaybackSpeed(),
               c.getVideoAcrSampleSrcRate(), c.getVideoAcrVideoBufferCount(),
               c.getVideoAcrSamplePlaybackCount());
}

// A section holding only `key`: `given` must come back as `kept` from the
// key's own getter, and every other getter must give its default.
void ExpectRead(const std::string& key, const LumJson::Value& given, const LumJson::Value& kept) {
  const Strings keys = Keys();
  LumJson::Value expected = Snapshot("{}");
  expected[LumJson::ArrayIndex(std::find(keys.begin(), keys.end(), key) - keys.begin())] = kept;
  EXPECT_EQ(JsonUtil::WriteCompact(expected),
            JsonUtil::WriteCompact(Snapshot(R"({"dataServices":{")" + key +
                                            "\":" + JsonUtil::WriteCompact(given) + "}}")));
}

TEST(DataServicesConfig, TextsWithoutAUsableSectionGiveTheDefaultsSilently) {
  for (const char* text : {"", "not json", "{}", "[1]", R"({"core":{"maximumDataBytes":9}})",
                           R"({"dataServices":5})", R"({"dataServices":{}} tail)"}) {
    SCOPED_TRACE(text);
    LumTest::LogCapture log("info");
    EXPECT_EQ(JsonUtil::WriteCompact(Snapshot("{}")), JsonUtil::WriteCompact(Snapshot(text)));
    EXPECT_EQ("", log.text());
  }
  EXPECT_THROW(DataServicesConfig(nullptr), std::logic_error);
}

// Each key alone, set to a value of its type that no default and no other key
// holds: exactly its own getter must change.
TEST(DataServicesConfig, EveryKeyReachesOnlyItsOwnGetter) {
  const LumJson::Value defaults = Snapshot("{}");
  const Strings keys = Keys();
  ASSERT_EQ(keys.size(), defaults.size());
  for (LumJson::ArrayIndex i = 0; i < defaults.size(); ++i) {
    SCOPED_TRACE(keys[i]);
    LumJson::Value value = keys[i] == "audioAcrAudioSampleRate" ? 44100 : 100 + i;
    if (defaults[i].isBool()) value = true;
    if (defaults[i].isString()) value = keys[i];
    if (defaults[i].isArray()) value = Json(Strings{keys[i]});
    if (defaults[i].type() == LumJson::realValue) value = i + 0.5;
    ExpectRead(keys[i], value, value);
  }
  // What cannot be converted keeps the default; a list keeps only its texts.
  const DataServicesConfig c(
      R"({"dataServices":{"videoAcrVideoWidth":"wide","videoAcrSamplePlaybackList":["a",5,"b"]}})");
  EXPECT_EQ(320u, c.getVideoAcrVideoWidth());
  EXPECT_EQ((Strings{"a", "b"}), c.getVideoAcrSamplePlaybackList());
}

TEST(DataServicesConfig, IllegalRatesAndBufferCountsAreReplacedAndLogged) {
  const struct {
    const char* key;
    unsigned given, kept;
    const char* line;  // empty when the value is legal
  } cases[] = {
      {"audioAcrAudioSampleRate", 48000, 16000,
       "ACR Audio Sample Rate set to illegal value of 48000, defaulting to 16000"},
      {"audioAcrAudioSampleRate", 44100, 44100, ""},
      {"audioAcrAudioBufferCount", 1, 4,
       "ACR Audio Buffer Count set to illegal value of 1, defaulting to 4"},
      {"audioAcrAudioBufferCount", 2, 2, ""},
      {"videoAcrVideoBufferCount", 0, 4,
       "ACR Video Buffer Count set to illegal value of 0, defaulting to 4"},
      {"videoAcrVideoBufferCount", 2, 2, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + std::to_string(c.given));
    LumTest::LogCapture log("info");
    ExpectRead(c.key, c.given, c.kept);
    EXPECT_EQ(*c.line ? Strings{c.line} : Strings{}, log.messages());
  }
}

}  // namespace
