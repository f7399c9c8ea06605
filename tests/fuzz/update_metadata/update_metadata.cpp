// The software update's untrusted inputs: the back end's metadata answer
// (raw, or an envelope signed by the trusted signer, altered after signing,
// or signed by a rogue signer) and the answers to the payload and completion
// calls it leads to, fed to the real UpdateControl cycle; and the state file
// "suState" as found on the disk at a start. The host names the network
// source and gives its permission once an update is offered.
//
// Input: byte 0 holds flags: bits 0-1 the envelope mode (SignedEnvelopes),
// bits 2-3 the host's permission (none, download, confirm, download and then
// confirm once downloaded), bit 4 a state file first, bit 5 pieces of at most
// 8 bytes. The rest is NUL-separated records: [the state file,] the metadata
// document, the payload, then "SSS<body>" answers to the calls in turn
// (LumFuzz::SplitAnswers). A document whose "sha256" is "auto" gets its
// size and hashes from the payload; an answer body "auto" is the envelope,
// or for a ranged request those bytes of the payload; "auto" as the state
// file's envelope is the envelope too, as its staging location the one
// configured.
// Properties: the reported state is one of the defined states; nothing is
// offered unless the trusted signer signed it, and then what it signed; the
// same call is never repeated without a wait; a metadata fetch ends in no
// update, an offer or its refusal, or a failure after its retries; a stop
// and a start read the stored state back as it was.
#include <cstdio>

#include "Base/CoreManager.h"
#include "Base/SoftwareUpdateManager.h"
#include "Platform/Sha256Util.h"
#include "fuzz/AgentDriver.h"
#include "fuzz/SignedEnvelopes.h"

namespace {

using Lum::Core::ControlCycle;
using Lum::Su::SoftwareUpdateManager;
using LumFuzz::Fail;

LumFuzz::Agent* agent = nullptr;
LumFuzz::SignedEnvelopes* envelopes = nullptr;

constexpr size_t kMaxAnswers = 32;
constexpr int kMaxRounds = 160;
constexpr int kMaxSettleRounds = 4;
constexpr uint32_t kDefaultBlockSize = 16;

enum Flags : uint8_t { kPermissionShift = 2, kStateFile = 1 << 4, kSmallPieces = 1 << 5 };

// What the host sees of the update.
struct Seen {
  unsigned state = 0, source = 0, permission = 0, mandatory = 0, autoAnswer = 0, percent = 0;
  std::string version, hash;
  bool operator==(const Seen& o) const {
    return state == o.state && source == o.source && permission == o.permission &&
           mandatory == o.mandatory && autoAnswer == o.autoAnswer && percent == o.percent &&
           version == o.version && hash == o.hash;
  }
  std::string text() const {
    return "state " + std::to_string(state) + " source " + std::to_string(source) + " permission " +
           std::to_string(permission) + " " + std::to_string(percent) + "% " + version + " " + hash;
  }
};

Seen Look() {
  LumStatus status{};
  if (LumGetStatus(LumStatusMethodImmediate, &status) != LUM_RESULT_SUCCESS) {
    Fail("no status while running");
  }
  Seen seen;
  seen.state = status.updateState;
  seen.source = status.updateSource;
  seen.permission = status.updatePermission;
  seen.mandatory = status.updateMandatory;
  seen.autoAnswer = status.updateAutoAnswer;
  seen.percent = status.updatePercentDownloaded;
  seen.version = status.updateVersion != nullptr ? status.updateVersion : "";
  seen.hash = status.updateHash != nullptr ? status.updateHash : "";
  LumFreeStatus(&status);
  if (seen.state > LumSoftwareUpdateUnsupported) Fail("update state " + seen.text());
  if (seen.percent > 100) Fail("more than all downloaded: " + seen.text());
  return seen;
}

std::vector<std::string> Records(const uint8_t* data, size_t size) {
  std::vector<std::string> records(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      records.emplace_back();
    } else {
      records.back().push_back(static_cast<char>(data[i]));
    }
  }
  return records;
}

std::string Hash(const std::string& bytes) {
  std::string digest;
  Lum::Core::Sha256Util::Hash(bytes, digest);
  return digest;
}

// Fills in an "auto" document from the payload; any other text stays as given.
std::string Complete(const std::string& text, const std::string& payload) {
  LumJson::Value document;
  if (!Lum::Core::JsonUtil::ParseObject(text, document) || document["sha256"] != "auto") {
    return text;
  }
  const uint32_t blockSize = document["blockSize"].isUInt() && document["blockSize"].asUInt() > 0
                                 ? document["blockSize"].asUInt()
                                 : kDefaultBlockSize;
  document["blockSize"] = blockSize;
  document["size"] = static_cast<LumJson::UInt64>(payload.size());
  document["sha256"] = Hash(payload);
  LumJson::Value& hashes = document["blockSha256"] = LumJson::Value(LumJson::arrayValue);
  for (size_t at = 0; at < payload.size(); at += blockSize) {
    hashes.append(Hash(payload.substr(at, blockSize)));
  }
  return Lum::Core::JsonUtil::WriteCompact(document);
}

// The bytes a "Range: bytes=FIRST-LAST" request asks for, or `fallback`.
std::string Ranged(const Lum::Core::Http::Request& request, const std::string& payload,
                   const std::string& fallback) {
  for (const std::string& header : request.headers) {
    unsigned long long first = 0;
    unsigned long long last = 0;
    if (std::sscanf(header.c_str(), "Range: bytes=%llu-%llu", &first, &last) == 2 &&
        first <= last && first < payload.size()) {
      return payload.substr(static_cast<size_t>(first), static_cast<size_t>(last - first + 1));
    }
  }
  return fallback;
}

std::string RequestKey(const Lum::Core::Http::Request& request) {
  std::string key = request.url;
  for (const std::string& header : request.headers) {
    if (header.compare(0, 6, "Range:") == 0) key += " " + header;
  }
  return key;
}

// Runs the checks of the staging file that are due (they need no answer),
// so that what is shown is what the state file holds.
void Settle(ControlCycle& cycle, Lum::Core::Mutex& mutex) REQUIRES(mutex) {
  for (int i = 0; i < kMaxSettleRounds && cycle.nextCallName() == "CheckStaging"; ++i) {
    LumFuzz::RunRound(cycle, mutex, agent->clock(),
                      Lum::Core::CoreManager::Instance()->transfersCancelled());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  agent = new LumFuzz::Agent("su");
  envelopes = new LumFuzz::SignedEnvelopes();
  agent->trustOnly(envelopes->trust());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t flags = data[0];
  std::vector<std::string> records = Records(data + 1, size - 1);
  std::string stateFile;
  if (flags & kStateFile) {
    stateFile = records.front();
    records.erase(records.begin());
  }
  records.resize(std::max<size_t>(records.size(), 2));
  const std::string payload = records[1];
  const std::string document = Complete(records[0], payload);
  bool mustOpen = false;
  const std::string envelope = envelopes->make(flags, document, payload, mustOpen);
  LumJson::Value signedDocument;
  if (mustOpen) Lum::Core::JsonUtil::ParseObject(document, signedDocument);
  std::vector<LumFuzz::Answer> answers;
  for (size_t i = 2; i < records.size() && answers.size() < kMaxAnswers; ++i) {
    answers.push_back(LumFuzz::SplitAnswers(reinterpret_cast<const uint8_t*>(records[i].data()),
                                            records[i].size(), 1)[0]);
  }
  if (answers.empty()) answers.emplace_back();

  static const LumJson::Value plain = [] {
    LumJson::Value value(LumJson::objectValue);
    value["softwareUpdate"]["stagingLocation"] = agent->dir() + "/staging";
    return value;
  }();
  LumJson::Value sections = plain;
  if (flags & kSmallPieces) sections["softwareUpdate"]["maxBlockSizeBytes"] = 8;

  LumFuzz::ClearDir(agent->dir());
  if (flags & kStateFile) {
    LumJson::Value stored;
    if (Lum::Core::JsonUtil::ParseObject(stateFile, stored)) {
      if (stored["envelope"] == "auto") stored["envelope"] = envelope;
      if (stored["stagingLocation"] == "auto") {
        stored["stagingLocation"] = plain["softwareUpdate"]["stagingLocation"];
      }
      stateFile = Lum::Core::JsonUtil::WriteCompact(stored);
    }
    LumFuzz::WriteRaw(agent->dir() + "/suState", stateFile);
  }
  agent->start(sections, true);
  Lum::Core::CoreManager* core = Lum::Core::CoreManager::Instance();
  ControlCycle& cycle = SoftwareUpdateManager::Instance()->cycle();

  // Every offer must be what the trusted signer signed.
  const auto checkOffer = [&](const Seen& seen) {
    if (seen.state < LumSoftwareUpdateAvailable || seen.state > LumSoftwareUpdateConfirmed) return;
    if (!mustOpen) Fail("an update offered that the trusted signer did not sign: " + seen.text());
    if (seen.version != signedDocument["version"].asString() ||
        seen.hash != signedDocument["sha256"].asString()) {
      Fail("an update offered other than the signed one: " + seen.text());
    }
  };
  checkOffer(Look());
  if (LumSetSoftwareUpdateSource(SoftwareUpdateManager::SourceNetwork, "") != LUM_RESULT_SUCCESS) {
    Fail("the network source was refused");
  }
  const unsigned plan = (flags >> kPermissionShift) & 3;
  size_t next = 0;
  long metadataStatus = 0;  // of the last metadata answer
  std::string lastKey;
  bool waited = true;
  // Past the input's answers the last one repeats: a few more calls show
  // whether it makes the cycle loop.
  for (int i = 0; i < kMaxRounds && next < answers.size() + 3; ++i) {
    Seen seen = Look();
    // The host answers an offer, and confirms a download when it planned to.
    unsigned wanted = seen.permission;
    if (seen.state == LumSoftwareUpdateAvailable && seen.permission == 0 && plan != 0) {
      wanted = plan == 2 ? 2 : 1;
    } else if (seen.state == LumSoftwareUpdateDownloaded && plan == 3) {
      wanted = 2;
    }
    if (wanted != seen.permission) {
      if (LumSetSoftwareUpdatePermission(wanted) != LUM_RESULT_SUCCESS) {
        Fail("the permission was refused");
      }
      lastKey.clear();
    }
    LumFuzz::Round round;
    std::string key;
    {
      Lum::Core::LockMutex lock(&core->getMutex());
      const LumFuzz::Answer& answer = answers[std::min(next, answers.size() - 1)];
      round = LumFuzz::RunRound(cycle, core->getMutex(), agent->clock(), core->transfersCancelled(),
                                [&](const Lum::Core::Http::Request& request) {
                                  key = RequestKey(request);
                                  LumFuzz::Answer given = answer;
                                  if (given.body == "auto") {
                                    given.body = Ranged(request, payload, envelope);
                                  }
                                  LumFuzz::AnswerEverything(given);
                                });
    }
    seen = Look();
    checkOffer(seen);
    if (round.step == ControlCycle::Step::Stop) Fail("the cycle stopped while running");
    if (round.step == ControlCycle::Step::WaitForever) {
      // A fetch ends in a decision: no update, an offer (or its refusal), or
      // a failure once its retries are spent; never in silence.
      const bool decided = metadataStatus == 0 ||
                           (metadataStatus == 204   ? seen.state == LumSoftwareUpdateNotAvailable
                            : metadataStatus == 200 ? seen.state != LumSoftwareUpdateNotAvailable
                                                    : seen.state == LumSoftwareUpdateFailed);
      if (!decided) {
        Fail("idle after a metadata answer " + std::to_string(metadataStatus) + " in " +
             seen.text());
      }
      break;
    }
    if (!round.called) {
      waited = waited || round.waitedMs > 0;
      continue;
    }
    if (!waited && !key.empty() && key == lastKey) {
      Fail("the same call repeated without a wait: " + key);
    }
    waited = false;
    lastKey = key;
    if (round.url.find("/su/metadata") != std::string::npos) metadataStatus = round.status;
    if (!round.url.empty()) ++next;
  }
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    Settle(cycle, core->getMutex());
  }
  const Seen before = Look();
  if (std::getenv("LUM_FUZZ_TRACE") != nullptr) {
    std::fprintf(stderr, "%zu calls answered, %s\n", next, before.text().c_str());
  }
  agent->stop();

  // A restart reads the stored state and checks the staging file against
  // it; then it must show what was shown before the stop.
  agent->start(sections, true);
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    Settle(cycle, core->getMutex());
  }
  const Seen after = Look();
  checkOffer(after);
  if (!(after == before)) {
    Fail("the stored state reads back as " + after.text() + ", not " + before.text());
  }
  agent->stop();
  return 0;
}
