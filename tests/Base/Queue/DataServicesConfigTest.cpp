#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Base/DataServicesConfig.h"
#include "Platform/JsonUtil.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Ds::DataServicesConfig;

LumJson::Value List(const std::vector<std::string>& list) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& element : list) {
    array.append(element);
  }
  return array;
}

// Every getter under its key, so a key read into the wrong field shows.
LumJson::Value Snapshot(const DataServicesConfig& c) {
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
  s["videoAcrFramesPerSecond"] = c.getVideoAcrFramesPerSecond();
  s["videoAcrVideoWidth"] = c.getVideoAcrVideoWidth();
  s["videoAcrVideoHeight"] = c.getVideoAcrVideoHeight();
  s["videoAcrSamplePlaybackList"] = List(c.getVideoAcrSamplePlaybackList());
  s["videoAcrSamplePlaybackSpeed"] = c.getVideoAcrSamplePlaybackSpeed();
  s["videoAcrSampleSrcRate"] = c.getVideoAcrSampleSrcRate();
  s["videoAcrVideoBufferCount"] = c.getVideoAcrVideoBufferCount();
  s["videoAcrSamplePlaybackCount"] = c.getVideoAcrSamplePlaybackCount();
  return s;
}

// The defaults with `members` laid over them, in the snapshot's text form.
std::string Expected(const std::string& members = "") {
  LumJson::Value expected, changes;
  EXPECT_TRUE(JsonUtil::ParseStrict(
      R"({"maximumDataBytes":0,"collectAudioAcrData":false,"useAudioAcrSample":false,)"
      R"("audioAcrAudioSampleRate":16000,"audioAcrAudioBufferCount":4,)"
      R"("audioAcrSamplePlaybackSpeed":1,"audioAcrSamplePlaybackCount":1,)"
      R"("audioAcrSamplePlaybackList":[],"collectVideoAcrData":false,"useVideoAcrSample":false,)"
      R"("videoAcrDeviceID":"veltrane_test","videoAcrAlgorithm":2,"videoAcrFormat":"rgb24",)"
      R"("videoAcrOrigin":"upper_left","videoAcrFramesPerSecond":2.0,"videoAcrVideoWidth":320,)"
      R"("videoAcrVideoHeight":180,"videoAcrSamplePlaybackList":[],)"
      R"("videoAcrSamplePlaybackSpeed":1,"videoAcrSampleSrcRate":23.976024627685547,)"
      R"("videoAcrVideoBufferCount":4,"videoAcrSamplePlaybackCount":1})",
      expected));
  EXPECT_TRUE(JsonUtil::ParseStrict("{" + members + "}", changes)) << members;
  for (const std::string& key : changes.getMemberNames()) {
    expected[key] = changes[key];
  }
  return JsonUtil::WriteCompact(expected);
}

std::string Read(const std::string& members) {
  return JsonUtil::WriteCompact(
      Snapshot(DataServicesConfig((R"({"dataServices":{)" + members + "}}").c_str())));
}

TEST(DataServicesConfig, TextsWithoutAUsableSectionGiveTheDefaultsSilently) {
  for (const char* text : {"", "not json", "{}", "[1]", R"({"core":{"maximumDataBytes":9}})",
                           R"({"dataServices":5})", R"({"dataServices":{}} tail)"}) {
    SCOPED_TRACE(text);
    LumTest::LogCapture log("info");
    EXPECT_EQ(Expected(), JsonUtil::WriteCompact(Snapshot(DataServicesConfig(text))));
    EXPECT_EQ("", log.text());
  }
  EXPECT_THROW(DataServicesConfig(nullptr), std::logic_error);
}

TEST(DataServicesConfig, EveryKeyReachesItsOwnGetterAndIsLogged) {
  const std::string all =
      R"("maximumDataBytes":1000000,"collectAudioAcrData":true,"useAudioAcrSample":true,)"
      R"("audioAcrAudioSampleRate":44100,"audioAcrAudioBufferCount":2,)"
      R"("audioAcrSamplePlaybackSpeed":3,"audioAcrSamplePlaybackCount":5,)"
      R"("audioAcrSamplePlaybackList":["a.wav","b.wav"],"collectVideoAcrData":true,)"
      R"("useVideoAcrSample":true,"videoAcrDeviceID":"tv7","videoAcrAlgorithm":7,)"
      R"("videoAcrFormat":"nv12","videoAcrOrigin":"lower_left","videoAcrFramesPerSecond":2.5,)"
      R"("videoAcrVideoWidth":640,"videoAcrVideoHeight":360,"videoAcrSamplePlaybackList":["v"],)"
      R"("videoAcrSamplePlaybackSpeed":6,"videoAcrSampleSrcRate":29.5,)"
      R"("videoAcrVideoBufferCount":8,"videoAcrSamplePlaybackCount":9)";
  EXPECT_EQ(Expected(all), Read(all));

  LumTest::LogCapture log("debug");
  DataServicesConfig(("{\"dataServices\":{" + all + "}}").c_str()).logStateDebug();
  EXPECT_TRUE(log.logged("config->maximumDataBytes             : 1000000"));
  EXPECT_TRUE(log.logged("config->audioAcrSamplePlaybackList   : a.wav, b.wav"));
  EXPECT_TRUE(log.logged("config->videoAcrSampleSrcRate        : 29.500000"));
}

// Present values of another type go through jsoncpp's conversions; values
// that cannot be converted keep the default instead of throwing.
TEST(DataServicesConfig, MistypedValuesConvertOrKeepTheDefault) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("maximumDataBytes":"12","videoAcrVideoWidth":-1)", ""},
      {R"("maximumDataBytes":7.0,"videoAcrAlgorithm":true)",
       R"("maximumDataBytes":7,"videoAcrAlgorithm":1)"},
      {R"("collectAudioAcrData":1,"useVideoAcrSample":"yes")", R"("collectAudioAcrData":true)"},
      {R"("videoAcrDeviceID":5,"videoAcrFormat":[],"videoAcrOrigin":null)",
       R"("videoAcrDeviceID":"5","videoAcrOrigin":"")"},
      {R"("videoAcrFramesPerSecond":"fast","videoAcrSampleSrcRate":30)",
       R"("videoAcrSampleSrcRate":30.0)"},
      {R"("videoAcrSamplePlaybackList":["a",5,"b",null],"audioAcrSamplePlaybackList":"a")",
       R"("videoAcrSamplePlaybackList":["a","b"])"},
  };
  for (const auto& [given, changed] : cases) {
    SCOPED_TRACE(given);
    EXPECT_EQ(Expected(changed), Read(given));
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
      {"audioAcrAudioSampleRate", 44100, 44100, ""},
      {"audioAcrAudioBufferCount", 1, 4,
       "ACR Audio Buffer Count set to illegal value of 1, defaulting to 4"},
      {"audioAcrAudioBufferCount", 2, 2, ""},
      {"videoAcrVideoBufferCount", 0, 4,
       "ACR Video Buffer Count set to illegal value of 0, defaulting to 4"},
      {"videoAcrVideoBufferCount", 2, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " " + std::to_string(c.given));
    LumTest::LogCapture log("info");
    const std::string member = "\"" + std::string(c.key) + "\":";
    EXPECT_EQ(Expected(member + std::to_string(c.kept)), Read(member + std::to_string(c.given)));
    EXPECT_EQ(*c.line ? std::vector<std::string>{c.line} : std::vector<std::string>{},
              log.messages());
  }
}

}  // namespace
