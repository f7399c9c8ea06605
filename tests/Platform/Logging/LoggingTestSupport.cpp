#include "LoggingTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <sstream>

#include "support/TestSupport.h"

namespace LumLoggingTest {

LumJson::Value Json(const std::string& text) {
  LumJson::CharReaderBuilder builder;
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  LumJson::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      << text << ": " << errors;
  return value;
}

LumJson::Value Element(const std::string& type, const std::string& argument,
                       const std::string& format, const std::string& service,
                       const std::string& category, const std::string& severity) {
  LumJson::Value filter;
  filter["service"] = service;
  filter["category"] = category;
  filter["severity"] = severity;
  LumJson::Value element;
  element["type"] = type;
  element["argument"] = argument;
  element["format"] = format;
  element["filters"].append(filter);
  return element;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::istringstream in(LumTest::ReadFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

size_t OpenDescriptorCount() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

}  // namespace LumLoggingTest
