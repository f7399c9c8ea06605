#pragma once

// The agent's JSON library. Code names it LumJson so that the binding to the
// jsoncpp build in use is made in this one place.
#include <json/json.h>

namespace LumJson = Json;
