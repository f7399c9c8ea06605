// Every file the agent persists, as a damaged disk or a hand edit may leave
// it, loaded through the agent's own loaders.
//
// Input: byte 0 picks the file (bits 0-2) and how it lies on disk (bits 3-4),
// the remaining bytes are its content, written raw:
//   file 0 core, 1 daTime, 2 dsTime, 3 data, 4 swVersion, 5 session,
//        6 suState, 7 drmpIndex
//   lay  0 NAME alone; 1 NAME with a sidecar vouching for it;
//        2 NAME.prev with a sidecar vouching for it; 3 NAME.prev alone
// Properties: whatever a loader accepts, stored again through the agent and
// loaded back, is the same value; FileUtil::Store then Load of the content
// gives back the same bytes.
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "Base/DeviceValues.h"
#include "Base/DrmpStore.h"
#include "Base/PersistentValues.h"
#include "Base/QueueManager.h"
#include "Base/SupportViewManager.h"
#include "Base/TimeFile.h"
#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Sha256Util.h"
#include "fuzz/FuzzSupport.h"

using Lum::Core::FileUtil;
using LumFuzz::Fail;

namespace {

const char* const kNames[] = {"core",      "daTime",  "dsTime",  "data",
                              "swVersion", "session", "suState", "drmpIndex"};
constexpr uint32_t kQueueBytes = 64 * 1024;

void Lay(const std::string& dir, const std::string& name, unsigned lay,
         const std::string& content) {
  const std::string file = dir + name + (lay >= 2 ? ".prev" : "");
  LumFuzz::WriteRaw(file, content);
  if (lay == 1 || lay == 2) {
    std::string sha;
    Lum::Core::Sha256Util::Hash(content, sha);
    LumFuzz::WriteRaw(dir + name + ".sum",
                      "lumfile 1\n7 " + std::to_string(content.size()) + " " + sha + "\n");
  }
}

void CheckCore(const std::string& dir) {
  Lum::Core::PersistentValues loaded;
  if (!loaded.load(dir)) {
    return;
  }
  std::string text;
  loaded.marshal(text);
  LumFuzz::ClearDir(dir);
  Lum::Core::PersistentValues again;
  again.unmarshal(text);
  if (!again.store(dir)) {
    Fail("core: accepted values could not be stored");
  }
  Lum::Core::PersistentValues back;
  std::string backText;
  if (!back.load(dir) || (back.marshal(backText), backText != text)) {
    Fail("core: stored values read back differ:\n" + text + "\n" + backText);
  }
}

void CheckTime(const std::string& dir, const std::string& name) {
  LumJson::Value stored;
  timespec monotonic{};
  bool complete = false;
  if (Lum::Core::TimeFile::Load(dir, name, stored, monotonic, complete) !=
          Lum::Core::TimeFile::Ok ||
      !complete) {
    return;
  }
  // What a manager stores at its stop when no call happened since the start.
  timespec wall{};
  if (Lum::Core::TimeFile::ToWall(monotonic, wall) != Lum::Core::TimeFile::Ok) {
    Fail(name + ": a loaded moment has no wall-clock time");
  }
  LumFuzz::ClearDir(dir);
  if (!Lum::Core::TimeFile::Store(dir, name, wall, stored)) {
    Fail(name + ": could not store");
  }
  timespec back{};
  if (Lum::Core::TimeFile::Load(dir, name, stored, back, complete) != Lum::Core::TimeFile::Ok ||
      !complete) {
    Fail(name + ": the stored moment no longer loads");
  }
  // The schedules count whole milliseconds, so that is all a round trip keeps.
  const long long drift = Lum::Core::DiffMilliseconds(back, monotonic);
  if (drift < -1 || drift > 1) {
    Fail(name + ": the stored moment reads back " + std::to_string(drift) + " ms off");
  }
}

std::string QueueText(const std::string& text) {
  Lum::Ds::QueueManager queue(kQueueBytes);
  queue.setAllowedDataItemIds({"a", "b", "LUM_TEST_ITEM", "ITEM_1"});
  if (!queue.unmarshalPackage(text)) {
    return "";
  }
  queue.hashPackage();
  return queue.marshalPackage();
}

void CheckData(const std::string& dir) {
  const std::string first = QueueText(FileUtil::Load(dir, "data", FileUtil::kDefaultMaxBytes));
  if (first.empty()) {
    return;
  }
  LumFuzz::ClearDir(dir);
  if (!FileUtil::Store(dir, "data", first)) {
    Fail("data: could not store the package");
  }
  const std::string second = QueueText(FileUtil::Load(dir, "data"));
  if (second != first) {
    Fail("data: a stored queue reads back differently:\n" + first + "\n" + second);
  }
}

void CheckSwVersion(const std::string& dir) {
  const std::string initial = "initial-version";
  const std::string version = Lum::Core::DeviceValues("{}", true, initial, dir).getSwVersion();
  LumFuzz::ClearDir(dir);
  LumJson::Value record(LumJson::objectValue);
  record["swVersion"] = version;
  FileUtil::Store(dir, "swVersion", Lum::Core::JsonUtil::WriteCompact(record));
  if (Lum::Core::DeviceValues("{}", true, initial, dir).getSwVersion() != version) {
    Fail("swVersion: a stored version reads back differently");
  }
}

void CheckSession(const std::string& dir) {
  std::string code;
  std::string token;
  if (!Lum::Sv::SupportViewManager::ReadSessionRecord(FileUtil::Load(dir, "session"), code,
                                                      token)) {
    return;
  }
  LumFuzz::ClearDir(dir);
  LumJson::Value record(LumJson::objectValue);
  record["code"] = code;
  record["token"] = token;
  const std::string text = Lum::Core::JsonUtil::WriteCompact(record);
  LumJson::Value back;
  if (!Lum::Core::JsonUtil::ParseStrict(text, back) || back != record) {
    return;  // not UTF-8: kept with U+FFFD, like every stored text
  }
  FileUtil::Store(dir, "session", text);
  std::string code2;
  std::string token2;
  if (!Lum::Sv::SupportViewManager::ReadSessionRecord(FileUtil::Load(dir, "session"), code2,
                                                      token2) ||
      code2 != code || token2 != token) {
    Fail("session: a stored session reads back differently");
  }
}

using Index = std::map<std::string, Lum::Drmp::DrmpStore::Installed>;

Index Recovered(const std::string& dir) {
  Lum::Drmp::DrmpStore store(dir, 1024 * 1024);
  store.recover();
  return store.installed();
}

void CheckDrmp(const std::string& dir) {
  const Index first = Recovered(dir);
  const Index second = Recovered(dir);
  if (first.size() != second.size()) {
    Fail("drmpIndex: a recovered index does not survive the next start");
  }
  for (const auto& entry : first) {
    auto it = second.find(entry.first);
    if (it == second.end() || it->second.version != entry.second.version ||
        it->second.size != entry.second.size || it->second.sha256 != entry.second.sha256) {
      Fail("drmpIndex: entry " + entry.first + " changed across a start");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LumFuzz::FixedClock::Install();
  LumFuzz::WorkDir();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string& dir = LumFuzz::WorkDir();
  LumFuzz::ClearDir(dir);
  const unsigned kind = data[0] & 7u;
  const unsigned lay = (data[0] >> 3) & 3u;
  const std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
  Lay(dir, kNames[kind], lay, content);
  switch (kind) {
    case 0:
      CheckCore(dir);
      break;
    case 1:
    case 2:
      CheckTime(dir, kNames[kind]);
      break;
    case 3:
      CheckData(dir);
      break;
    case 4:
      CheckSwVersion(dir);
      break;
    case 5:
      CheckSession(dir);
      break;
    case 6:
      FileUtil::Load(dir, kNames[kind], 1024 * 1024);
      break;
    default:
      CheckDrmp(dir);
      break;
  }
  // Whatever the bytes, a store keeps them exactly.
  LumFuzz::ClearDir(dir);
  if (FileUtil::Store(dir, "bytes", content) && FileUtil::Load(dir, "bytes") != content) {
    Fail("FileUtil: stored bytes read back differently");
  }
  return 0;
}
