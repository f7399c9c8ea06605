#include "Base/CommandBase.h"

namespace Lum {
namespace Sv {

CommandBase::~CommandBase() = default;

}  // namespace Sv
}  // namespace Lum
