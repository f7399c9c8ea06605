#include "Platform/Network.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/Network");

namespace Lum {
namespace Sv {

namespace {

using FP = Core::FilterProperties;

constexpr int kSv = FP::SERVICE_SV;
constexpr size_t kBufferSize = 2048;
constexpr int kCounterCount = 16;
const char* const kNotAvailable = "Not Available";
const char* const kDefaultRouteKey = "Route to 0.0.0.0";
const char* const kRealDevFile = "/proc/net/dev";
const char* const kRealRouteFile = "/proc/net/route";

// The files read; replaced only by tests, but read from any thread.
struct ProcFiles {
  std::mutex mutex;
  std::string dev = kRealDevFile;
  std::string route = kRealRouteFile;
};

// Never destroyed: a command may still read the network while the host exits.
ProcFiles& Files() {
  static ProcFiles* const files = new ProcFiles();
  return *files;
}

std::string DevFile() {
  std::lock_guard<std::mutex> lock(Files().mutex);
  return Files().dev;
}

std::string RouteFile() {
  std::lock_guard<std::mutex> lock(Files().mutex);
  return Files().route;
}

// Reads one line into `buffer`; a line longer than the buffer is consumed
// whole and reported as not read, so that its tail is never taken for a line
// of its own.
bool ReadLine(FILE* file, char (&buffer)[kBufferSize], bool& complete) {
  if (fgets(buffer, sizeof buffer, file) == nullptr) {
    return false;
  }
  complete = std::strchr(buffer, '\n') != nullptr || feof(file);
  if (!complete) {
    int c = 0;
    while ((c = fgetc(file)) != EOF && c != '\n') {
    }
  }
  return true;
}

// Closes the socket however the listing ends.
class SocketCloser {
 public:
  explicit SocketCloser(int fd) : fd_(fd) {}
  ~SocketCloser() { close(fd_); }
  SocketCloser(const SocketCloser&) = delete;
  SocketCloser& operator=(const SocketCloser&) = delete;

 private:
  int fd_;
};

std::string AddressOf(const sockaddr& address) {
  if (address.sa_family != AF_INET) {
    return kNotAvailable;
  }
  sockaddr_in inet{};
  std::memcpy(&inet, &address, sizeof inet);
  return Network::convertToIPv4Address(inet.sin_addr.s_addr);
}

std::string HardwareAddressOf(const sockaddr& address) {
  const unsigned char* b = reinterpret_cast<const unsigned char*>(address.sa_data);
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4],
                b[5]);
  return text;
}

LumJson::Value Counters(std::initializer_list<std::pair<const char*, uint64_t>> counters) {
  LumJson::Value object(LumJson::objectValue);
  for (const auto& counter : counters) {
    object[counter.first] = static_cast<LumJson::UInt64>(counter.second);
  }
  return object;
}

}  // namespace

void Network::SetProcFiles(const std::string& devPath, const std::string& routePath) {
  std::lock_guard<std::mutex> lock(Files().mutex);
  Files().dev = devPath.empty() ? kRealDevFile : devPath;
  Files().route = routePath.empty() ? kRealRouteFile : routePath;
}

std::string Network::convertToIPv4Address(uint32_t address) {
  in_addr in{};
  in.s_addr = address;
  char text[INET_ADDRSTRLEN];
  if (inet_ntop(AF_INET, &in, text, sizeof text) == nullptr) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Error converting network address to string.");
    return "0.0.0.0";
  }
  return text;
}

void Network::GetInterfaceInfo(std::vector<InterfaceInfo>& interfaces) {
  LUM_TRACE(kSv);
  interfaces.clear();
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Opening File.");
    return;
  }
  SocketCloser closer(fd);
  // 2048 bytes hold 64 records of the 32-bit ARM layout; a longer listing is
  // cut by the kernel, not overrun.
  alignas(ifreq) char buffer[kBufferSize];
  ifconf listing{};
  listing.ifc_len = sizeof buffer;
  listing.ifc_buf = buffer;
  if (ioctl(fd, SIOCGIFCONF, &listing) < 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Reading File.");
    return;
  }
  std::map<std::string, RouteInfo> routes;
  GetRouteInfo(routes);
  const auto defaultRoute = routes.find(kDefaultRouteKey);

  const size_t count = static_cast<size_t>(listing.ifc_len) / sizeof(ifreq);
  const ifreq* records = reinterpret_cast<const ifreq*>(buffer);
  for (size_t i = 0; i < count; ++i) {
    InterfaceInfo info;
    info.name.assign(records[i].ifr_name, strnlen(records[i].ifr_name, IFNAMSIZ));
    info.address = AddressOf(records[i].ifr_addr);

    ifreq query{};
    std::memcpy(query.ifr_name, records[i].ifr_name, IFNAMSIZ);
    if (ioctl(fd, SIOCGIFNETMASK, &query) == 0) {
      info.netmask = AddressOf(query.ifr_netmask);
    }
    if (ioctl(fd, SIOCGIFHWADDR, &query) == 0) {
      info.hwAddress = HardwareAddressOf(query.ifr_hwaddr);
    }
    if (ioctl(fd, SIOCGIFBRDADDR, &query) == 0) {
      info.broadcast = AddressOf(query.ifr_broadaddr);
    }
    if (defaultRoute != routes.end() && defaultRoute->second.interface == info.name &&
        defaultRoute->second.gateway != 0) {
      info.gateway = convertToIPv4Address(defaultRoute->second.gateway);
    }
    interfaces.push_back(info);
  }
}

void Network::getInterfaceInfoMetrics(std::vector<InterfaceInfo>& interfaces) {
  LUM_TRACE(kSv);
  FILE* file = std::fopen(DevFile().c_str(), "r");
  if (file == nullptr) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Opening File.");
    return;
  }
  char line[kBufferSize];
  bool complete = false;
  if (!ReadLine(file, line, complete) || !ReadLine(file, line, complete)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Reading File.");
    std::fclose(file);
    return;
  }
  while (ReadLine(file, line, complete)) {
    if (!complete) {
      continue;
    }
    const char* start = line;
    while (*start == ' ' || *start == '\t') {
      ++start;
    }
    const char* colon = std::strchr(start, ':');
    if (colon == nullptr) {
      continue;
    }
    const std::string name(start, colon);
    InterfaceInfo* info = nullptr;
    for (InterfaceInfo& candidate : interfaces) {
      if (candidate.name == name) {
        info = &candidate;
        break;
      }
    }
    if (info == nullptr) {
      continue;
    }
    unsigned long long c[kCounterCount] = {};
    const int converted = std::sscanf(colon + 1,
                                      "%20llu %20llu %20llu %20llu %20llu %20llu %20llu %20llu "
                                      "%20llu %20llu %20llu %20llu %20llu %20llu %20llu %20llu",
                                      &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7], &c[8],
                                      &c[9], &c[10], &c[11], &c[12], &c[13], &c[14], &c[15]);
    if (converted != kCounterCount) {
      continue;
    }
    uint64_t* const fields[kCounterCount] = {
        &info->rxBytes, &info->rxPackets,    &info->rxErrors,     &info->rxDrops,
        &info->rxFifo,  &info->rxFrame,      &info->rxCompressed, &info->rxMulticast,
        &info->txBytes, &info->txPackets,    &info->txErrors,     &info->txDrops,
        &info->txFifo,  &info->txCollisions, &info->txCarrier,    &info->txCompressed};
    for (int i = 0; i < kCounterCount; ++i) {
      *fields[i] = c[i];
    }
    info->hasCounters = true;
  }
  if (std::ferror(file)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Reading File.");
  }
  std::fclose(file);
}

void Network::GetRouteInfo(std::map<std::string, RouteInfo>& routes) {
  LUM_TRACE(kSv);
  routes.clear();
  FILE* file = std::fopen(RouteFile().c_str(), "r");
  if (file == nullptr) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Opening File.");
    return;
  }
  char line[kBufferSize];
  bool complete = false;
  if (!ReadLine(file, line, complete)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Reading File.");
    std::fclose(file);
    return;
  }
  while (ReadLine(file, line, complete)) {
    if (!complete) {
      continue;
    }
    char name[128] = {};
    RouteInfo route;
    if (std::sscanf(line, "%127s %10X %10X %*u %10u %10u %10u %10X", name, &route.destination,
                    &route.gateway, &route.refCount, &route.use, &route.metric, &route.mask) != 7) {
      continue;
    }
    route.interface = name;
    // Of two routes to one destination the kernel prefers the lower metric;
    // the table reports the one it uses.
    const std::string key = "Route to " + convertToIPv4Address(route.destination);
    const auto found = routes.find(key);
    if (found == routes.end() || route.metric < found->second.metric) {
      routes[key] = route;
    }
  }
  if (std::ferror(file)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Error Reading File.");
  }
  std::fclose(file);
}

std::string Network::GetDefaultGateway() {
  std::map<std::string, RouteInfo> routes;
  GetRouteInfo(routes);
  const auto found = routes.find(kDefaultRouteKey);
  // A default route without a gateway (a point-to-point link) has nothing
  // to ping; 0.0.0.0 would answer from the television itself.
  if (found == routes.end() || found->second.gateway == 0) {
    return kNotAvailable;
  }
  return convertToIPv4Address(found->second.gateway);
}

LumJson::Value Network::InterfaceToJson(const InterfaceInfo& info) {
  LumJson::Value object(LumJson::objectValue);
  object["NAME"] = info.name;
  object["ADDRESS"] = info.address;
  object["NETMASK"] = info.netmask;
  object["BROADCAST"] = info.broadcast;
  object["HW_ADDRESS"] = info.hwAddress;
  object["GATEWAY"] = info.gateway;
  object["SSID"] = info.ssid;
  if (info.hasCounters) {
    object["RX"] = Counters({{"BYTES", info.rxBytes},
                             {"PACKETS", info.rxPackets},
                             {"ERRORS", info.rxErrors},
                             {"DROPS", info.rxDrops},
                             {"FIFO", info.rxFifo},
                             {"FRAME", info.rxFrame},
                             {"COMPRESSED", info.rxCompressed},
                             {"MULTICAST", info.rxMulticast}});
    object["TX"] = Counters({{"BYTES", info.txBytes},
                             {"PACKETS", info.txPackets},
                             {"ERRORS", info.txErrors},
                             {"DROPS", info.txDrops},
                             {"FIFO", info.txFifo},
                             {"COLLISIONS", info.txCollisions},
                             {"CARRIER", info.txCarrier},
                             {"COMPRESSED", info.txCompressed}});
  }
  return object;
}

}  // namespace Sv
}  // namespace Lum
