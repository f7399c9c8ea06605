// A hostile back end against the agent's real request cycles: servers that
// go silent, trickle, reset, flood or alert, on the core's synchronisation,
// the data upload and the support view's long poll. Every such call ends
// within its time-out, the agent carries on and retries, and a stop while
// one is in flight returns at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "TortureSupport.h"

namespace {

using Lum::Tools::ConnectionFault;
using Lum::Tools::Fault;
using LumTest::AgentHarness;
using LumTest::WaitFor;
using namespace std::chrono;

constexpr unsigned kMessageMs = 2000;
constexpr milliseconds kRetry{300};
// Generous: this bounds a call, it does not time it.
constexpr milliseconds kMargin{3000};
constexpr milliseconds kPatience{30000};

struct Target {
  const char* name;
  const char* host;    // as the agent asks for it in its handshake
  const char* path;    // the call a request fault hits
  const char* family;  // path prefix of the cycle's calls, counted as its retries
};

const Target kTargets[] = {
    {"core sync", "acme-da.lum.localhost", "/api/v1/da/state", "/api/v1/da/"},
    {"upload", "acme-dsdata-eu1.lum.localhost", "/api/v1/dsdata/upload/package", "/api/v1/ds"},
    {"support poll", "acme-sv.lum.localhost", "/api/v1/sv/command/get", "/api/v1/sv/"},
};

struct Hostility {
  const char* name;
  ConnectionFault connection;  // None: `fault` hits the target's path
  Fault fault;
};

Fault Make(void (*set)(Fault&)) {
  Fault fault;
  set(fault);
  return fault;
}

const Hostility kHostilities[] = {
    {"silent after accept", ConnectionFault::SilentAfterAccept, {}},
    {"silent after the handshake", ConnectionFault::SilentAfterHandshake, {}},
    {"alert during the handshake", ConnectionFault::AlertInHandshake, {}},
    {"one byte a second", ConnectionFault::None,
     Make([](Fault& f) { f.trickle = milliseconds(1000); })},
    {"reset mid-body", ConnectionFault::None, Make([](Fault& f) { f.resetMidBody = true; })},
    {"10 MB body", ConnectionFault::None, Make([](Fault& f) { f.bodyBytes = 10 << 20; })},
    {"1 MB of headers", ConnectionFault::None, Make([](Fault& f) { f.headerBytes = 1 << 20; })},
    {"alert after the handshake", ConnectionFault::None,
     Make([](Fault& f) { f.closeNotify = true; })},
};

// Test names say what a case is; the raw bytes would say nothing.
void PrintTo(const Target& target, std::ostream* out) {
  *out << target.name;
}
void PrintTo(const Hostility& hostility, std::ostream* out) {
  *out << hostility.name;
}

size_t CallsOf(AgentHarness& agent, const Target& target) {
  const auto requests = agent.backend().requests();
  return std::count_if(requests.begin(), requests.end(), [&](const auto& request) {
    return request.path.rfind(target.family, 0) == 0;
  });
}

class HostileBackEnd : public ::testing::TestWithParam<std::tuple<Target, Hostility>> {
 protected:
  const Target& target() const { return std::get<0>(GetParam()); }
  const Hostility& hostility() const { return std::get<1>(GetParam()); }

  // Arms the hostility `count` times (negative: until cleared) and makes the
  // cycle run into it; returns the number of faults that must be taken.
  unsigned arm(int count) {
    unsigned faults = 1;
    if (hostility().connection == ConnectionFault::None) {
      Fault fault = hostility().fault;
      fault.count = count;
      agent_.backend().injectFault(target().path, fault);
      if (target().path == kTargets[0].path) {
        // Something new to deliver: the next poll hears of it and the agent
        // synchronises ("da/state").
        agent_.backend().pushTunables(LumTest::TortureTunables(kMessageMs));
      }
    } else {
      agent_.backend().injectConnectionFault(target().host, hostility().connection, count);
      if (target().path == kTargets[2].path) {
        // The poll keeps its connection; a dropped answer makes it open a new one.
        Fault drop;
        drop.drop = true;
        agent_.backend().injectFault(target().path, drop);
        faults = 2;
      }
    }
    if (target().path == kTargets[1].path) {
      EXPECT_EQ(LumSubmitDataItem(LumTest::ProbeItem(std::to_string(++items_)).c_str()),
                LUM_RESULT_SUCCESS);
    }
    return faults;
  }

  AgentHarness agent_;
  unsigned items_ = 0;
};

TEST_P(HostileBackEnd, EveryCallEndsTheAgentRetriesAndStopsAtOnce) {
  ASSERT_TRUE(LumTest::StartTortured(agent_, kMessageMs));
  if (target().path == kTargets[2].path) {
    ASSERT_EQ(LumSessionInit(0), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent_.backend().waitForHeldPolls(agent_.device().commonName, 1, kPatience));
  }
  for (unsigned round = 0; round < LumTest::TortureScale(); ++round) {
    const unsigned taken = agent_.backend().faultsTaken() + arm(1);
    ASSERT_TRUE(agent_.backend().waitForFaultsTaken(taken, kPatience));
    const auto hit = steady_clock::now();
    const size_t calls = CallsOf(agent_, target());
    ASSERT_TRUE(WaitFor([&] { return CallsOf(agent_, target()) > calls; }, kPatience));
    EXPECT_LT(steady_clock::now() - hit, milliseconds(kMessageMs) + kRetry + kMargin)
        << "the hostile call outlasted its time-out";
    EXPECT_EQ(agent_.state(), 1u) << "the agent stopped";
  }
  if (items_ > 0) {
    EXPECT_TRUE(agent_.backend().waitForDataItems(items_, kPatience)) << "no retried upload";
  }

  // A stop with the same hostility in flight.
  const unsigned taken = agent_.backend().faultsTaken() + arm(-1);
  ASSERT_TRUE(agent_.backend().waitForFaultsTaken(taken, kPatience));
  const auto before = steady_clock::now();
  EXPECT_EQ(LumTerm(), LUM_RESULT_SUCCESS);
  EXPECT_LT(steady_clock::now() - before, milliseconds(500));
  EXPECT_TRUE(agent_.waitForState(LumDeviceAgentUninitialized, seconds(15)));
}

std::string Name(const ::testing::TestParamInfo<std::tuple<Target, Hostility>>& info) {
  std::string name = std::string(std::get<0>(info.param).name) + " " + std::get<1>(info.param).name;
  for (char& c : name) {
    if (!isalnum(static_cast<unsigned char>(c))) {
      c = '_';
    }
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Torture, HostileBackEnd,
                         ::testing::Combine(::testing::ValuesIn(kTargets),
                                            ::testing::ValuesIn(kHostilities)),
                         Name);

}  // namespace
