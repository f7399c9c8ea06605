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

  void initialize(const Core::ManagerContext& context) REQUIRES(Core::CoreMutex()) override;
  void cascadeStateChanges() REQUIRES(Core::CoreMutex()) override;
  void terminateBegin() REQUIRES(Core::CoreMutex()) override;
  void terminateEnd() EXCLUDES(Core::CoreMutex()) override;
  const char* waitName() const override { return "Software Update"; }
  void getStatus(LumStatus& status) REQUIRES(Core::CoreMutex()) override;
  void logStatusInfo(StatusSection section) REQUIRES(Core::CoreMutex()) override;

  // Behind LumSetSoftwareUpdateSource and the "softwareupdate" event, and
  // LumSetSoftwareUpdatePermission; both take the core mutex.
  unsigned setSource(unsigned source, const std::string& location, bool explicitCall)
      EXCLUDES(Core::CoreMutex());
  unsigned setPermission(unsigned permission) EXCLUDES(Core::CoreMutex());

  static const char* MicroServiceToString(int microService);

  // The UpdateControl cycle, for a driver that runs its rounds by hand.
  Core::ControlCycle& cycle() { return *this; }

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
  Step nextStep(timespec& deadline) REQUIRES(Core::CoreMutex()) override;
  std::string nextCallName() REQUIRES(Core::CoreMutex()) override;
  void prepMicroService(Core::Http::Request& request) REQUIRES(Core::CoreMutex()) override;
  void perform(Core::Http::Request& request, Core::Http::Response& response) override;
  void postMicroService(Core::Http::Response& response) REQUIRES(Core::CoreMutex()) override;
  void waitStarted() REQUIRES(Core::CoreMutex()) override { waiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) REQUIRES(Core::CoreMutex()) override { waiting_ = false; }
  Core::Http::Request* keptRequest() override { return &request_; }

  MicroService chooseWork() REQUIRES(Core::CoreMutex());
  void performMetadata(Core::Http::Request& request, Core::Http::Response& response);
  void performBlock(Core::Http::Request& request, Core::Http::Response& response);
  void performCheck();
  void postMetadata() REQUIRES(Core::CoreMutex());
  void postBlock() REQUIRES(Core::CoreMutex());
  void postCheck() REQUIRES(Core::CoreMutex());
  void postComplete(const Core::Http::Response& response) REQUIRES(Core::CoreMutex());
  bool openOffer(const std::string& envelope, Offer& offer, std::string& why) const
      REQUIRES(Core::CoreMutex());
  void retryOrFail(uint32_t maxRetries, uint32_t fixedMs, uint32_t variedMs, const std::string& why)
      REQUIRES(Core::CoreMutex());
  void fail(const std::string& why) REQUIRES(Core::CoreMutex());
  void setState(LumSoftwareUpdateState state) REQUIRES(Core::CoreMutex());
  void wake() REQUIRES(Core::CoreMutex());
  std::string apiUrl(const std::string& path) const REQUIRES(Core::CoreMutex());
  uint64_t pieceLimit() const REQUIRES(Core::CoreMutex());
  unsigned percent() const REQUIRES(Core::CoreMutex());
  void updatePercent() REQUIRES(Core::CoreMutex());
  void loadState() REQUIRES(Core::CoreMutex());
  void storeState() REQUIRES(Core::CoreMutex());
  bool isTerminating() const REQUIRES(Core::CoreMutex());

  std::unique_ptr<SoftwareUpdateConfig> config_ GUARDED_BY(Core::CoreMutex());
  Core::CoreConfig* coreConfig_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;        // not owned
  Core::ProductIdentity* identity_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;     // not owned
  Core::PersistentValues* persistent_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;  // not owned

  Source source_ GUARDED_BY(Core::CoreMutex()) = SourceNetwork;
  std::string localLocation_ GUARDED_BY(Core::CoreMutex());
  std::string networkMetadata_ GUARDED_BY(Core::CoreMutex());
  Permission permission_ GUARDED_BY(Core::CoreMutex()) = PermissionNone;
  LumSoftwareUpdateState state_ GUARDED_BY(Core::CoreMutex()) = LumSoftwareUpdateNotAvailable;
  Offer offer_ GUARDED_BY(Core::CoreMutex());
  // Payload bytes from the start of the staging file that matched their
  // block hashes and are on the disk; only whole blocks count.
  uint64_t verified_ GUARDED_BY(Core::CoreMutex()) = 0;
  // Bytes of the block being assembled that are written but not yet checked
  // (a block may take several requests when the configured limit is
  // smaller than the update's block size).
  uint64_t pieceDone_ GUARDED_BY(Core::CoreMutex()) = 0;
  // The staging file may hold more than verified_ (a previous offer, or a
  // block written before a crash): it is emptied before the first block of
  // a new offer, and checked and cut back after a restart.
  bool emptyStaging_ GUARDED_BY(Core::CoreMutex()) = false;
  bool spaceChecked_ GUARDED_BY(Core::CoreMutex()) = false;
  bool checkWanted_ GUARDED_BY(Core::CoreMutex()) = false;  // CheckStaging before anything else
  LumSoftwareUpdateState checkTarget_ GUARDED_BY(Core::CoreMutex()) = LumSoftwareUpdateDownloaded;
  bool fetchWanted_ GUARDED_BY(Core::CoreMutex()) = false;
  unsigned failures_ GUARDED_BY(Core::CoreMutex()) = 0;  // in a row, of the current step
  bool retryArmed_ GUARDED_BY(Core::CoreMutex()) = false;
  timespec retryAt_ GUARDED_BY(Core::CoreMutex()){};
  unsigned reportedPercent_ GUARDED_BY(Core::CoreMutex()) = 0;
  bool waiting_ GUARDED_BY(Core::CoreMutex()) = false;
  bool stateLoaded_ GUARDED_BY(Core::CoreMutex()) = false;
  MicroService prepared_ GUARDED_BY(Core::CoreMutex()) = NoCall;
  Job job_;
  Core::Http::Request request_;  // kept: the blocks reuse one connection
  Core::TimedSem sem_;           // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Su
}  // namespace Lum
