#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace Lum {
namespace Sv {

// The television's network state as the kernel reports it: the configured
// IPv4 interfaces (socket ioctls), their traffic counters ("/proc/net/dev")
// and the routing table ("/proc/net/route"). Nothing here throws or returns
// an error code: what cannot be read is logged and left at a neutral value,
// so that a report of a half-working network still shows the rest.
class Network {
 public:
  // One interface. The address texts are "Not Available" until read.
  struct InterfaceInfo {
    std::string name;
    std::string address = "Not Available";
    std::string netmask = "Not Available";
    std::string broadcast = "Not Available";
    std::string hwAddress = "Not Available";
    std::string gateway = "Not Available";
    // The wireless network's name. These routines never read it (the kernel
    // interfaces used here do not carry it; the platform's Wi-Fi service
    // does), so it starts masked rather than "Not Available": a report must
    // not suggest that it was looked for and not found, nor show a name
    // that was never checked.
    std::string ssid = "********";
    uint64_t rxBytes = 0;
    uint64_t rxPackets = 0;
    uint64_t rxErrors = 0;
    uint64_t rxDrops = 0;
    uint64_t rxFifo = 0;
    uint64_t rxFrame = 0;
    uint64_t rxCompressed = 0;
    uint64_t rxMulticast = 0;
    uint64_t txBytes = 0;
    uint64_t txPackets = 0;
    uint64_t txErrors = 0;
    uint64_t txDrops = 0;
    uint64_t txFifo = 0;
    uint64_t txCollisions = 0;
    uint64_t txCarrier = 0;
    uint64_t txCompressed = 0;
    bool hasCounters = false;  // a complete counter line was found
  };

  // One routing-table row; addresses in network byte order.
  struct RouteInfo {
    std::string interface;
    uint32_t destination = 0;
    uint32_t gateway = 0;
    uint32_t refCount = 0;
    uint32_t use = 0;
    uint32_t metric = 0;
    uint32_t mask = 0;
  };

  // Replaces `interfaces` with the configured IPv4 interfaces; the gateway
  // is set on the interface that carries the default route.
  static void GetInterfaceInfo(std::vector<InterfaceInfo>& interfaces);
  // Adds the traffic counters to the interfaces already in the list.
  static void getInterfaceInfoMetrics(std::vector<InterfaceInfo>& interfaces);
  // Replaces `routes` with the routing table, keyed "Route to <destination>".
  static void GetRouteInfo(std::map<std::string, RouteInfo>& routes);
  // The default route's gateway, "Not Available" without one.
  static std::string GetDefaultGateway();
  // Dotted form of an address in network byte order; "0.0.0.0" on failure.
  static std::string convertToIPv4Address(uint32_t address);

  // The interface as the support-view commands report it: members in upper
  // snake case, the counters (when read) under "RX" and "TX".
  static LumJson::Value InterfaceToJson(const InterfaceInfo& info);

  // Points the readers at other files ("/proc/net/dev", "/proc/net/route"),
  // for tests; an empty path restores the real one.
  static void SetProcFiles(const std::string& devPath, const std::string& routePath);
};

}  // namespace Sv
}  // namespace Lum
