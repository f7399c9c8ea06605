#pragma once

#include "Platform/Format.h"

namespace Lum {
namespace Core {

// "%H:%M:%S.mmm" service[4] category[10] severity[7] (function + "()")[20]
// message. Stateless, so no mutex guards it.
class MediumFormat : public Format {
 public:
  std::string format(const LoggingEvent& event) const override;
};

}  // namespace Core
}  // namespace Lum
