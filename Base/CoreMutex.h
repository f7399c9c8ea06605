#pragma once

#include "Platform/Mutex.h"
#include "Platform/ThreadSafety.h"

namespace Lum {
namespace Core {

// The core mutex, which CoreManager owns and every manager shares. Every
// annotation names it through this one function (and CoreManager::getMutex
// returns it), so that the thread-safety analysis sees the same mutex
// whichever manager locks it.
Mutex& CoreMutex();

}  // namespace Core
}  // namespace Lum
