// The product's way of showing the consent page: the device's browser,
// started with the URL and left running.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Base/EventManager.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Project/EventManagerCustom");

namespace Lum {
namespace Core {

namespace {

using FP = FilterProperties;

constexpr const char* kBrowser = "chromium-browser";
constexpr char kScheme[] = "https://";

// The URL comes from the back end and reaches the browser as its only
// argument: one that does not start with the scheme could be taken for an
// option, and whitespace or control characters have no place in a URL (RFC
// 3986 has none, and non-ASCII text must be percent-encoded), so only
// printable ASCII other than the space is let through.
bool IsHttpsUrl(const std::string& url) {
  if (url.size() <= sizeof kScheme - 1 || url.compare(0, sizeof kScheme - 1, kScheme) != 0) {
    return false;
  }
  for (const char c : url) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (byte <= ' ' || byte >= 0x7f) {
      return false;
    }
  }
  return true;
}

void LogFailure(const char* reason) {
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot start %s: %s", kBrowser,
          reason);
}

}  // namespace

// The browser must outlive the call without the host having to reap it, so
// it is started from an intermediate child that exits at once: the browser
// is then adopted by init, and the only child of the host, the intermediate,
// is reaped here. Between fork and exec the children run in a copy of a
// multi-threaded process, so they only make async-signal-safe calls on data
// prepared beforehand.
pid_t EventManager::PerformConsentNotification(const std::string& url) {
  if (!IsHttpsUrl(url)) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Not executing %s %s, not an https URL", kBrowser, url.c_str());
    return -1;
  }
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Executing %s %s", kBrowser,
          url.c_str());
  std::string program = kBrowser;
  std::string argument = url;
  char* const argv[] = {&program[0], &argument[0], nullptr};

  // Close-on-exec, so the browser does not keep the write end open.
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) {
    LogFailure(strerror(errno));
    return -1;
  }
  const pid_t intermediate = fork();
  if (intermediate < 0) {
    const int error = errno;
    close(pipeFds[0]);
    close(pipeFds[1]);
    LogFailure(strerror(error));
    return -1;
  }
  if (intermediate == 0) {
    close(pipeFds[0]);
    const pid_t browser = fork();
    if (browser == 0) {
      execvp(argv[0], argv);
      _exit(127);  // only the browser's process ends when it cannot start
    }
    const bool reported = write(pipeFds[1], &browser, sizeof browser) == sizeof browser;
    _exit(browser > 0 && reported ? 0 : 1);
  }
  close(pipeFds[1]);
  pid_t browser = -1;
  ssize_t got;
  do {
    got = read(pipeFds[0], &browser, sizeof browser);
  } while (got < 0 && errno == EINTR);
  close(pipeFds[0]);
  int status = 0;
  pid_t reaped;
  do {
    reaped = waitpid(intermediate, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  // A host that ignores SIGCHLD has its children reaped by the kernel, and
  // waitpid reports ECHILD; the pipe still tells whether the browser started.
  const bool exited = reaped == intermediate ? WIFEXITED(status) && WEXITSTATUS(status) == 0
                                             : reaped < 0 && errno == ECHILD;
  if (got != static_cast<ssize_t>(sizeof browser) || browser <= 0 || !exited) {
    LogFailure("its launching process failed");
    return -1;
  }
  return browser;
}

}  // namespace Core
}  // namespace Lum
