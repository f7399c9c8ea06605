#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Lum {
namespace Drmp {

// One object the back end wants the device to hold.
struct DrmpEntry {
  std::string name;
  std::string version;
  uint64_t size = 0;
  std::string sha256;  // lower-case hex
  std::string path;    // under "/api/v1/" of the device's DRMP host
};

// An entry of the list that cannot be acted on, and why.
struct DrmpRefusal {
  std::string name;
  std::string reason;
};

// Reads the (already verified) object list document. A document whose shape
// is wrong is refused as a whole, since a list read only in part would
// delete objects the back end still wants. Entries whose name, version,
// hash or path are unusable are refused one by one: the rest of the list
// still counts. Stateless.
class DrmpDocument {
 public:
  // False (reason in `why`) when the text is not the object list.
  static bool Parse(const std::string& documentText, size_t maxObjects,
                    std::vector<DrmpEntry>& entries, std::vector<DrmpRefusal>& refused,
                    std::string& why);

  // 1 to 64 of [A-Za-z0-9._-], not starting with "." — so that a name is
  // always one plain file of the object directory and never a hidden or
  // scratch file of the agent's own.
  static bool IsValidName(const std::string& name);
  // The longest text of the back end the report repeats.
  static std::string Shorten(const std::string& text);

 private:
  static bool IsValidVersion(const std::string& version);
  static bool IsValidPath(const std::string& path);
  static bool IsSha256Hex(const std::string& text);
};

}  // namespace Drmp
}  // namespace Lum
