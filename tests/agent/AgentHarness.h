#pragma once

#include <lum.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Platform/LumJson.h"
#include "support/TestSupport.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace LumTest {

// A television in miniature: the agent started through its C interface
// against a local back end with real mutual TLS, a persistent directory of
// its own and a log file the test can read.
class AgentHarness {
 public:
  AgentHarness();
  ~AgentHarness();

  Lum::Tools::Backend& backend() { return *backend_; }
  // The device's credentials, for tests that call the back end themselves.
  const Lum::Tools::DeviceIdentity& device() const { return device_; }
  const std::string& persistentPath() const { return dir_.path(); }
  std::string logPath() const { return dir_.file("agent.log"); }

  // The three texts LumInit takes; `coreExtra` members are merged into the
  // "core" section, `dataServices` (when an object) becomes that section.
  std::string identityText() const;
  std::string configText(const LumJson::Value& coreExtra = LumJson::Value(),
                         const LumJson::Value& dataServices = LumJson::Value()) const;
  std::string deviceText() const;
  // A further section of the configuration text (e.g. "supportView") for
  // every later start.
  void setConfigSection(const std::string& name, const LumJson::Value& section) {
    sections_[name] = section;
  }

  unsigned init(const LumJson::Value& coreExtra = LumJson::Value(),
                const LumJson::Value& dataServices = LumJson::Value());
  // LumTerm (or LumFactoryReset) and a wait for state 0; false on time-out.
  bool stop(bool factoryReset = false);
  unsigned state() const;
  bool waitForState(unsigned state, std::chrono::milliseconds timeout) const;

  // Paths of the requests the back end received, in arrival order, with the
  // "/api/v1/" prefix removed.
  std::vector<std::string> calls() const;
  std::string log() const { return ReadFile(logPath()); }
  bool logContains(const std::string& text) const;
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout) const;

  // Writes the persisted "core" document with the given members over the
  // defaults, as a previous run would have left it.
  void seedPersistedValues(const LumJson::Value& members) const;

  static const std::string kOpid;
  // The PKI the back end and the device share, for documents signed by hand.
  static const Lum::Tools::TestPki& Pki();

 private:

  TempDir dir_;
  std::unique_ptr<Lum::Tools::Backend> backend_;
  Lum::Tools::DeviceIdentity device_;
  LumJson::Value sections_{LumJson::objectValue};
};

// Short schedule values the tests push or seed, so that every call follows
// within a fraction of a second.
LumJson::Value QuickTunables(unsigned pollMs = 300, unsigned retryMs = 300);

}  // namespace LumTest
