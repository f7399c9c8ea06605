#pragma once

#include <vector>

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// One setting of the television as a settings command offers it: how to
// read it, how to change it (null: read only) and what a change may be.
struct TvSetting {
  InputField field;  // the input that changes it; its id names it in answers
  LumJson::Value (*read)();
  int (*write)(const LumJson::Value& value);
};

// A command that shows a group of the television's settings (GET) and
// changes any of them (EXECUTE). A change names one or more settings; all
// are checked before the first is applied, so a bad input changes nothing.
// Each change is reported with what was asked, the value before, the
// television's answer and the value read back afterwards; the command
// answers 1 when the television refused any of them.
class CommandSettingsTool : public CommandFormHandler {
 public:
  CommandSettingsTool(const CommandBase& descriptor, const CommandForm& form,
                      const std::vector<TvSetting>& settings, const char* settingsId,
                      const char* changeId);

  int getHandler(const LumJson::Value& inputs, LumJson::Value& result) override;

  // The current value of every setting, by its input id.
  static LumJson::Value ReadAll(const std::vector<TvSetting>& settings);

  // The form of a change: every writable setting as an optional input, at
  // least one given.
  static CommandForm ChangeForm(const char* summary, const std::vector<TvSetting>& settings,
                                const char* settingsId, const char* changeId);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;

 private:
  const std::vector<TvSetting>& settings_;  // static, one per command
  const char* settingsId_;
};

}  // namespace Sv
}  // namespace Lum
