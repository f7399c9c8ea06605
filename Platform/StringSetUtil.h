#pragma once

#include <set>
#include <string>

namespace Lum {
namespace Core {

// Sets of identifiers kept as one comma-separated text (the allowed data item
// ids, a collector's ids).
class StringSetUtil {
 public:
  // Splits at every ",". Spaces, tabs and line ends around an item are
  // trimmed, so "a, b" and a text typed by hand read as intended; items that
  // are empty after trimming are skipped, so "", ",", "a,,b," and a trailing
  // comma add nothing. Duplicates collapse.
  static std::set<std::string> CsvStringToStringSet(const std::string& csv);

  // The items joined with "," in set order, written verbatim. An item that
  // contains a comma, or starts or ends with whitespace, does not come back
  // unchanged through CsvStringToStringSet; identifiers never do.
  static std::string StringSetToCsvString(const std::set<std::string>& items);
};

}  // namespace Core
}  // namespace Lum
