// Software updates end to end: the agent started through its C interface
// against the local back end, real TLS, real files, real threads.
#include <gtest/gtest.h>
#include <lum.h>

#include <memory>
#include <random>
#include <string>

#include "UpdateHarness.h"

namespace {

using Lum::Tools::UpdateFaults;
using Lum::Tools::UpdateOffer;
using LumTest::AgentHarness;
using LumTest::ReadFile;
using LumTest::ReadUpdateStatus;
using LumTest::StatusWatcher;
using LumTest::WaitFor;
using LumTest::WaitForUpdateState;
using namespace std::chrono;

class SoftwareUpdate : public ::testing::Test {
 protected:
  // Starts the agent with `offer` published and `faults` armed; the update
  // goes to a staging file in the agent's own directory.
  void start(const UpdateOffer& offer, const UpdateFaults& faults = UpdateFaults(),
             const LumJson::Value& tunables = LumTest::UpdateTunables()) {
    agent_.reset(new AgentHarness());
    offer_ = offer;
    agent_->seedPersistedValues(tunables);
    agent_->backend().pushTunables(tunables);
    agent_->backend().updates().publishUpdate(offer);
    agent_->backend().updates().setFaults(faults);
    LumJson::Value section(LumJson::objectValue);
    section["stagingLocation"] = staging();
    agent_->setConfigSection("softwareUpdate", section);
    ASSERT_EQ(agent_->init(), LUM_RESULT_SUCCESS);
  }
  // Asks for the update and waits until it is offered (or refused).
  void offerUpdate() {
    ASSERT_EQ(LumSetSoftwareUpdateSource(1, ""), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitFor([] {
      const unsigned state = ReadUpdateStatus().state;
      return state == LumSoftwareUpdateAvailable || state == LumSoftwareUpdateFailed;
    }));
  }
  std::string staging() const { return agent_->persistentPath() + "/staging.raw"; }
  Lum::Tools::UpdateService& updates() { return agent_->backend().updates(); }

  std::unique_ptr<AgentHarness> agent_;
  UpdateOffer offer_;
};

UpdateOffer Offer(size_t bytes, uint32_t blockSize) {
  UpdateOffer offer;
  offer.payload = LumTest::RandomBytes(bytes);
  offer.blockSize = blockSize;
  offer.mandatory = true;
  return offer;
}

// A connection cut in the middle of a block, then a stop and a start: the
// download goes on from the block that was cut, never from the start, and
// ends with the published bytes.
TEST_F(SoftwareUpdate, AnInterruptedDownloadResumesAtTheLastVerifiedBlock) {
  std::mt19937 random(std::random_device{}());
  const uint32_t block = 1024;
  const int cut = std::uniform_int_distribution<int>(2, 60)(random);
  UpdateFaults faults;
  faults.dropAtBlock = cut;
  faults.dropCount = -1;
  // Retries wait long enough for the stop to come first.
  start(Offer(64 * block, block), faults, LumTest::UpdateTunables(3, 60000));
  offerUpdate();
  ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([&] {
    const auto requests = updates().payloadRequests();
    return !requests.empty() && requests.back() == static_cast<uint64_t>(cut) * block;
  }));
  EXPECT_LT(ReadUpdateStatus().percent, 100u);
  ASSERT_TRUE(agent_->stop());
  EXPECT_EQ(LumTest::StoredVerifiedBytes(agent_->persistentPath()), cut * block);

  updates().setFaults(UpdateFaults());
  const size_t before = updates().payloadRequests().size();
  StatusWatcher watcher;
  ASSERT_EQ(agent_->init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateDownloaded));
  const auto requests = updates().payloadRequests();
  ASSERT_GT(requests.size(), before);
  EXPECT_EQ(requests[before], static_cast<uint64_t>(cut) * block);
  EXPECT_EQ(ReadFile(staging()), offer_.payload);
  const LumTest::UpdateStatus status = ReadUpdateStatus();
  EXPECT_EQ(status.percent, 100u);
  EXPECT_EQ(status.version, offer_.version);
  EXPECT_EQ(status.hash, LumTest::Sha256Hex(offer_.payload));
  EXPECT_FALSE(watcher.sawState(LumSoftwareUpdateFailed));
}

// Whatever is wrong with the update, it ends in Failed with a reason and is
// never reported downloaded; a refused document fetches nothing.
TEST_F(SoftwareUpdate, ABadUpdateFailsAndIsNeverDownloaded) {
  struct Case {
    const char* name;
    UpdateFaults faults;
    const char* why;
    bool fetchesPayload;
  };
  Case cases[4];
  cases[0] = {"corrupted block", UpdateFaults(), "block at 1536 does not match its hash", true};
  cases[0].faults.corruptBlock = 3;
  cases[1] = {"wrong payload hash", UpdateFaults(), "the payload does not match its hash", true};
  cases[1].faults.wrongHash = true;
  cases[2] = {"rogue signer", UpdateFaults(), "signing certificate does not chain", false};
  cases[2].faults.rogueSigner = true;
  cases[3] = {"document altered", UpdateFaults(), "signature does not verify", false};
  cases[3].faults.alteredDocument = true;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start(Offer(8 * 512, 512), c.faults);
    StatusWatcher watcher;
    offerUpdate();
    if (ReadUpdateStatus().state == LumSoftwareUpdateAvailable) {
      ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
    }
    ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateFailed));
    EXPECT_TRUE(agent_->waitForLog(c.why, seconds(5)));
    EXPECT_FALSE(watcher.sawState(LumSoftwareUpdateDownloaded));
    EXPECT_EQ(!updates().payloadRequests().empty(), c.fetchesPayload);
    const LumTest::UpdateStatus status = ReadUpdateStatus();
    EXPECT_TRUE(status.version.empty());
    EXPECT_EQ(status.percent, 0u);
    ASSERT_TRUE(agent_->stop());
  }
}

// Without the user's permission the update is only offered.
TEST_F(SoftwareUpdate, PermissionNoneDownloadsNothing) {
  start(Offer(4096, 512));
  offerUpdate();
  ASSERT_EQ(ReadUpdateStatus().state, static_cast<unsigned>(LumSoftwareUpdateAvailable));
  // A second offer of the same update makes the manager decide again; had
  // it been going to download, its requests would come before this one.
  ASSERT_EQ(LumSetSoftwareUpdateSource(1, ""), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([&] { return updates().metadataRequests() >= 2; }));
  ASSERT_TRUE(agent_->waitForLog("offered again", seconds(10)));
  EXPECT_TRUE(updates().payloadRequests().empty());
  EXPECT_EQ(ReadUpdateStatus().state, static_cast<unsigned>(LumSoftwareUpdateAvailable));
  EXPECT_EQ(ReadUpdateStatus().permission, 0u);
}

// The back end announces the update with an event; it downloads with the
// user's permission and waits there until the host confirms, and only then
// tells the back end.
TEST_F(SoftwareUpdate, ConfirmWaitsForTheHost) {
  start(Offer(4096, 1024));
  agent_->backend().queueEvent("softwareupdate", 7, "");
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateAvailable));
  ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateDownloaded));
  EXPECT_TRUE(updates().downloadCompletions().empty());

  ASSERT_EQ(LumSetSoftwareUpdatePermission(2), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateConfirmed));
  const auto completions = updates().downloadCompletions();
  ASSERT_EQ(completions.size(), 1u);
  EXPECT_EQ(completions[0]["version"].asString(), offer_.version);
  EXPECT_EQ(completions[0]["sha256"].asString(), LumTest::Sha256Hex(offer_.payload));
  EXPECT_EQ(ReadFile(staging()), offer_.payload);
  // A confirmed update is not replaced.
  EXPECT_EQ(LumSetSoftwareUpdateSource(0, "/elsewhere.json"), LUM_RESULT_SUCCESS);
  EXPECT_EQ(ReadUpdateStatus().source, 1u);
}

}  // namespace
