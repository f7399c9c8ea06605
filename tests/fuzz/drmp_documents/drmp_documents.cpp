// The DRMP object list as the back end signs it, and the objects it names,
// through the envelope check, the list reader and the object store, the way
// a check of the DRMP manager uses them.
//
// Input: byte 0 is the mode (SignedEnvelopes: raw envelope, document signed,
// signed then swapped for record 1, signed by a rogue signer), the rest
// NUL-separated records: the first is the envelope or document, every
// further one the body answered for the object at that place of the list.
// An object's "size" or "sha256" given as "auto" becomes that of its body,
// so that objects get past the checks and reach the disk.
// Properties: exactly what the trusted signer signed opens; every file written
// is a plain object name inside drmp/ (or the index beside it) holding a
// verified object within the size limit; a restart reads back the same
// objects; deleting them all leaves drmp/ empty.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Base/DrmpConfig.h"
#include "Base/DrmpDocument.h"
#include "Base/DrmpStore.h"
#include "Base/SignedDocument.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/Sha256Util.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/SignedEnvelopes.h"

using Lum::Drmp::DrmpDocument;
using Lum::Drmp::DrmpEntry;
using Lum::Drmp::DrmpStore;
using LumFuzz::Fail;

namespace {

// Small limits, so that the fuzzer reaches them.
constexpr uint32_t kMaxObjectBytes = 4096;
constexpr uint32_t kMaxObjects = 8;

LumFuzz::SignedEnvelopes* envelopes = nullptr;

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

// Fills in "auto" sizes and hashes from the bodies; the text stays as given
// when there is nothing to fill in.
std::string Complete(const std::string& text, const std::vector<std::string>& records) {
  LumJson::Value document;
  if (!Lum::Core::JsonUtil::ParseObject(text, document) || !document["objects"].isArray()) {
    return text;
  }
  bool changed = false;
  LumJson::Value& objects = document["objects"];
  for (LumJson::ArrayIndex i = 0; i < objects.size() && i + 1 < records.size(); ++i) {
    LumJson::Value& object = objects[i];
    if (!object.isObject()) continue;
    if (object["size"] == "auto") {
      object["size"] = static_cast<LumJson::UInt64>(records[i + 1].size());
      changed = true;
    }
    if (object["sha256"] == "auto") {
      object["sha256"] = Hash(records[i + 1]);
      changed = true;
    }
  }
  return changed ? Lum::Core::JsonUtil::WriteCompact(document) : text;
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  return names;
}

void CheckDisk(const std::string& root, const DrmpStore& store) {
  for (const std::string& name : Entries(root)) {
    if (name != "drmp" && name.compare(0, 9, "drmpIndex") != 0) {
      Fail("a file outside drmp/: " + name);
    }
  }
  const std::string dir = root + "drmp/";
  for (const std::string& name : Entries(dir)) {
    struct stat st {};
    if (lstat((dir + name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      Fail("drmp/" + name + " is not a plain file");
    }
    const auto it = store.installed().find(name);
    if (!DrmpDocument::IsValidName(name) || it == store.installed().end()) {
      Fail("drmp/" + name + " is not an installed object");
    }
    std::string bytes;
    if (!Lum::Core::FileUtil::ReadAll(dir, name, kMaxObjectBytes + 1, bytes) ||
        bytes.size() > kMaxObjectBytes || bytes.size() != it->second.size ||
        Hash(bytes) != it->second.sha256) {
      Fail("drmp/" + name + " is not the object that was verified");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Lum::Core::Logger::Instance().initialize(LumJson::Value(LumJson::arrayValue));
  LumFuzz::FixedClock::Install();
  envelopes = new LumFuzz::SignedEnvelopes();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::vector<std::string> records = Records(data + 1, size - 1);
  bool mustOpen = false;
  const std::string text = data[0] & 3 ? Complete(records[0], records) : records[0];
  const std::string envelope =
      envelopes->make(data[0], text, records.size() > 1 ? records[1] : "", mustOpen);

  const std::string& root = LumFuzz::WorkDir();
  LumFuzz::ClearDir(root);
  const Lum::Drmp::DrmpConfig config(R"({"drmp":{"maxObjectBytes":)" +
                                     std::to_string(kMaxObjectBytes) + R"(,"maxObjects":)" +
                                     std::to_string(kMaxObjects) + "}}");
  DrmpStore store(root, config.getMaxObjectBytes());
  store.recover();

  std::string document;
  std::string why;
  const bool opened = Lum::Core::SignedDocument::Open(envelope, envelopes->trust(), document, why);
  if (opened != why.empty() || (!opened && !document.empty())) {
    Fail("an envelope check that is neither clean acceptance nor clean refusal");
  }
  if (opened != mustOpen) {
    Fail(opened ? "an envelope not signed by the trusted signer opened"
                : "a properly signed envelope refused: " + why);
  }

  std::vector<DrmpEntry> entries;
  std::vector<Lum::Drmp::DrmpRefusal> refused;
  if (!opened || !DrmpDocument::Parse(document, config.getMaxObjects(), entries, refused, why)) {
    CheckDisk(root, store);
    return 0;
  }
  if (config.getMaxObjectBytes() != kMaxObjectBytes || config.getMaxObjects() != kMaxObjects) {
    Fail("the limits were not configured");
  }
  if (entries.size() + refused.size() > kMaxObjects) Fail("more objects than allowed");
  // The bodies follow the order of the list, refused objects included.
  LumJson::Value list;
  Lum::Core::JsonUtil::ParseObject(document, list);
  std::map<std::string, size_t> position;
  for (LumJson::ArrayIndex i = list["objects"].size(); i-- > 0;) {
    position[list["objects"][i]["name"].asString()] = i + 1;
  }
  // As a check does: objects over the limit are not fetched; a body of the
  // wrong size or hash is not installed.
  for (const DrmpEntry& entry : entries) {
    if (!DrmpDocument::IsValidName(entry.name)) Fail("an unusable name listed: " + entry.name);
    const size_t at = position[entry.name];
    const std::string body = at < records.size() ? records[at] : std::string();
    if (entry.size > config.getMaxObjectBytes() || body.size() != entry.size ||
        Hash(body) != entry.sha256) {
      continue;
    }
    if (!store.install(entry, body, why)) Fail("a verified object not installed: " + why);
  }
  CheckDisk(root, store);

  DrmpStore again(root, config.getMaxObjectBytes());
  again.recover();
  if (again.installed().size() != store.installed().size()) {
    Fail("a restart does not read back the installed objects");
  }
  for (const auto& item : store.installed()) {
    const auto it = again.installed().find(item.first);
    if (it == again.installed().end() || it->second.version != item.second.version ||
        it->second.sha256 != item.second.sha256 || it->second.size != item.second.size) {
      Fail("a restart reads back another object " + item.first);
    }
  }
  std::vector<std::string> names;
  for (const auto& item : again.installed()) names.push_back(item.first);
  for (const std::string& name : names) {
    if (!again.remove(name)) Fail("cannot delete " + name);
  }
  if (!Entries(root + "drmp").empty()) Fail("deleted objects left files in drmp/");
  return 0;
}
