#include "Platform/System.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/System");

namespace Lum {
namespace Sv {

namespace {

using FP = Core::FilterProperties;

constexpr int kSv = FP::SERVICE_SV;
const char* const kDefaultPingProgram = "/bin/ping";

std::atomic<uint64_t> gShellRuns{0};

struct PingProgram {
  std::mutex mutex;
  std::string path = kDefaultPingProgram;
};

// Never destroyed: a diagnostics task may still ping while the host exits.
PingProgram& ThePingProgram() {
  static PingProgram* const program = new PingProgram();
  return *program;
}

// The program path goes into a shell command unquoted.
bool IsPlainPath(const std::string& path) {
  for (char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '/' || c == '.' || c == '_' || c == '-';
    if (!plain) {
      return false;
    }
  }
  return !path.empty();
}

}  // namespace

int System::SystemCall(const std::string& command, int& exitCode) {
  LUM_TRACE(kSv);
  gShellRuns.fetch_add(1);
  const int status = std::system(command.c_str());
  if (status == -1) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "System call \"%s\" failed.",
            command.c_str());
    return 1;
  }
  exitCode = (status >> 8) & 0xff;
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "System call \"%s\" returned 0x%01x.",
          command.c_str(), static_cast<unsigned>(exitCode));
  return 0;
}

int System::Ping(const std::string& numericAddress, int& exitCode) {
  in_addr parsed{};
  char address[INET_ADDRSTRLEN];
  if (inet_pton(AF_INET, numericAddress.c_str(), &parsed) != 1 ||
      inet_ntop(AF_INET, &parsed, address, sizeof address) == nullptr) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Ping refused: not a numeric IPv4 address.");
    return 1;
  }
  std::string program;
  {
    std::lock_guard<std::mutex> lock(ThePingProgram().mutex);
    program = ThePingProgram().path;
  }
  return SystemCall(program + " -c 2 -W 1 " + address + " > /dev/null", exitCode);
}

bool System::SetPingProgram(const std::string& path) {
  if (!path.empty() && !IsPlainPath(path)) {
    return false;
  }
  std::lock_guard<std::mutex> lock(ThePingProgram().mutex);
  ThePingProgram().path = path.empty() ? kDefaultPingProgram : path;
  return true;
}

uint64_t System::ShellRuns() {
  return gShellRuns.load();
}

}  // namespace Sv
}  // namespace Lum
