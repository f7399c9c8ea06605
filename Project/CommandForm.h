#pragma once

#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace Lum {
namespace Sv {

// What a command accepts and answers, declared once per command: the same
// declaration answers DESCRIPTION (so a back end can build a form from it)
// and checks the inputs of every request, so the two cannot drift apart.

enum class InputType { Text, Integer, Boolean };

// The values a text input accepts, asked of the television when needed (its
// lists can change: sources come and go).
using Choices = std::vector<std::string> (*)();

struct InputField {
  const char* id;
  InputType type = InputType::Text;
  bool required = false;
  const char* text = "";      // what the input means, for the form
  Choices choices = nullptr;  // Text: when set, only these values are accepted
  int minimum = 0;            // Integer: the accepted range
  int maximum = 0;
};

struct OutputField {
  const char* id;
  const char* type;
  const char* text;
};

class CommandForm {
 public:
  CommandForm(const char* summary, std::vector<InputField> inputs, std::vector<OutputField> outputs,
              bool needsAnInput = false);

  // {"DESCRIPTION": summary, "INPUTS": [...], "OUTPUTS": [...]}.
  void describe(LumJson::Value& result) const;

  // 0 when `inputs` is an object holding only declared members, every
  // required one present and every value of its declared type, range and
  // choices; otherwise 3 with a log line naming the command and the input.
  // Nothing is ever guessed: "15" is not the integer 15, and an unknown
  // member (a misspelt name) is refused rather than ignored.
  int check(const std::string& command, const LumJson::Value& inputs) const;

  const std::vector<InputField>& inputs() const { return inputs_; }

  static const char* TypeName(InputType type);

 private:
  int checkField(const std::string& command, const InputField& field,
                 const LumJson::Value& value) const;

  const char* summary_;
  std::vector<InputField> inputs_;
  std::vector<OutputField> outputs_;
  bool needsAnInput_;  // all inputs optional, but at least one must be given
};

}  // namespace Sv
}  // namespace Lum
