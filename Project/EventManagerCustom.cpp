// The product's way of showing the consent page: the device's browser,
// started with the URL and left running.
#include <unistd.h>

#include "Base/EventManager.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Project/EventManagerCustom");

namespace Lum {
namespace Core {

namespace {
constexpr const char* kBrowser = "chromium-browser";
}  // namespace

pid_t EventManager::PerformConsentNotification(const std::string& url) {
  LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
          FilterProperties::SEVERITY_INFO, "Executing %s %s", kBrowser, url.c_str());
  const pid_t child = fork();
  if (child == 0) {
    execlp(kBrowser, kBrowser, url.c_str(), static_cast<char*>(nullptr));
    // Only the child ends when the browser is missing; the host never sees it.
    _exit(127);
  }
  return child;
}

}  // namespace Core
}  // namespace Lum
