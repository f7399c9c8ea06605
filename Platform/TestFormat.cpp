#include "Platform/TestFormat.h"

#include "Platform/FilterProperties.h"
#include "Platform/JsonUtil.h"
#include "Platform/LumJson.h"

namespace Lum {
namespace Core {

namespace {
const char* const kBadJson = "***BAD JSON***";

LumJson::Value ParseOrMarkBad(const std::string& text) {
  LumJson::Value parsed;
  return JsonUtil::ParseStrict(text, parsed) ? parsed : LumJson::Value(kBadJson);
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
  line["message"] = ParseOrMarkBad(event.message);
  return JsonUtil::WriteCompact(line) + "\n";
}

}  // namespace Core
}  // namespace Lum
