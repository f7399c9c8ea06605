#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Base/CommandBase.h"
#include "Base/CommandContext.h"
#include "Platform/LumJson.h"
#include "Platform/RWLock.h"

namespace Lum {
namespace Sv {

// The registry of the commands a support session can run, and the device
// strings the commands report.
//
// Task threads ("ExecuteTask") are detached and may still be running a
// command while the agent terminates, and even after it has started again.
// So the descriptors are built once, at the first initialize, and kept for
// the life of the process: handlers refer to their descriptor, and nothing a
// task thread can reach is ever freed. terminate() only withdraws the
// registry from new look-ups and clears the device strings; the map itself
// is never written after it was built, so look-ups need no lock. The device
// strings are guarded by lock_.
class CommandManager {
 public:
  // Created on first use, never destroyed.
  static CommandManager* Instance();

  void initialize(const std::string& opid, const std::string& instance, const std::string& id,
                  const std::string& model, const std::string& brand, const std::string& esn,
                  const std::string& mac, const std::string& swVersion);
  void terminate();

  std::string getOpid() const;
  std::string getInstance() const;
  std::string getId() const;
  std::string getModel() const;
  std::string getBrand() const;
  std::string getEsn() const;
  std::string getMac() const;
  std::string getSwVersion() const;

  // False when no command of that name is registered (or the registry is
  // withdrawn); otherwise `descriptor` receives the registered descriptor,
  // which may be null.
  bool lookupCommand(const std::string& name, const CommandBase*& descriptor) const;

  // The answer of FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS: `outputs`
  // becomes an array with one entry per registered command, in name order.
  int reportAvailableCommands(const LumJson::Value& inputs, LumJson::Value& outputs) const;

  // One command's entry in that answer: its own description, when it offers
  // one and produces it, with "ID", "VERSION", "ESTIMATED_EXEC_TIME_MSEC" and
  // "OPERATIONS" set over it; only those four when the description failed.
  static LumJson::Value DescribeCommand(const CommandBase& command);

  // `array` becomes the names of the operations in `mask`. DESCRIPTION is
  // never listed: a command's description is asked for through
  // GET_AVAILABLE_COMMANDS, not by the back end directly.
  static void convertOperationsToStrings(CommandOperation mask, LumJson::Value& array);

 private:
  CommandManager() = default;
  void registerCommands();

  // Built once under registered_, then only read.
  std::map<std::string, std::unique_ptr<CommandBase>> commands_;
  std::once_flag registered_;
  // Whether look-ups see commands_: set after it is built (release), so a
  // reader that sees true (acquire) sees the whole map.
  std::atomic<bool> active_{false};

  mutable Core::RWLock lock_;
  std::string opid_ GUARDED_BY(lock_);
  std::string instance_ GUARDED_BY(lock_);
  std::string id_ GUARDED_BY(lock_);
  std::string model_ GUARDED_BY(lock_);
  std::string brand_ GUARDED_BY(lock_);
  std::string esn_ GUARDED_BY(lock_);
  std::string mac_ GUARDED_BY(lock_);
  std::string swVersion_ GUARDED_BY(lock_);
};

}  // namespace Sv
}  // namespace Lum
