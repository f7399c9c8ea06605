#pragma once

#include "Platform/Format.h"

namespace Lum {
namespace Core {

// service[4] category[10] severity[7] message
// Stateless, so no mutex guards it.
class ShortFormat : public Format {
 public:
  std::string format(const LoggingEvent& event) const override;
};

}  // namespace Core
}  // namespace Lum
