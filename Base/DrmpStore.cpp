#include "Base/DrmpStore.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/LumJson.h"
#include "Platform/Sha256Util.h"

LUM_SOURCE_FILE("Base/DrmpStore");

namespace Lum {
namespace Drmp {

using Core::FileUtil;
using FP = Core::FilterProperties;

namespace {
constexpr int kDrmp = FP::SERVICE_DRMP;
// The index lists at most a few thousand short entries.
constexpr size_t kMaxIndexBytes = 1024 * 1024;

std::string Join(const std::string& directory, const std::string& name) {
  if (directory.empty()) {
    return name;
  }
  return directory.back() == '/' ? directory + name : directory + "/" + name;
}

bool Exists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

// Every name in the directory but "." and "..".
std::vector<std::string> Entries(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(directory.c_str())) {
    while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") {
        names.push_back(name);
      }
    }
    ::closedir(dir);
  }
  return names;
}

std::string TempName(const std::string& name) {
  return "." + name + ".tmp";
}
}  // namespace

DrmpStore::DrmpStore(const std::string& persistentPath, uint64_t maxObjectBytes)
    : persistentPath_(persistentPath),
      directory_(Join(persistentPath, kDirectoryName)),
      maxObjectBytes_(maxObjectBytes) {}

void DrmpStore::recover() {
  if (::mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST) {
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot create %s: %s",
            directory_.c_str(), strerror(errno));
  }
  const bool indexRead = loadIndex();
  bool changed = false;
  for (const std::string& name : Entries(directory_)) {
    if (name[0] == '.') {
      LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
              "Removing %s, left by an install that did not finish", name.c_str());
      FileUtil::Remove(directory_, name);
    } else if (installed_.count(name) == 0) {
      LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
              "Removing DRMP object %s, the index does not vouch for it", name.c_str());
      FileUtil::Remove(directory_, name);
    }
  }
  for (auto it = installed_.begin(); it != installed_.end();) {
    if (verify(it->first, it->second)) {
      ++it;
      continue;
    }
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "DRMP object %s does not match the index, it will be fetched again", it->first.c_str());
    FileUtil::Remove(directory_, it->first);
    it = installed_.erase(it);
    changed = true;
  }
  if (changed || !indexRead) {
    storeIndex();
  }
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DRMP objects installed: %u",
          static_cast<unsigned>(installed_.size()));
}

// False when an index exists but none of its versions can be used: the
// caller then rewrites it from what survived the check.
bool DrmpStore::loadIndex() {
  installed_.clear();
  const std::string text = FileUtil::Load(persistentPath_, kIndexName, kMaxIndexBytes);
  if (text.empty()) {
    const std::string path = Join(persistentPath_, kIndexName);
    if (Exists(path) || Exists(path + ".prev")) {
      LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
              "DRMP index %s is unusable, no object is vouched for", path.c_str());
      return false;
    }
    return true;
  }
  LumJson::Value index;
  bool usable = Core::JsonUtil::ParseObject(text, index) && index["objects"].isObject();
  if (usable) {
    const LumJson::Value& objects = index["objects"];
    for (const std::string& name : objects.getMemberNames()) {
      const LumJson::Value& record = objects[name];
      if (!DrmpDocument::IsValidName(name) || !record.isObject() || !record["version"].isString() ||
          !record["size"].isUInt64() || !record["sha256"].isString()) {
        usable = false;
        break;
      }
      installed_[name] = {record["version"].asString(), record["size"].asUInt64(),
                          record["sha256"].asString()};
    }
  }
  if (!usable) {
    installed_.clear();
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "DRMP index %s does not hold an index, no object is vouched for", kIndexName);
  }
  return usable;
}

bool DrmpStore::storeIndex() {
  LumJson::Value objects(LumJson::objectValue);
  for (const auto& item : installed_) {
    LumJson::Value record(LumJson::objectValue);
    record["version"] = item.second.version;
    record["size"] = static_cast<LumJson::UInt64>(item.second.size);
    record["sha256"] = item.second.sha256;
    objects[item.first] = record;
  }
  LumJson::Value index(LumJson::objectValue);
  index["objects"] = objects;
  return FileUtil::Store(persistentPath_, kIndexName, Core::JsonUtil::WriteCompact(index),
                         kMaxIndexBytes);
}

bool DrmpStore::verify(const std::string& name, const Installed& record) const {
  std::string bytes;
  if (record.size > maxObjectBytes_ ||
      !FileUtil::ReadAll(directory_, name, static_cast<size_t>(maxObjectBytes_), bytes) ||
      bytes.size() != record.size) {
    return false;
  }
  std::string digest;
  Core::Sha256Util::Hash(bytes, digest);
  return digest == record.sha256;
}

bool DrmpStore::install(const DrmpEntry& entry, const std::string& bytes, std::string& why) {
  if (!FileUtil::Replace(directory_, entry.name, TempName(entry.name), bytes)) {
    why = "cannot write";
    return false;
  }
  installed_[entry.name] = {entry.version, entry.size, entry.sha256};
  if (!storeIndex()) {
    // The new bytes are in place but not recorded: the entry goes, so that
    // the next check fetches the object again rather than trusting a file
    // the index on disk does not describe.
    installed_.erase(entry.name);
    why = "cannot store the index";
    return false;
  }
  return true;
}

bool DrmpStore::remove(const std::string& name) {
  const auto it = installed_.find(name);
  if (it == installed_.end()) {
    return true;
  }
  const Installed kept = it->second;
  installed_.erase(it);
  if (!storeIndex()) {
    installed_[name] = kept;
    return false;
  }
  FileUtil::Remove(directory_, name);
  return true;
}

uint64_t DrmpStore::freeBytes() const {
  struct statvfs info;
  if (::statvfs(directory_.c_str(), &info) != 0) {
    return 0;
  }
  return static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_frsize);
}

// Whatever the directory holds goes, not only what this run's index
// listed: the store may never have been read in this run.
void DrmpStore::drop() {
  for (const std::string& name : Entries(directory_)) {
    FileUtil::Remove(directory_, name);
  }
  installed_.clear();
  FileUtil::Drop(persistentPath_, kIndexName);
  ::rmdir(directory_.c_str());
}

}  // namespace Drmp
}  // namespace Lum
