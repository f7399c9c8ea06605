#pragma once

#include <string>

namespace Lum {
namespace Sv {

// The "supportView" section of the configuration text: whether a session
// held at shutdown is suspended (and resumed at the next start) rather than
// ended, and whether the back end may open a session by itself.
//
// A text that does not parse, lacks the section or holds values of another
// kind leaves the defaults. Built once by the support view manager and only
// read afterwards, under the core mutex; no lock of its own.
class SupportViewConfig {
 public:
  explicit SupportViewConfig(const std::string& configText);

  bool getPauseSessionOnTerm() const { return pauseSessionOnTerm_; }
  bool getAllowRemoteSession() const { return allowRemoteSession_; }

 private:
  bool pauseSessionOnTerm_ = true;
  bool allowRemoteSession_ = false;
};

}  // namespace Sv
}  // namespace Lum
