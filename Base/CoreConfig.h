#pragma once

#include <string>

#include "Platform/LumJson.h"

namespace Lum {
namespace Core {

// The "core" section of the configuration text given at start-up. Building it
// also hands the section's "loggers" to the logger and its "injectors" to the
// injector, so logging works from here on. Nothing in the configuration is
// fatal: a text that does not parse, a missing section or a mistyped key
// leaves the defaults, and an unusable directory is logged and kept.
//
// Built and owned by the core manager and only read afterwards; the core
// manager's mutex guards every access, so the class has no lock of its own.
class CoreConfig {
 public:
  // `configText` is the whole configuration document (NUL-terminated); a null
  // pointer is taken as an empty text.
  explicit CoreConfig(const char* configText);

  bool getSkipCurlGlobalInit() const { return skipCurlGlobalInit_; }
  bool getSkipSslCryptoInit() const { return skipSslCryptoInit_; }
  // Absolute and ending in "/" (so file names append directly), or empty,
  // which means the working directory.
  const std::string& getPersistentPath() const { return persistentPath_; }
  const std::string& getTemporaryPath() const { return temporaryPath_; }
  bool getEnableSwVersionSimulation() const { return enableSwVersionSimulation_; }
  const std::string& getInitialSimulatedSwVersion() const { return initialSimulatedSwVersion_; }

  void logStateDebug() const;

 private:
  // Runs before the text is read, so a product build can preset values that
  // the text may still override. This product presets nothing.
  void setCustomValues();
  void readCoreSection(const LumJson::Value& core);
  static void HandOverLoggers(const LumJson::Value& core);
  static void HandOverInjectors(const LumJson::Value& core);
  // Makes a relative directory absolute against the working directory,
  // reports one that is missing or not a directory (`label` names it in the
  // error line), and appends the trailing "/". An empty path stays empty.
  static std::string NormalizeDirectory(const std::string& path, const char* label);

  // Read-only after construction; see the class comment for the lock.
  bool skipCurlGlobalInit_ = false;
  bool skipSslCryptoInit_ = false;
  std::string persistentPath_;
  std::string temporaryPath_;
  bool enableSwVersionSimulation_ = false;
  std::string initialSimulatedSwVersion_;
};

}  // namespace Core
}  // namespace Lum
