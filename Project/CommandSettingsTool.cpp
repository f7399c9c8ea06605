#include "Project/CommandSettingsTool.h"

#include <utility>

#include "Base/CommandBase.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Project/CommandSettingsTool");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;

}  // namespace

LumJson::Value CommandSettingsTool::ReadAll(const std::vector<TvSetting>& settings) {
  LumJson::Value values(LumJson::objectValue);
  for (const TvSetting& setting : settings) {
    values[setting.field.id] = setting.read();
  }
  return values;
}

CommandSettingsTool::CommandSettingsTool(const CommandBase& descriptor, const CommandForm& form,
                                         const std::vector<TvSetting>& settings,
                                         const char* settingsId, const char* changeId)
    : CommandFormHandler(descriptor, form, changeId),
      settings_(settings),
      settingsId_(settingsId) {}

CommandForm CommandSettingsTool::ChangeForm(const char* summary,
                                            const std::vector<TvSetting>& settings,
                                            const char* settingsId, const char* changeId) {
  std::vector<InputField> inputs;
  for (const TvSetting& setting : settings) {
    if (setting.write != nullptr) {
      inputs.push_back(setting.field);
    }
  }
  std::vector<OutputField> outputs = {
      {settingsId, "JSON", "GET: the current value of every setting, by input ID"},
      {changeId, "JSON",
       "EXECUTE: \"CHANGES\", one entry per setting given: SETTING, REQUESTED, PREVIOUS, "
       "TV_RESULT (0: accepted) and CURRENT (read back)"}};
  return CommandForm(summary, std::move(inputs), std::move(outputs), true);
}

int CommandSettingsTool::getHandler(const LumJson::Value& inputs, LumJson::Value& result) {
  if (!inputs.empty()) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s Invalid Parameter INPUTS: GET takes none", descriptor().name().c_str());
    return kInvalidParameter;
  }
  result["ID"] = settingsId_;
  result["TYPE"] = "JSON";
  result["DATA"] = ReadAll(settings_);
  return kCommandSuccess;
}

int CommandSettingsTool::run(const LumJson::Value& inputs, LumJson::Value& data) {
  int code = kCommandSuccess;
  LumJson::Value& changes = data["CHANGES"] = LumJson::Value(LumJson::arrayValue);
  for (const TvSetting& setting : settings_) {
    if (setting.write == nullptr || !inputs.isMember(setting.field.id)) {
      continue;
    }
    const LumJson::Value& requested = inputs[setting.field.id];
    LumJson::Value& change = changes.append(LumJson::Value(LumJson::objectValue));
    change["SETTING"] = setting.field.id;
    change["REQUESTED"] = requested;
    change["PREVIOUS"] = setting.read();
    const int answer = setting.write(requested);
    change["TV_RESULT"] = answer;
    change["CURRENT"] = setting.read();
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s set %s: television answered %d",
            descriptor().name().c_str(), setting.field.id, answer);
    if (answer != 0) {
      code = kCommandFailed;
    }
  }
  return code;
}

}  // namespace Sv
}  // namespace Lum
