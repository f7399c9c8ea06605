// Software updates from an envelope file on the device, the request size the
// configuration imposes on a download from the back end, and what a restart
// or a factory reset does to an update already on the disk.
#include <gtest/gtest.h>
#include <lum.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "Platform/JsonUtil.h"
#include "UpdateHarness.h"
#include "tools/backend/DocumentSigner.h"

namespace {

using LumTest::AgentHarness;
using LumTest::ReadFile;
using LumTest::ReadUpdateStatus;
using LumTest::WaitFor;
using LumTest::WaitForUpdateState;
using LumTest::WriteFile;

constexpr uint32_t kBlock = 1024;

class LocalUpdate : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(signer_.create(AgentHarness::Pki(), true)); }

  // Starts the agent with its staging file in its own directory and, when
  // not 0, a limit on the bytes of one request.
  void start(uint32_t maxBlockSizeBytes = 0) {
    agent_.reset(new AgentHarness());
    const LumJson::Value tunables = LumTest::UpdateTunables();
    agent_->seedPersistedValues(tunables);
    agent_->backend().pushTunables(tunables);
    LumJson::Value section(LumJson::objectValue);
    section["stagingLocation"] = staging();
    if (maxBlockSizeBytes != 0) section["maxBlockSizeBytes"] = maxBlockSizeBytes;
    agent_->setConfigSection("softwareUpdate", section);
    ASSERT_EQ(agent_->init(), LUM_RESULT_SUCCESS);
  }
  // Writes the payload and a signed envelope naming it (relative to the
  // envelope) into a directory of the device; returns the envelope's path.
  std::string writeLocalUpdate(const std::string& payload) {
    WriteFile(source_.file("payload.bin"), payload);
    LumJson::Value hashes(LumJson::arrayValue);
    for (size_t at = 0; at < payload.size(); at += kBlock) {
      hashes.append(LumTest::Sha256Hex(payload.substr(at, kBlock)));
    }
    return writeEnvelope(payload.size(), kBlock, LumTest::Sha256Hex(payload), hashes);
  }
  std::string writeEnvelope(uint64_t size, uint32_t blockSize, const std::string& sha256,
                            const LumJson::Value& hashes) {
    LumJson::Value document(LumJson::objectValue);
    document["version"] = "3.1.4";
    document["size"] = static_cast<LumJson::UInt64>(size);
    document["sha256"] = sha256;
    document["blockSize"] = blockSize;
    document["blockSha256"] = hashes;
    document["payload"] = "payload.bin";
    const std::string envelope = source_.file("update.json");
    WriteFile(envelope, signer_.sign(Lum::Core::JsonUtil::WriteCompact(document)));
    return envelope;
  }
  std::string staging() const { return agent_->persistentPath() + "/staging.raw"; }
  std::string stateFile() const { return agent_->persistentPath() + "/suState"; }

  Lum::Tools::DocumentSigner signer_;
  LumTest::TempDir source_;
  std::unique_ptr<AgentHarness> agent_;
};

// A local update is read from the device, confirmed without a word to the
// back end, and found confirmed again, as it lies on the disk, after a
// restart. A factory reset leaves neither the state nor the staged bytes.
TEST_F(LocalUpdate, DownloadsConfirmsSurvivesARestartAndGoesWithAFactoryReset) {
  const std::string payload = LumTest::RandomBytes(5 * kBlock + 100);
  start();
  ASSERT_EQ(LumSetSoftwareUpdateSource(0, writeLocalUpdate(payload).c_str()), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateAvailable));
  ASSERT_EQ(LumSetSoftwareUpdatePermission(2), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateConfirmed));
  EXPECT_EQ(ReadFile(staging()), payload);
  EXPECT_TRUE(agent_->backend().updates().payloadRequests().empty());
  EXPECT_TRUE(agent_->backend().updates().downloadCompletions().empty());
  ASSERT_TRUE(agent_->stop());

  ASSERT_EQ(agent_->init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent_->waitForLog("Software update 3.1.4 verified, confirmed before",
                                 std::chrono::seconds(20)));
  const LumTest::UpdateStatus status = ReadUpdateStatus();
  EXPECT_EQ(status.state, static_cast<unsigned>(LumSoftwareUpdateConfirmed));
  EXPECT_EQ(status.source, 0u);
  EXPECT_EQ(status.percent, 100u);

  ASSERT_TRUE(agent_->stop(true));
  struct stat info;
  EXPECT_NE(stat(stateFile().c_str(), &info), 0);
  EXPECT_EQ(ReadFile(staging()), "");
}

// A staging file damaged while the agent was stopped is checked at the next
// start, cut back to its last good block and completed from there.
TEST_F(LocalUpdate, ADamagedStagingFileResumesAtItsLastGoodBlock) {
  const std::string payload = LumTest::RandomBytes(6 * kBlock);
  start();
  ASSERT_EQ(LumSetSoftwareUpdateSource(0, writeLocalUpdate(payload).c_str()), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateAvailable));
  ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateDownloaded));
  ASSERT_TRUE(agent_->stop());

  std::string damaged = payload;
  damaged[3 * kBlock + 7] ^= 0x01;
  WriteFile(staging(), damaged);
  ASSERT_EQ(agent_->init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateDownloaded));
  EXPECT_TRUE(agent_->logContains("Staging file verified up to 3072 of the 6144 bytes stored"));
  EXPECT_EQ(ReadFile(staging()), payload);
  ASSERT_TRUE(agent_->stop());
}

// What cannot be staged fails with its reason and leaves the staging file
// untouched: an envelope file that is not there, a payload larger than the
// staging directory's free space.
TEST_F(LocalUpdate, WhatCannotBeStagedFailsWithItsReason) {
  start();
  const std::string missing = source_.file("absent.json");
  ASSERT_EQ(LumSetSoftwareUpdateSource(0, missing.c_str()), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateFailed));
  EXPECT_TRUE(agent_->logContains("no usable envelope file at " + missing));

  // Some 4 TB in blocks of 4 GiB, each hash a placeholder: nothing is read.
  const uint32_t hugeBlock = 0xffffffffu;
  const uint64_t size = 1000ull * hugeBlock;
  const std::string hash(64, 'a');
  LumJson::Value hashes(LumJson::arrayValue);
  for (int i = 0; i < 1000; ++i) hashes.append(hash);
  ASSERT_EQ(LumSetSoftwareUpdateSource(0, writeEnvelope(size, hugeBlock, hash, hashes).c_str()),
            LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateAvailable));
  ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateFailed));
  EXPECT_TRUE(agent_->waitForLog(
      "the payload of " + std::to_string(size) + " bytes does not fit the staging directory",
      std::chrono::seconds(5)));
  EXPECT_EQ(ReadFile(staging()), "");
  ASSERT_TRUE(agent_->stop());
}

// A configured request limit below the update's block size fetches each
// block in pieces of that limit, and the block still counts only whole.
TEST_F(LocalUpdate, ARequestLimitSplitsEachBlockFromTheBackEnd) {
  Lum::Tools::UpdateOffer offer;
  offer.payload = LumTest::RandomBytes(2 * kBlock + 10);
  offer.blockSize = kBlock;
  start(400);
  agent_->backend().updates().publishUpdate(offer);
  ASSERT_EQ(LumSetSoftwareUpdateSource(1, ""), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateAvailable));
  ASSERT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForUpdateState(LumSoftwareUpdateDownloaded));
  const std::vector<uint64_t> expected = {0, 400, 800, 1024, 1424, 1824, 2048};
  EXPECT_EQ(agent_->backend().updates().payloadRequests(), expected);
  EXPECT_EQ(ReadFile(staging()), offer.payload);
  ASSERT_TRUE(agent_->stop());
}

}  // namespace
