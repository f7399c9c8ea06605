#pragma once

#include "Platform/Format.h"

namespace Lum {
namespace Core {

// One compact JSON object per line, for harnesses that log JSON messages:
// the message is embedded as parsed JSON, or as "***BAD JSON***" when it is
// not a strict JSON document.
// Stateless, so no mutex guards it.
class TestFormat : public Format {
 public:
  std::string format(const LoggingEvent& event) const override;
};

}  // namespace Core
}  // namespace Lum
