#pragma once

#include <lum.h>

#include <string>

#include "Platform/LumJson.h"
#include "agent/AgentHarness.h"

namespace LumTest {

// Rounds multiplier of the torture suites: LUM_TORTURE_SCALE, 1 when unset
// or not a positive number. The test command runs the short version.
unsigned TortureScale();

// Every schedule and time-out of the core, data services and support view at
// its shortest, so that a failed call is retried within a fraction of a
// second and a hostile answer costs at most `messageMs`.
LumJson::Value TortureTunables(unsigned messageMs = 2000);

// Pushes and seeds the tunables, allows the item id "Probe", enables
// support view and starts the agent; false when it did not come up.
bool StartTortured(AgentHarness& agent, unsigned messageMs = 2000);

// {"id":"Probe","parameters":{"uid":"<uid>"}}, and the uids of every item
// the back end received, in arrival order.
std::string ProbeItem(const std::string& uid);
std::vector<std::string> ReceivedUids(AgentHarness& agent);

LumStatus Status();

}  // namespace LumTest
