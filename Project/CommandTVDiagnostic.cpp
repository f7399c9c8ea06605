#include "Project/CommandTVDiagnostic.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"SOURCE", &TextOf<NkGetSourceName>},
      {"CHANNEL", &TextOf<NkGetCurrentChannel>},
      {"VIDEO_FORMAT", &TextOf<NkGetTvVideoFormat>},
      {"AUDIO_FORMAT", &TextOf<NkGetTvAudioFormat>},
      {"COLOUR_FORMAT", &TextOf<NkGetTvColourFormat>},
      {"HDR_TYPE", &TextOf<NkGetTvHDRType>},
      {"SIGNAL_QUALITY", &TextOf<NkGetTvSignalQuality>},
      {"SIGNAL_LEVEL", &TextOf<NkGetTvSignalLevel>},
      {"MODULATION", &TextOf<NkGetModulationType>},
      {"FREQUENCY", &TextOf<NkGetChannelFrequency>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "The broadcast signal the television receives", {},
      {{"TV_DIAGNOSTIC", "JSON",
        "SOURCE, CHANNEL, VIDEO_FORMAT, AUDIO_FORMAT, COLOUR_FORMAT, HDR_TYPE, SIGNAL_QUALITY, "
        "SIGNAL_LEVEL, MODULATION, FREQUENCY"}});
  return form;
}

}  // namespace

CommandTVDiagnostic::CommandTVDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "TV_DIAGNOSTIC") {}

int CommandTVDiagnostic::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
