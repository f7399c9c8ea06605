#pragma once

#include <lum.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/Manager.h"
#include "Platform/Http.h"
#include "Platform/Thread.h"
#include "Platform/TimedSem.h"

namespace Lum {
namespace Core {
class CoreConfig;
class PersistentValues;
class ProductIdentity;
}  // namespace Core

namespace Su {

class SoftwareUpdateConfig;

// Texts of the source, permission and update state values; "Unknown" for
// any other value.
const char* LumSoftwareUpdateSourceToString(int source);
const char* LumSoftwareUpdatePermissionToString(int permission);
const char* LumSoftwareUpdateStateToString(int state);

// Finds, fetches and verifies software updates on "UpdateControl". The host
// names the source (the back end's metadata, or an envelope file on the
// device) and the user's permission; the manager opens the signed metadata,
// then, as the permission allows, assembles the payload in the staging
// location block by block, each block checked against its hash before it
// counts, and the whole payload against its hash at the end. Progress is
// kept in the file "suState", so that a restart (or a power loss) resumes at
// the last verified block. See docs/software-update.md for the states.
//
// Everything below is guarded by the core mutex (CoreManager::getMutex),
// which UpdateControl releases only while it waits on sem_ and while a
// transfer, a file copy or a check of the staging file runs.
class SoftwareUpdateManager : public Core::Manager, private Core::ControlCycle {
 public:
  enum Source { SourceLocal = 0, SourceNetwork = 1 };
  enum Permission { PermissionNone = 0, PermissionDownload = 1, PermissionConfirm = 2 };
  enum MicroService {
    GetMetadata = 0,
    GetPayloadBlock = 1,
    CheckStaging = 2,
    DownloadComplete = 3,
    NoCall = 4
  };

  static SoftwareUpdateManager* Instance();

  void initialize(const Core::ManagerContext& context) override;
  void cascadeStateChanges() override;
  void terminateBegin() override;
  void terminateEnd() override;
  const char* waitName() const override { return "Software Update"; }
  void getStatus(LumStatus& status) override;
  void logStatusInfo(StatusSection section) override;

  // Behind LumSetSoftwareUpdateSource and the "softwareupdate" event, and
  // LumSetSoftwareUpdatePermission; both take the core mutex.
  unsigned setSource(unsigned source, const std::string& location, bool explicitCall);
  unsigned setPermission(unsigned permission);

  static const char* MicroServiceToString(int microService);

 private:
  // What the signed metadata offers.
  struct Offer {
    std::string envelope;  // as received: the state file keeps it signed
    std::string version;
    std::string sha256;
    std::string payload;  // path under the back end's API, or a local file
    uint64_t size = 0;
    uint32_t blockSize = 0;
    std::vector<std::string> blockHashes;
    bool mandatory = false;
    bool autoAnswer = false;
    bool sameAs(const Offer& other) const;
  };
  enum class Outcome { Done, Retry, Fail, NoUpdate };
  // One step, filled under the mutex by prepMicroService and carried out by
  // perform without it. Only UpdateControl touches it.
  struct Job {
    MicroService ms = NoCall;
    bool local = false;
    std::string sourcePath;  // local envelope or payload file
    std::string stagingPath;
    uint64_t offset = 0;  // the piece of the payload asked for
    uint64_t length = 0;
    bool emptyStagingFirst = false;
    bool checkSpace = false;
    uint64_t payloadSize = 0;
    bool completesBlock = false;
    uint64_t blockStart = 0;
    uint64_t blockLength = 0;
    std::string blockHash;
    uint32_t blockSize = 0;
    std::vector<std::string> blockHashes;
    std::string wholeHash;  // expected
    std::vector<uint8_t> buffer;
    // Results.
    Outcome outcome = Outcome::Retry;
    std::string why;
    std::string text;   // the envelope fetched
    uint64_t good = 0;  // verified prefix found by CheckStaging
    std::string whole;  // its hash, when it covers the payload
  };

  SoftwareUpdateManager();

  static void* UpdateControl(void* arg);
  // ControlCycle.
  Step nextStep(timespec& deadline) override;
  std::string nextCallName() override;
  void prepMicroService(Core::Http::Request& request) override;
  void perform(Core::Http::Request& request, Core::Http::Response& response) override;
  void postMicroService(Core::Http::Response& response) override;
  void waitStarted() override { waiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) override { waiting_ = false; }
  Core::Http::Request* keptRequest() override { return &request_; }

  MicroService chooseWork();
  void performMetadata(Core::Http::Request& request, Core::Http::Response& response);
  void performBlock(Core::Http::Request& request, Core::Http::Response& response);
  void performCheck();
  void postMetadata();
  void postBlock();
  void postCheck();
  void postComplete(const Core::Http::Response& response);
  bool openOffer(const std::string& envelope, Offer& offer, std::string& why) const;
  void retryOrFail(uint32_t maxRetries, uint32_t fixedMs, uint32_t variedMs,
                   const std::string& why);
  void fail(const std::string& why);
  void setState(LumSoftwareUpdateState state);
  void wake();
  std::string apiUrl(const std::string& path) const;
  uint64_t pieceLimit() const;
  unsigned percent() const;
  void updatePercent();
  void loadState();
  void storeState();
  bool isTerminating() const;

  std::unique_ptr<SoftwareUpdateConfig> config_;
  Core::CoreConfig* coreConfig_ = nullptr;        // not owned
  Core::ProductIdentity* identity_ = nullptr;     // not owned
  Core::PersistentValues* persistent_ = nullptr;  // not owned

  Source source_ = SourceNetwork;
  std::string localLocation_;
  std::string networkMetadata_;
  Permission permission_ = PermissionNone;
  LumSoftwareUpdateState state_ = LumSoftwareUpdateNotAvailable;
  Offer offer_;
  // Payload bytes from the start of the staging file that matched their
  // block hashes and are on the disk; only whole blocks count.
  uint64_t verified_ = 0;
  // Bytes of the block being assembled that are written but not yet checked
  // (a block may take several requests when the configured limit is
  // smaller than the update's block size).
  uint64_t pieceDone_ = 0;
  // The staging file may hold more than verified_ (a previous offer, or a
  // block written before a crash): it is emptied before the first block of
  // a new offer, and checked and cut back after a restart.
  bool emptyStaging_ = false;
  bool spaceChecked_ = false;
  bool checkWanted_ = false;  // CheckStaging before anything else
  LumSoftwareUpdateState checkTarget_ = LumSoftwareUpdateDownloaded;
  bool fetchWanted_ = false;
  unsigned failures_ = 0;  // in a row, of the current step
  bool retryArmed_ = false;
  timespec retryAt_{};
  unsigned reportedPercent_ = 0;
  bool waiting_ = false;
  bool stateLoaded_ = false;
  MicroService prepared_ = NoCall;
  Job job_;
  Core::Http::Request request_;  // kept: the blocks reuse one connection
  Core::TimedSem sem_;           // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Su
}  // namespace Lum
