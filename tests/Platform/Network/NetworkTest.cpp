// The network readers against fixture proc files and the machine's own.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/Network.h"
#include "support/TestSupport.h"

namespace {

using Lum::Sv::Network;
using LumTest::TempDir;
using LumTest::WriteFile;

const char kDevHeader[] = "Inter-|   Receive   |  Transmit\n face |bytes packets ...\n";
const char kRouteHeader[] = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n";

class NetworkFiles : public ::testing::Test {
 protected:
  void TearDown() override { Network::SetProcFiles("", ""); }
  std::string write(const std::string& name, const std::string& text) {
    WriteFile(dir_.file(name), text);
    return dir_.file(name);
  }
  TempDir dir_;
};

Network::InterfaceInfo Named(const std::string& name) {
  Network::InterfaceInfo info;
  info.name = name;
  return info;
}

// Only complete lines of listed interfaces count; each of the sixteen
// numbers lands in its own field.
TEST_F(NetworkFiles, CountersComeOnlyFromCompleteLinesOfListedInterfaces) {
  Network::SetProcFiles(
      write("dev", std::string(kDevHeader) + "    lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
                                             "  eth9: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n"
                                             " ghost: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"),
      "");
  std::vector<Network::InterfaceInfo> list{Named("lo"), Named("eth9")};
  Network::getInterfaceInfoMetrics(list);
  ASSERT_EQ(list.size(), 2u);
  const Network::InterfaceInfo& lo = list[0];
  EXPECT_TRUE(lo.hasCounters);
  const uint64_t got[] = {lo.rxBytes, lo.rxPackets,    lo.rxErrors,     lo.rxDrops,
                          lo.rxFifo,  lo.rxFrame,      lo.rxCompressed, lo.rxMulticast,
                          lo.txBytes, lo.txPackets,    lo.txErrors,     lo.txDrops,
                          lo.txFifo,  lo.txCollisions, lo.txCarrier,    lo.txCompressed};
  for (uint64_t i = 0; i < 16; ++i) {
    EXPECT_EQ(got[i], i + 1) << "counter " << i;
  }
  EXPECT_FALSE(list[1].hasCounters);
  EXPECT_EQ(list[1].rxBytes, 0u);
}

TEST_F(NetworkFiles, DefaultGatewayComesFromTheDefaultRoute) {
  struct Case {
    const char* name;
    std::string rows;
    const char* gateway;
  } cases[] = {
      {"no default route", "lo\t0000007F\t00000000\t0001\t0\t0\t0\t000000FF\n", "Not Available"},
      {"default route to loopback", "lo\t00000000\t0100007F\t0003\t0\t0\t0\t00000000\n",
       "127.0.0.1"},
      {"lower metric wins",
       "lo\t00000000\t0200007F\t0003\t0\t0\t20\t00000000\n"
       "lo\t00000000\t0100007F\t0003\t0\t0\t10\t00000000\n",
       "127.0.0.1"},
      {"default route without gateway", "lo\t00000000\t00000000\t0001\t0\t0\t0\t00000000\n",
       "Not Available"},
      {"short row", "lo\t00000000\t0100007F\t0003\t0\t0\t0\n", "Not Available"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Network::SetProcFiles("", write("route", kRouteHeader + c.rows));
    EXPECT_EQ(Network::GetDefaultGateway(), c.gateway);
  }
  std::map<std::string, Network::RouteInfo> routes;
  Network::SetProcFiles(
      "", write("route",
                std::string(kRouteHeader) + "lo\t0000007F\t00000000\t0001\t2\t5\t7\t000000FF\n"));
  Network::GetRouteInfo(routes);
  ASSERT_EQ(routes.count("Route to 127.0.0.0"), 1u);
  const Network::RouteInfo& route = routes["Route to 127.0.0.0"];
  EXPECT_EQ(route.interface, "lo");
  EXPECT_EQ(Network::convertToIPv4Address(route.mask), "255.0.0.0");
  EXPECT_EQ(route.metric, 7u);
}

// The machine's own interfaces: loopback is there, with its address and
// counters, and reports as the commands present it.
TEST_F(NetworkFiles, TheMachinesLoopbackIsReported) {
  std::vector<Network::InterfaceInfo> list;
  Network::GetInterfaceInfo(list);
  Network::getInterfaceInfoMetrics(list);
  const Network::InterfaceInfo* lo = nullptr;
  for (const auto& info : list) {
    lo = info.name == "lo" ? &info : lo;
  }
  ASSERT_NE(lo, nullptr);
  EXPECT_EQ(lo->address, "127.0.0.1");
  EXPECT_EQ(lo->netmask, "255.0.0.0");
  EXPECT_TRUE(lo->hasCounters);
  const LumJson::Value json = Network::InterfaceToJson(*lo);
  EXPECT_EQ(json["NAME"].asString(), "lo");
  EXPECT_EQ(json["ADDRESS"].asString(), "127.0.0.1");
  EXPECT_EQ(json["SSID"].asString(), "********");
  EXPECT_EQ(json["RX"]["BYTES"].asUInt64(), lo->rxBytes);
  EXPECT_EQ(json["TX"]["PACKETS"].asUInt64(), lo->txPackets);
}

}  // namespace
