#pragma once

#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace LumLoggingTest {

// Parses a JSON text written in a test; an invalid text fails the test.
LumJson::Value Json(const std::string& text);

// One element of the "loggers" array with a single filter entry.
LumJson::Value Element(const std::string& type, const std::string& argument,
                       const std::string& format, const std::string& service,
                       const std::string& category, const std::string& severity);

std::vector<std::string> ReadLines(const std::string& path);

// Number of open descriptors of this process.
size_t OpenDescriptorCount();

}  // namespace LumLoggingTest
