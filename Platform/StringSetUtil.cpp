#include "Platform/StringSetUtil.h"

#include <utility>

namespace Lum {
namespace Core {

namespace {

constexpr char kWhitespace[] = " \t\r\n";

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kWhitespace);
  if (first == std::string::npos) {
    return std::string();
  }
  const size_t last = text.find_last_not_of(kWhitespace);
  return text.substr(first, last - first + 1);
}

}  // namespace

std::set<std::string> StringSetUtil::CsvStringToStringSet(const std::string& csv) {
  std::set<std::string> items;
  size_t start = 0;
  for (;;) {
    const size_t comma = csv.find(',', start);
    const size_t end = comma == std::string::npos ? csv.size() : comma;
    std::string item = Trim(csv.substr(start, end - start));
    if (!item.empty()) {
      items.insert(std::move(item));
    }
    if (comma == std::string::npos) {
      return items;
    }
    start = comma + 1;
  }
}

std::string StringSetUtil::StringSetToCsvString(const std::set<std::string>& items) {
  std::string csv;
  bool first = true;
  for (const std::string& item : items) {
    if (!first) {
      csv += ',';
    }
    csv += item;
    first = false;
  }
  return csv;
}

}  // namespace Core
}  // namespace Lum
