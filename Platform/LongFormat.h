#pragma once

#include "Platform/Format.h"

namespace Lum {
namespace Core {

// "[LUM] " ISO time with microseconds, thread id, service[4] category[10]
// severity[7], (file + ":" + line + "-{" + function + "}")[75], message
// Stateless, so no mutex guards it.
class LongFormat : public Format {
 public:
  std::string format(const LoggingEvent& event) const override;
};

}  // namespace Core
}  // namespace Lum
