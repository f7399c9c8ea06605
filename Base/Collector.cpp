#include "Base/Collector.h"

#include "Platform/StringSetUtil.h"

namespace Lum {
namespace Ds {

Collector::Collector(const std::string& name, const std::string& ids)
    : name_(name), ids_(Core::StringSetUtil::CsvStringToStringSet(ids)) {}

Collector::~Collector() = default;

void Collector::halt() {}

bool Collector::intersects(const std::set<std::string>& ids) const {
  for (const std::string& id : ids_) {
    if (ids.count(id) != 0) {
      return true;
    }
  }
  return false;
}

}  // namespace Ds
}  // namespace Lum
