#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "Base/DataServicesConfig.h"
#include "Platform/JsonUtil.h"
#include "support/LogCapture.h"

namespace {

using Lum::Ds::DataServicesConfig;

std::string Float(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.8g", value);
  return text;
}

LumJson::Value List(const std::vector<std::string>& list) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& element : list) {
    array.append(element);
  }
  return array;
}

// Every getter under its key, floats as text so that a float default
// compares with its decimal spelling.
std::string Snapshot(const DataServicesConfig& c) {
  LumJson::Value s;
  s["maximumDataBytes"] = c.getMaximumDataBytes();
  s["collectAudioAcrData"] = c.getCollectAudioAcrData();
  s["useAudioAcrSample"] = c.getUseAudioAcrSample();
  s["audioAcrAudioSampleRate"] = c.getAudioAcrAudioSampleRate();
  s["audioAcrAudioBufferCount"] = c.getAudioAcrAudioBufferCount();
  s["audioAcrSamplePlaybackSpeed"] = c.getAudioAcrSamplePlaybackSpeed();
  s["audioAcrSamplePlaybackCount"] = c.getAudioAcrSamplePlaybackCount();
  s["audioAcrSamplePlaybackList"] = List(c.getAudioAcrSamplePlaybackList());
  s["collectVideoAcrData"] = c.getCollectVideoAcrData();
  s["useVideoAcrSample"] = c.getUseVideoAcrSample();
  s["videoAcrDeviceID"] = c.getVideoAcrDeviceID();
  s["videoAcrAlgorithm"] = c.getVideoAcrAlgorithm();
  s["videoAcrFormat"] = c.getVideoAcrFormat();
  s["videoAcrOrigin"] = c.getVideoAcrOrigin();
  s["videoAcrFramesPerSecond"] = Float(c.getVideoAcrFramesPerSecond());
  s["videoAcrVideoWidth"] = c.getVideoAcrVideoWidth();
  s["videoAcrVideoHeight"] = c.getVideoAcrVideoHeight();
  s["videoAcrSamplePlaybackList"] = List(c.getVideoAcrSamplePlaybackList());
  s["videoAcrSamplePlaybackSpeed"] = c.getVideoAcrSamplePlaybackSpeed();
  s["videoAcrSampleSrcRate"] = Float(c.getVideoAcrSampleSrcRate());
  s["videoAcrVideoBufferCount"] = c.getVideoAcrVideoBufferCount();
  s["videoAcrSamplePlaybackCount"] = c.getVideoAcrSamplePlaybackCount();
  return Lum::Core::JsonUtil::WriteCompact(s);
}

// The same form written by hand (jsoncpp sorts the keys on writing).
std::string Expected(const std::string& members) {
  LumJson::Value value;
  EXPECT_TRUE(Lum::Core::JsonUtil::ParseStrict("{" + members + "}", value)) << members;
  return Lum::Core::JsonUtil::WriteCompact(value);
}

const char kDefaults[] =
    R"("maximumDataBytes":0,"collectAudioAcrData":false,"useAudioAcrSample":false,)"
    R"("audioAcrAudioSampleRate":16000,"audioAcrAudioBufferCount":4,)"
    R"("audioAcrSamplePlaybackSpeed":1,"audioAcrSamplePlaybackCount":1,)"
    R"("audioAcrSamplePlaybackList":[],"collectVideoAcrData":false,"useVideoAcrSample":false,)"
    R"("videoAcrDeviceID":"veltrane_test","videoAcrAlgorithm":2,"videoAcrFormat":"rgb24",)"
    R"("videoAcrOrigin":"upper_left","videoAcrFramesPerSecond":"2","videoAcrVideoWidth":320,)"
    R"("videoAcrVideoHeight":180,"videoAcrSamplePlaybackList":[],"videoAcrSamplePlaybackSpeed":1,)"
    R"("videoAcrSampleSrcRate":"23.976025","videoAcrVideoBufferCount":4,)"
    R"("videoAcrSamplePlaybackCount":1)";

TEST(DataServicesConfig, TextsWithoutAUsableSectionGiveTheDefaultsSilently) {
  const char* const texts[] = {"",
                               "not json",
                               "{}",
                               "[1]",
                               R"({"core":{"maximumDataBytes":9}})",
                               R"({"dataServices":5})",
                               R"({"dataServices":{}} tail)"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    LumTest::LogCapture log("info");
    EXPECT_EQ(Expected(kDefaults), Snapshot(DataServicesConfig(text)));
    EXPECT_EQ("", log.text());
  }
  EXPECT_THROW(DataServicesConfig(nullptr), std::logic_error);
}

TEST(DataServicesConfig, EveryKeyReachesItsOwnGetterAndIsLogged) {
  const std::string common =
      R"("maximumDataBytes":1000000,"collectAudioAcrData":true,"useAudioAcrSample":true,)"
      R"("audioAcrAudioSampleRate":44100,"audioAcrAudioBufferCount":2,)"
      R"("audioAcrSamplePlaybackSpeed":3,"audioAcrSamplePlaybackCount":5,)"
      R"("audioAcrSamplePlaybackList":["a.wav","b.wav"],"collectVideoAcrData":true,)"
      R"("useVideoAcrSample":true,"videoAcrDeviceID":"tv7","videoAcrAlgorithm":7,)"
      R"("videoAcrFormat":"nv12","videoAcrOrigin":"lower_left","videoAcrVideoWidth":640,)"
      R"("videoAcrVideoHeight":360,"videoAcrSamplePlaybackList":["v"],)"
      R"("videoAcrSamplePlaybackSpeed":6,"videoAcrVideoBufferCount":8,)"
      R"("videoAcrSamplePlaybackCount":9)";
  const std::string text = R"({"dataServices":{)" + common +
                           R"(,"videoAcrFramesPerSecond":2.5,"videoAcrSampleSrcRate":29.5}})";
  LumTest::LogCapture log("debug");
  const DataServicesConfig config(text.c_str());
  EXPECT_EQ(Expected(common + R"(,"videoAcrFramesPerSecond":"2.5","videoAcrSampleSrcRate":"29.5")"),
            Snapshot(config));
  config.logStateDebug();
  EXPECT_TRUE(log.logged("config->maximumDataBytes             : 1000000"));
  EXPECT_TRUE(log.logged("config->audioAcrSamplePlaybackList   : a.wav, b.wav"));
  EXPECT_TRUE(log.logged("config->videoAcrSampleSrcRate        : 29.500000"));
}

// Present values of another type go through jsoncpp's conversions; values
// that cannot be converted keep the default instead of throwing.
TEST(DataServicesConfig, MistypedValuesConvertOrKeepTheDefault) {
  struct Case {
    const char* members;
    const char* expected;  // replaces the same keys in the defaults
  };
  const Case cases[] = {
      {R"("maximumDataBytes":"12")", R"("maximumDataBytes":0)"},
      {R"("maximumDataBytes":-1)", R"("maximumDataBytes":0)"},
      {R"("maximumDataBytes":7.0,"videoAcrAlgorithm":true)",
       R"("maximumDataBytes":7,"videoAcrAlgorithm":1)"},
      {R"("collectAudioAcrData":1,"useVideoAcrSample":"yes")",
       R"("collectAudioAcrData":true,"useVideoAcrSample":false)"},
      {R"("videoAcrDeviceID":5,"videoAcrFormat":[],"videoAcrOrigin":null)",
       R"("videoAcrDeviceID":"5","videoAcrFormat":"rgb24","videoAcrOrigin":"")"},
      {R"("videoAcrFramesPerSecond":"fast","videoAcrSampleSrcRate":30)",
       R"("videoAcrFramesPerSecond":"2","videoAcrSampleSrcRate":"30")"},
      {R"("videoAcrSamplePlaybackList":["a",5,"b",null],"audioAcrSamplePlaybackList":"a")",
       R"("videoAcrSamplePlaybackList":["a","b"],"audioAcrSamplePlaybackList":[])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.members);
    LumJson::Value expected;
    ASSERT_TRUE(Lum::Core::JsonUtil::ParseStrict(Expected(kDefaults), expected));
    LumJson::Value changes;
    ASSERT_TRUE(Lum::Core::JsonUtil::ParseStrict(Expected(c.expected), changes));
    for (const std::string& key : changes.getMemberNames()) {
      expected[key] = changes[key];
    }
    const std::string text = std::string(R"({"dataServices":{)") + c.members + "}}";
    EXPECT_EQ(Lum::Core::JsonUtil::WriteCompact(expected),
              Snapshot(DataServicesConfig(text.c_str())));
  }
}

TEST(DataServicesConfig, IllegalRatesAndBufferCountsAreReplacedAndLogged) {
  struct Case {
    const char* key;
    unsigned given;
    unsigned kept;
    const char* line;  // empty when the value is legal
  };
  const Case cases[] = {
      {"audioAcrAudioSampleRate", 48000, 16000,
       "ACR Audio Sample Rate set to illegal value of 48000, defaulting to 16000"},
      {"audioAcrAudioSampleRate", 0, 16000,
       "ACR Audio Sample Rate set to illegal value of 0, defaulting to 16000"},
      {"audioAcrAudioSampleRate", 44100, 44100, ""},
      {"audioAcrAudioBufferCount", 1, 4,
       "ACR Audio Buffer Count set to illegal value of 1, defaulting to 4"},
      {"audioAcrAudioBufferCount", 0, 4,
       "ACR Audio Buffer Count set to illegal value of 0, defaulting to 4"},
      {"audioAcrAudioBufferCount", 2, 2, ""},
      {"videoAcrVideoBufferCount", 1, 4,
       "ACR Video Buffer Count set to illegal value of 1, defaulting to 4"},
      {"videoAcrVideoBufferCount", 0, 4,
       "ACR Video Buffer Count set to illegal value of 0, defaulting to 4"},
      {"videoAcrVideoBufferCount", 2, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + std::to_string(c.given));
    LumTest::LogCapture log("info");
    const std::string text =
        std::string(R"({"dataServices":{")") + c.key + "\":" + std::to_string(c.given) + "}}";
    const DataServicesConfig config(text.c_str());
    LumJson::Value snapshot;
    ASSERT_TRUE(Lum::Core::JsonUtil::ParseStrict(Snapshot(config), snapshot));
    EXPECT_EQ(c.kept, snapshot[c.key].asUInt());
    const std::vector<std::string> expected =
        *c.line ? std::vector<std::string>{c.line} : std::vector<std::string>{};
    EXPECT_EQ(expected, log.messages());
  }
}

}  // namespace
