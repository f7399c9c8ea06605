#include "support/LogCapture.h"

#include <algorithm>
#include <sstream>

#include "Platform/FilterProperties.h"
#include "Platform/Logger.h"
#include "Platform/LumJson.h"

namespace LumTest {

namespace {

// The short format writes service[4] category[10] severity[7], each followed
// by one space, before the message.
constexpr size_t kClassificationWidth = 4 + 1 + 10 + 1 + 7 + 1;

}  // namespace

LogCapture::LogCapture(const std::string& severity) {
  using Lum::Core::FilterProperties;
  LumJson::Value appender;
  appender["type"] = "file";
  appender["argument"] = dir_.file("captured.log");
  appender["format"] = "short";
  appender["filters"] = LumJson::Value(LumJson::arrayValue);
  for (int service = 0; service < FilterProperties::SERVICE_COUNT; ++service) {
    for (int category = 0; category < FilterProperties::CATEGORY_COUNT; ++category) {
      LumJson::Value filter;
      filter["service"] = FilterProperties::GetServiceName(service);
      filter["category"] = FilterProperties::GetCategoryName(category);
      filter["severity"] = severity;
      appender["filters"].append(filter);
    }
  }
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(appender);
  Lum::Core::Logger::Instance().terminate();
  Lum::Core::Logger::Instance().initialize(loggers);
}

LogCapture::~LogCapture() {
  Lum::Core::Logger::Instance().terminate();
}

std::string LogCapture::text() const {
  return ReadFile(dir_.file("captured.log"));
}

std::vector<std::string> LogCapture::messages() const {
  std::vector<std::string> result;
  std::istringstream lines(text());
  std::string line;
  while (std::getline(lines, line)) {
    result.push_back(line.size() > kClassificationWidth ? line.substr(kClassificationWidth) : "");
  }
  return result;
}

bool LogCapture::logged(const std::string& message) const {
  const std::vector<std::string> all = messages();
  return std::find(all.begin(), all.end(), message) != all.end();
}

}  // namespace LumTest
