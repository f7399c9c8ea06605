#include "Platform/Thread.h"

namespace Lum {
namespace Core {

Thread::Thread() : handle_(), started_(false) {}

}  // namespace Core
}  // namespace Lum
