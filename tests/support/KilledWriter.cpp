#include "support/KilledWriter.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace LumTest {

namespace {

// Every word already in the pipe; with `waitMs`, first waits that long for one.
bool Drain(int fd, int waitMs, const KilledWriter::OnReport& onReport) {
  bool got = false;
  uint64_t word;
  pollfd p = {fd, POLLIN, 0};
  while (poll(&p, 1, got ? 0 : waitMs) == 1 && read(fd, &word, sizeof word) == sizeof word) {
    onReport(word);
    got = true;
  }
  return got;
}

}  // namespace

KilledWriter::KilledWriter(std::chrono::microseconds spread)
    : delayUs_(0, spread.count()), random_(std::random_device{}()) {}

bool KilledWriter::run(const Body& body, const OnReport& onReport, const char** why) {
  int fds[2];
  if (pipe(fds) != 0) {
    *why = "pipe failed";
    return false;
  }
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    body(fds[1]);
    _exit(0);
  }
  close(fds[1]);
  bool ok = child > 0 && Drain(fds[0], 20000, onReport);
  *why = ok ? "" : "the writer never completed a step";
  if (child > 0) {
    if (ok) {
      // The random moment of the crash, not a wait for a condition.
      std::this_thread::sleep_for(std::chrono::microseconds(delayUs_(random_)));
    }
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (ok && !(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) {
      *why = "the writer ended before its kill";
      ok = false;
    }
    Drain(fds[0], 0, onReport);
  }
  close(fds[0]);
  return ok;
}

void KilledWriter::Report(int fd, uint64_t word) {
  if (write(fd, &word, sizeof word) != sizeof word) {
    _exit(3);
  }
}

int KilledWriter::Count(const char* variable, int fallback) {
  const char* text = std::getenv(variable);
  const int value = text != nullptr ? std::atoi(text) : 0;
  return value > 0 ? value : fallback;
}

std::chrono::microseconds KilledWriter::Time(const std::function<void()>& step, int times) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < times; ++i) {
    step();
  }
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                               start) /
         times;
}

}  // namespace LumTest
