#pragma once

#include <mutex>
#include <ostream>
#include <string>
#include <thread>

#include "tools/backend/Backend.h"

namespace Lum {
namespace Tools {

// The support agent's console of lum-backend: reads commands, one per line,
// from a file descriptor (standard input) and acts on the back end's support
// sessions. Output goes to `out` under `outputMutex`, which the back end's
// own printing shares, so that lines never interleave.
//
// End of input does not end the console or the back end: a FIFO is opened
// again and waits for its next writer (a demo script may open and close it
// several times); any other input is simply no longer read. stop() ends the
// reading thread whatever it is waiting for.
class SupportConsole {
 public:
  static const char* HelpText();
  // How task answers and session changes are printed as they happen.
  static std::string FormatAnswer(const TaskAnswer& answer);
  static std::string FormatEvent(const SupportSessionEvent& event);

  SupportConsole(Backend& backend, std::ostream& out, std::mutex& outputMutex);
  ~SupportConsole();
  SupportConsole(const SupportConsole&) = delete;
  SupportConsole& operator=(const SupportConsole&) = delete;

  // Starts reading `fd` on a thread of its own; false when no wake-up pipe
  // can be made.
  bool start(int fd);
  void stop();
  // Runs one command line.
  void execute(const std::string& line);

 private:
  void readLoop(int fd);
  int reopen(int original) const;
  void listSessions();
  void queueTask(const std::string& arguments);
  void listAnswers();
  void endSession(const std::string& arguments);
  void drmpCommand(const std::string& arguments);
  void updateCommand(const std::string& arguments);
  void print(const std::string& text);

  Backend& backend_;
  std::ostream& out_;
  std::mutex& outputMutex_;
  int wakePipe_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace Tools
}  // namespace Lum
