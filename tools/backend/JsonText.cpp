#include "tools/backend/JsonText.h"

#include <exception>
#include <memory>

namespace Lum {
namespace Tools {

bool JsonText::ParseStrict(const std::string& text, LumJson::Value* value) {
  LumJson::CharReaderBuilder builder;
  LumJson::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  std::string errors;
  try {
    return reader->parse(text.data(), text.data() + text.size(), value, &errors);
  } catch (const std::exception&) {
    return false;  // nesting beyond the reader's limit
  }
}

std::string JsonText::Compact(const LumJson::Value& value) {
  LumJson::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return LumJson::writeString(writer, value);
}

}  // namespace Tools
}  // namespace Lum
