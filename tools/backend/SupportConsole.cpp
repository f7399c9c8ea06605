#include "tools/backend/SupportConsole.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

#include "tools/backend/JsonText.h"

namespace Lum {
namespace Tools {

namespace {

constexpr const char* kDefaultOperation = "EXECUTE";

// One setting for the whole process: the back end's own printing of answers
// goes through the static FormatAnswer as well.
std::atomic<bool> g_compactAnswers{false};

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) {
    return std::string();
  }
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Splits off the first word; the rest comes back trimmed.
std::string FirstWord(const std::string& text, std::string* rest) {
  const std::string trimmed = Trim(text);
  const size_t end = trimmed.find_first_of(" \t");
  *rest = end == std::string::npos ? std::string() : Trim(trimmed.substr(end));
  return trimmed.substr(0, end);
}

// Operation names are upper-case words ("GET", "SESSION_TERMINATE"); inputs
// are JSON, which never looks like that.
bool IsOperationName(const std::string& word) {
  if (word.empty()) {
    return false;
  }
  for (char c : word) {
    if (!std::isupper(static_cast<unsigned char>(c)) && c != '_') {
      return false;
    }
  }
  return true;
}

std::string Pretty(const LumJson::Value& value) {
  LumJson::StreamWriterBuilder writer;
  writer["indentation"] = g_compactAnswers.load() ? "" : "  ";
  return LumJson::writeString(writer, value);
}

bool IsOpen(SupportSessionState state) {
  return state == SupportSessionState::Active || state == SupportSessionState::Suspended;
}

}  // namespace

const char* SupportConsole::HelpText() {
  return "support console commands (one per line on standard input):\n"
         "  sessions                          devices with their session state and code\n"
         "  task <CN|*> <COMMAND_NAME> [OPERATION] [INPUTS-JSON]\n"
         "                                    queue a one-command task; * = every device\n"
         "                                    with an open session; OPERATION defaults to\n"
         "                                    EXECUTE, INPUTS to {}\n"
         "  answers                           the task answers received so far\n"
         "  end <CN>                          end the device's session from the back end\n"
         "  compact on|off                    task answers on one line each (a script's\n"
         "                                    grep), or indented (the default)\n"
         "  drmp put <NAME> <TEXT>            list the object NAME holding TEXT for every\n"
         "                                    device (its version goes up by one)\n"
         "  drmp delete <NAME>                take the object NAME off the list\n"
         "  drmp reports                      the DRMP reports received so far\n"
         "  update publish <FILE> <VERSION> [BLOCK_BYTES]\n"
         "                                    offer FILE's bytes as update VERSION to\n"
         "                                    every device (blocks of 65536 by default)\n"
         "  update withdraw                   offer no update any more\n"
         "  update completions                the confirmed downloads reported so far\n"
         "  help                              this text\n";
}

std::string SupportConsole::FormatAnswer(const TaskAnswer& answer) {
  std::string text = "task answer from " + answer.commonName + ", TASK_ID " +
                     std::to_string(answer.taskId) + ", SESSION_ID " + answer.sessionId + ":\n";
  if (answer.output.isNull()) {
    return text + answer.text + "\n";  // not the document the agent should send
  }
  return text + Pretty(answer.output) + "\n";
}

std::string SupportConsole::FormatEvent(const SupportSessionEvent& event) {
  return "support session of " + event.commonName + " (code " + event.code + ") " +
         SupportSessionEventToString(event.kind) + "\n";
}

SupportConsole::SupportConsole(Backend& backend, std::ostream& out, std::mutex& outputMutex)
    : backend_(backend), out_(out), outputMutex_(outputMutex) {}

SupportConsole::~SupportConsole() {
  stop();
}

bool SupportConsole::start(int fd) {
  if (pipe2(wakePipe_, O_CLOEXEC) != 0) {
    return false;
  }
  thread_ = std::thread(&SupportConsole::readLoop, this, fd);
  return true;
}

void SupportConsole::stop() {
  if (thread_.joinable()) {
    const char wake = 'x';
    if (write(wakePipe_[1], &wake, 1) != 1) {
      // Cannot happen with an empty pipe; the join below would then wait
      // for the next line of input.
    }
    thread_.join();
  }
  for (int& end : wakePipe_) {
    if (end >= 0) {
      close(end);
      end = -1;
    }
  }
}

// Reads with poll() so that stop() can always end it, and never reads after
// end of input unless there may be more (a FIFO's next writer).
void SupportConsole::readLoop(int fd) {
  const int original = fd;
  std::string pending;
  char buffer[4096];
  while (true) {
    pollfd fds[2] = {{wakePipe_[0], POLLIN, 0}, {fd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      break;
    }
    if (fds[0].revents != 0) {
      break;
    }
    if (fds[1].revents == 0) {
      continue;
    }
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      pending.append(buffer, static_cast<size_t>(n));
      for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
        const std::string line = pending.substr(0, end);
        pending.erase(0, end + 1);
        execute(line);
      }
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      continue;
    }
    // End of input (or an error reading it).
    if (!pending.empty()) {
      execute(pending);
      pending.clear();
    }
    if (fd != original) {
      close(fd);
    }
    fd = reopen(original);
  }
  if (fd >= 0 && fd != original) {
    close(fd);
  }
}

// A FIFO at end of input is opened again, without blocking: the new
// descriptor reports nothing until a writer comes and writes or leaves.
// Anything else gives -1, which poll() ignores.
int SupportConsole::reopen(int original) const {
  struct stat info {};
  if (fstat(original, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    return -1;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(original);
  return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

void SupportConsole::execute(const std::string& line) {
  std::string arguments;
  const std::string command = FirstWord(line, &arguments);
  if (command.empty()) {
    return;
  }
  if (command == "sessions") {
    listSessions();
  } else if (command == "task") {
    queueTask(arguments);
  } else if (command == "answers") {
    listAnswers();
  } else if (command == "end") {
    endSession(arguments);
  } else if (command == "compact" && (arguments == "on" || arguments == "off")) {
    g_compactAnswers = arguments == "on";
    print(std::string("task answers are printed ") +
          (arguments == "on" ? "on one line each\n" : "indented\n"));
  } else if (command == "drmp") {
    drmpCommand(arguments);
  } else if (command == "update") {
    updateCommand(arguments);
  } else if (command == "help") {
    print(HelpText());
  } else {
    print("unknown command \"" + command + "\"; try help\n");
  }
}

// The device fetches the change at its next check (LumCheckForDrmpUpdate,
// a restart or its schedule).
void SupportConsole::drmpCommand(const std::string& arguments) {
  std::string rest;
  const std::string verb = FirstWord(arguments, &rest);
  std::string text;
  const std::string name = FirstWord(rest, &text);
  if (verb == "put" && !name.empty()) {
    backend_.drmp().put(name, text);
    print("DRMP object " + name + " listed\n");
  } else if (verb == "delete" && !name.empty()) {
    print(backend_.drmp().remove(name) ? "DRMP object " + name + " taken off the list\n"
                                       : "no DRMP object " + name + "\n");
  } else if (verb == "reports") {
    std::string list;
    for (const LumJson::Value& report : backend_.drmp().reports()) {
      list += Pretty(report) + "\n";
    }
    print(list.empty() ? "no DRMP reports yet\n" : list);
  } else {
    print("usage: drmp put <NAME> <TEXT> | drmp delete <NAME> | drmp reports\n");
  }
}

// The device sees the offer at its next metadata request (a source set by
// the host, a "softwareupdate" event, or a restart).
void SupportConsole::updateCommand(const std::string& arguments) {
  std::string rest;
  const std::string verb = FirstWord(arguments, &rest);
  if (verb == "publish") {
    std::string more;
    const std::string file = FirstWord(rest, &more);
    UpdateOffer offer;
    offer.version = FirstWord(more, &more);
    const std::string block = FirstWord(more, &more);
    if (!block.empty()) {
      offer.blockSize = static_cast<uint32_t>(std::strtoul(block.c_str(), nullptr, 10));
    }
    std::ifstream in(file, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    offer.payload = bytes.str();
    if (file.empty() || offer.version.empty() || offer.blockSize == 0 || !in ||
        offer.payload.empty()) {
      print("usage: update publish <FILE> <VERSION> [BLOCK_BYTES] (a readable, non-empty file)\n");
      return;
    }
    backend_.updates().publishUpdate(offer);
    print("offering update " + offer.version + " (" + std::to_string(offer.payload.size()) +
          " bytes)\n");
  } else if (verb == "withdraw") {
    backend_.updates().withdrawUpdate();
    print("no update offered\n");
  } else if (verb == "completions") {
    std::string list;
    for (const LumJson::Value& completion : backend_.updates().downloadCompletions()) {
      list += Pretty(completion) + "\n";
    }
    print(list.empty() ? "no download completions yet\n" : list);
  } else {
    print(
        "usage: update publish <FILE> <VERSION> [BLOCK_BYTES] | update withdraw | "
        "update completions\n");
  }
}

void SupportConsole::listSessions() {
  std::string text;
  for (const auto& name : backend_.deviceNames()) {
    SupportSessionView view;
    if (!backend_.supportSession(name, &view)) {
      continue;  // registered, but never asked for support
    }
    text += "  " + name + "  " + SupportSessionStateToString(view.state) + "  code " +
            (view.code.empty() ? "-" : view.code) + "  tasks queued " +
            std::to_string(view.lastQueuedSeqNum) + ", pending " +
            std::to_string(view.pendingTasks) + ", answers " +
            std::to_string(view.answersAccepted) + "\n";
  }
  print(text.empty() ? "no support sessions\n" : "support sessions:\n" + text);
}

void SupportConsole::queueTask(const std::string& arguments) {
  std::string rest;
  const std::string target = FirstWord(arguments, &rest);
  const std::string name = FirstWord(rest, &rest);
  if (target.empty() || name.empty()) {
    print("usage: task <CN|*> <COMMAND_NAME> [OPERATION] [INPUTS-JSON]\n");
    return;
  }
  std::string operation = kDefaultOperation;
  std::string next;
  const std::string word = FirstWord(rest, &next);
  if (IsOperationName(word)) {
    operation = word;
    rest = next;
  }
  LumJson::Value inputs(LumJson::objectValue);
  if (!rest.empty() && !JsonText::ParseStrict(rest, &inputs)) {
    print("the inputs are not JSON: " + rest + "\n");
    return;
  }
  std::vector<std::string> targets;
  if (target == "*") {
    for (const auto& device : backend_.deviceNames()) {
      SupportSessionView view;
      if (backend_.supportSession(device, &view) && IsOpen(view.state)) {
        targets.push_back(device);
      }
    }
  } else {
    targets.push_back(target);
  }
  std::string text;
  for (const auto& device : targets) {
    const uint32_t taskId = backend_.queueCommand(device, name, operation, inputs);
    text += taskId != 0 ? "queued task " + std::to_string(taskId) + " (" + name + " " + operation +
                              ") for " + device + "\n"
                        : device + " has no open support session\n";
  }
  print(text.empty() ? "no device has an open support session\n" : text);
}

void SupportConsole::listAnswers() {
  std::string text;
  for (const auto& answer : backend_.taskAnswers()) {
    text += FormatAnswer(answer);
  }
  print(text.empty() ? "no task answers yet\n" : text);
}

void SupportConsole::endSession(const std::string& arguments) {
  std::string rest;
  const std::string device = FirstWord(arguments, &rest);
  if (device.empty()) {
    print("usage: end <CN>\n");
  } else if (!backend_.endSession(device)) {
    print(device + " has no open support session\n");
  }
  // An ended session is reported by the session event itself.
}

void SupportConsole::print(const std::string& text) {
  std::lock_guard<std::mutex> lock(outputMutex_);
  out_ << text << std::flush;
}

}  // namespace Tools
}  // namespace Lum
