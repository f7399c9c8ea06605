#include "Platform/TestFormat.h"

#include <memory>

#include "Platform/FilterProperties.h"
#include "Platform/LumJson.h"

namespace Lum {
namespace Core {

namespace {
const char* const kBadJson = "***BAD JSON***";

LumJson::Value ParseStrict(const std::string& text) {
  LumJson::CharReaderBuilder builder;
  LumJson::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  LumJson::Value parsed;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
    return LumJson::Value(kBadJson);
  }
  return parsed;
}

std::string WriteCompact(const LumJson::Value& value) {
  LumJson::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return LumJson::writeString(builder, value);
}
}  // namespace

std::string TestFormat::format(const LoggingEvent& event) const {
  LumJson::Value line(LumJson::objectValue);
  line["timeStamp"] = IsoTime(event.timestamp);
  line["threadName"] = event.threadId;
  line["service"] = FilterProperties::GetServiceName(event.service);
  line["category"] = FilterProperties::GetCategoryName(event.category);
  line["severity"] = FilterProperties::GetSeverityName(event.severity);
  line["file"] = event.file;
  line["line"] = event.line;
  line["method"] = event.function;
  line["message"] = ParseStrict(event.message);
  return WriteCompact(line) + "\n";
}

}  // namespace Core
}  // namespace Lum
