#include "Project/CommandHDMIDiagnostic.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

LumJson::Value Hdcp() {
  return TvValues::Pairs(&NkGetVStrHDCPInfo);
}

LumJson::Value ArcInspection() {
  std::string port;
  std::string device;
  const int answer = NkArcInspect(port, device);
  LumJson::Value inspection(LumJson::objectValue);
  inspection["TV_RESULT"] = answer;
  inspection["PORT"] = port;
  inspection["DEVICE"] = device;
  return inspection;
}

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"SOURCE", &TextOf<NkGetSourceName>},
      {"HDMI_PORTS", &ListOf<NkGetVStrHDMIPortNameList>},
      {"HDMI_DEVICES", &ListOf<NkGetVStrHDMIDeviceNameList>},
      {"HDCP", &Hdcp},
      {"EDID", &TextOf<NkGetEDIDInfo>},
      {"CEC", &FlagOf<NkIsCECSupport>},
      {"ARC_PORT", &TextOf<NkGetArcPortName>},
      {"ARC_INSPECTION", &ArcInspection},
      {"SPEAKER_ARC_MODE", &NumberOf<NkGetSpeakerArcMode>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "The HDMI ports and what is attached to them", {},
      {{"HDMI_DIAGNOSTIC", "JSON",
        "SOURCE, HDMI_PORTS, HDMI_DEVICES, HDCP (key: value), EDID, CEC, ARC_PORT, "
        "ARC_INSPECTION (TV_RESULT, PORT, DEVICE), SPEAKER_ARC_MODE"}});
  return form;
}

}  // namespace

CommandHDMIDiagnostic::CommandHDMIDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "HDMI_DIAGNOSTIC") {}

int CommandHDMIDiagnostic::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
