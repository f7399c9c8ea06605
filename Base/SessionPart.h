#pragma once

namespace Lum {
namespace Sv {

// A piece of the television's side of a support session that lives beside
// the task cycle: the screen video stream, the training remote. The support
// view starts it when a session is opened or resumed and stops it when the
// session ends. Both calls come with the core mutex held, so a part only
// starts or stops its own work there and never waits for it.
class SessionPart {
 public:
  virtual ~SessionPart() = default;
  virtual void sessionStarted() = 0;
  virtual void sessionEnded() = 0;
};

}  // namespace Sv
}  // namespace Lum
