#include "Project/CommandManager.h"

#include <utility>

#include "Base/CommandDescriptor.h"
#include "Base/CommandHandler.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/LockRead.h"
#include "Platform/LockWrite.h"
#include "Platform/Logger.h"
#include "Project/CommandBTDiagnostic.h"
#include "Project/CommandCheckForUpdates.h"
#include "Project/CommandDTVDiagnoseTool.h"
#include "Project/CommandGetAvailableCommands.h"
#include "Project/CommandGetAvailableLocales.h"
#include "Project/CommandGetDeviceCapabilities.h"
#include "Project/CommandGetDeviceConfig.h"
#include "Project/CommandGetDeviceInfo.h"
#include "Project/CommandHDMIDiagnostic.h"
#include "Project/CommandLbrLookup.h"
#include "Project/CommandNetworkDiagnostic.h"
#include "Project/CommandNorvikOTATool.h"
#include "Project/CommandPQAQResetTool.h"
#include "Project/CommandPQAQRestoreTool.h"
#include "Project/CommandPictureDiagnoseTool.h"
#include "Project/CommandPictureDiagnostic.h"
#include "Project/CommandProductReturnPreprocess.h"
#include "Project/CommandRemoteButton.h"
#include "Project/CommandResetFactoryDefaults.h"
#include "Project/CommandSetDateTime.h"
#include "Project/CommandSoundDiagnoseTool.h"
#include "Project/CommandSoundDiagnostic.h"
#include "Project/CommandSourceChangeTool.h"
#include "Project/CommandSystemInfo.h"
#include "Project/CommandTVDiagnostic.h"

LUM_SOURCE_FILE("Project/CommandManager");

namespace Lum {
namespace Sv {

using Core::LockRead;
using Core::LockWrite;
using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;

constexpr unsigned kExecute = EXECUTE;
constexpr unsigned kExecuteDescription = EXECUTE | DESCRIPTION;
constexpr unsigned kExecuteGetDescription = EXECUTE | GET | DESCRIPTION;

using Factory = std::unique_ptr<CommandBase> (*)(const CommandAttributes&);

template <class Handler>
std::unique_ptr<CommandBase> Make(const CommandAttributes& attributes) {
  return std::make_unique<CommandDescriptor<Handler>>(attributes);
}

struct Registration {
  CommandAttributes attributes;
  Factory factory;
};

// Commands whose handlers are still to come are registered with the base
// handler: the back end sees them listed with their attributes, and every
// operation they offer answers 5 (not implemented) until their handler
// replaces it here.
constexpr Factory kPending = &Make<CommandHandler>;

// In the order of registration. Not registered, so the back end cannot call
// them: FFFFFF_LIVE_SUPPORT_COMMAND_HANDLER_TEMPLATE (HandlerTemplate, the
// pattern for new commands) and FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS
// (NetworkDiagnostics).
const Registration kRegistrations[] = {
    // name, descriptor class, type, version, time to complete (ms), operations
    {{"FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS", "GetAvailableCommands", 1, 0, 0, kExecute},
     &Make<CommandGetAvailableCommands>},
    {{"FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES", "GetAvailableLocales", 1, 0, 500,
      kExecute},
     &Make<CommandGetAvailableLocales>},
    {{"FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES", "CheckForUpdates", 1, 0, 2000, kExecute},
     &Make<CommandCheckForUpdates>},
    {{"FFFFFF_LIVE_SUPPORT_GET_DEVICE_CAPABILITIES", "GetDeviceCapabilities", 1, 0, 50, kExecute},
     &Make<CommandGetDeviceCapabilities>},
    {{"FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO", "GetDeviceInfo", 1, 0, 50, kExecute},
     &Make<CommandGetDeviceInfo>},
    {{"FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP", "LbrLookup", 1, 0, 250, kExecute},
     &Make<CommandLbrLookup>},
    {{"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS", "MediaStreamParams", 1, 1, 250,
      kExecuteGetDescription},
     kPending},
    {{"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL", "MediaStreamTransportControl", 1, 1,
      250, kExecuteGetDescription},
     kPending},
    {{"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS", "MediaStreamVideoLayers", 1, 1, 250,
      kExecuteGetDescription},
     kPending},
    {{"FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON", "RemoteButton", 1, 0, 500, kExecuteDescription},
     &Make<CommandRemoteButton>},
    {{"FFFFFF_LIVE_SUPPORT_SET_DATE_TIME", "SetDateTime", 1, 0, 250, kExecute},
     &Make<CommandSetDateTime>},
    {{"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_LOCATION", "TrainingRemoteLocation", 1, 1, 250,
      kExecuteGetDescription},
     kPending},
    {{"FFFFFF_LIVE_SUPPORT_TRAINING_REMOTE_STATE", "TrainingRemoteState", 1, 1, 250,
      kExecuteGetDescription},
     kPending},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_SYSTEM_INFO_DIAGNOSTIC", "SystemInfo", 2, 0, 2000,
      kExecuteDescription},
     &Make<CommandSystemInfo>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_PICTURE_DIAGNOSTIC", "PictureDiagnostic", 2, 0, 2000,
      kExecuteDescription},
     &Make<CommandPictureDiagnostic>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_SOUND_DIAGNOSTIC", "SoundDiagnostic", 2, 0, 2000,
      kExecuteDescription},
     &Make<CommandSoundDiagnostic>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_HDMI_DIAGNOSTIC", "HDMIDiagnostic", 2, 0, 2000,
      kExecuteDescription},
     &Make<CommandHDMIDiagnostic>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_TV_DIAGNOSTIC", "TVDiagnostic", 2, 0, 2000, kExecuteDescription},
     &Make<CommandTVDiagnostic>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC", "NetworkDiagnostic", 2, 0, 30000,
      kExecuteDescription},
     &Make<CommandNetworkDiagnostic>},
    {{"B7E20D_LIVE_SUPPORT_NORVIK_BT_DIAGNOSTIC", "BTDiagnostic", 2, 0, 2000, kExecuteDescription},
     &Make<CommandBTDiagnostic>},
    {{"FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS", "ResetFactoryDefaults", 3, 0, 1000,
      kExecuteDescription},
     &Make<CommandResetFactoryDefaults>},
    {{"FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG", "GetDeviceConfig", 3, 0, 30000, kExecuteDescription},
     &Make<CommandGetDeviceConfig>},
    {{"FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS", "ProductReturnPreprocess", 3, 0, 500,
      kExecute},
     &Make<CommandProductReturnPreprocess>},
    {{"B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL", "PictureDiagnoseTool", 3, 0, 500,
      kExecuteGetDescription},
     &Make<CommandPictureDiagnoseTool>},
    {{"B7E20D_LIVE_SUPPORT_SOUND_SETTINGS", "SoundDiagnoseTool", 3, 0, 500, kExecuteGetDescription},
     &Make<CommandSoundDiagnoseTool>},
    {{"B7E20D_LIVE_SUPPORT_DTV_DIAGNOSTIC_TOOL", "DTVDiagnoseTool", 3, 0, 1000,
      kExecuteGetDescription},
     &Make<CommandDTVDiagnoseTool>},
    {{"B7E20D_LIVE_SUPPORT_SOURCE_CHANGE_TOOL", "SourceChangeTool", 3, 0, 1000,
      kExecuteDescription},
     &Make<CommandSourceChangeTool>},
    {{"B7E20D_LIVE_SUPPORT_OTA_TOOL", "NorvikOTATool", 3, 0, 10000, kExecuteDescription},
     &Make<CommandNorvikOTATool>},
    {{"B7E20D_LIVE_SUPPORT_PQ_AQ_RESTORE", "PQAQRestoreTool", 3, 0, 1000, kExecuteDescription},
     &Make<CommandPQAQRestoreTool>},
    {{"B7E20D_LIVE_SUPPORT_PQ_AQ_RESET", "PQAQResetTool", 3, 0, 1000, kExecuteDescription},
     &Make<CommandPQAQResetTool>},
};

}  // namespace

// Never destroyed: the host may exit while task threads still run commands.
CommandManager* CommandManager::Instance() {
  static CommandManager* const instance = new CommandManager();
  return instance;
}

void CommandManager::initialize(const std::string& opid, const std::string& instance,
                                const std::string& id, const std::string& model,
                                const std::string& brand, const std::string& esn,
                                const std::string& mac, const std::string& swVersion) {
  LUM_TRACE(kSv);
  {
    LockWrite lock(&lock_);
    opid_ = opid;
    instance_ = instance;
    id_ = id;
    model_ = model;
    brand_ = brand;
    esn_ = esn;
    mac_ = mac;
    swVersion_ = swVersion;
  }
  std::call_once(registered_, [this] { registerCommands(); });
  active_.store(true, std::memory_order_release);
}

void CommandManager::terminate() {
  LUM_TRACE(kSv);
  // The descriptors stay: a task thread may still be running a command.
  active_.store(false, std::memory_order_release);
  LockWrite lock(&lock_);
  opid_.clear();
  instance_.clear();
  id_.clear();
  model_.clear();
  brand_.clear();
  esn_.clear();
  mac_.clear();
  swVersion_.clear();
}

void CommandManager::registerCommands() {
  for (const Registration& registration : kRegistrations) {
    // emplace keeps a command that an earlier, interrupted attempt registered.
    commands_.emplace(registration.attributes.name, registration.factory(registration.attributes));
  }
}

std::string CommandManager::getOpid() const {
  LockRead lock(&lock_);
  return opid_;
}

std::string CommandManager::getInstance() const {
  LockRead lock(&lock_);
  return instance_;
}

std::string CommandManager::getId() const {
  LockRead lock(&lock_);
  return id_;
}

std::string CommandManager::getModel() const {
  LockRead lock(&lock_);
  return model_;
}

std::string CommandManager::getBrand() const {
  LockRead lock(&lock_);
  return brand_;
}

std::string CommandManager::getEsn() const {
  LockRead lock(&lock_);
  return esn_;
}

std::string CommandManager::getMac() const {
  LockRead lock(&lock_);
  return mac_;
}

std::string CommandManager::getSwVersion() const {
  LockRead lock(&lock_);
  return swVersion_;
}

bool CommandManager::lookupCommand(const std::string& name, const CommandBase*& descriptor) const {
  if (!active_.load(std::memory_order_acquire)) {
    return false;
  }
  const auto found = commands_.find(name);
  if (found == commands_.end()) {
    return false;
  }
  descriptor = found->second.get();
  return true;
}

int CommandManager::reportAvailableCommands(const LumJson::Value& /*inputs*/,
                                            LumJson::Value& outputs) const {
  LUM_TRACE(kSv);
  outputs = LumJson::Value(LumJson::arrayValue);
  if (!active_.load(std::memory_order_acquire)) {
    return 0;
  }
  for (const auto& [name, command] : commands_) {
    if (command != nullptr) {
      outputs.append(DescribeCommand(*command));
    }
  }
  return 0;
}

LumJson::Value CommandManager::DescribeCommand(const CommandBase& command) {
  const std::string name = command.name();
  LumJson::Value entry(LumJson::objectValue);
  if ((command.supportedOperations() & DESCRIPTION) != 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "Calling command %s to get description.",
            name.c_str());
    LumJson::Value description(LumJson::objectValue);
    int result = -1;
    // One command's failing description must not cost the whole list.
    Core::ExceptionBarrier::Run("DescribeCommand", [&] {
      const std::unique_ptr<CommandHandler> handler = command.create();
      if (handler != nullptr) {
        result = handler->descriptionHandler(description);
      }
    });
    // A description that is not an object cannot take the members below.
    if (result == 0 && description.isObject()) {
      entry.swap(description);
    } else {
      LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
              "Failed to retrieve command description for command %s.", name.c_str());
    }
  } else {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
            "Command %s does not have a command description.", name.c_str());
  }
  entry["ID"] = name;
  entry["VERSION"] = command.version();
  entry["ESTIMATED_EXEC_TIME_MSEC"] = command.timeToComplete();
  convertOperationsToStrings(command.supportedOperations(), entry["OPERATIONS"]);
  return entry;
}

void CommandManager::convertOperationsToStrings(CommandOperation mask, LumJson::Value& array) {
  array = LumJson::Value(LumJson::arrayValue);
  if ((mask & EXECUTE) != 0) {
    array.append("EXECUTE");
  }
  if ((mask & GET) != 0) {
    array.append("GET");
  }
  if ((mask & SESSION_TERMINATE) != 0) {
    array.append("SESSION_TERMINATE");
  }
}

}  // namespace Sv
}  // namespace Lum
