#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Base/DrmpDocument.h"

namespace Lum {
namespace Drmp {

// The objects installed on the device: one plain file per object in the
// directory "drmp" of the persistent path, and the index "drmpIndex" beside
// it that records which version of each is installed. Scratch files of an
// install in progress start with "." (".NAME.tmp"), which no object name
// may, so they can never be taken for an object.
//
// An object is installed by writing its scratch file, syncing it and
// renaming it over the object, then storing the index; it is deleted by
// storing the index without it, then removing the file. A crash at any
// point leaves a file the index does not vouch for, which recover() removes
// at the next start, or an index entry whose file no longer matches, which
// recover() drops so the next check downloads the object again.
//
// Used by the DRMP control thread alone, without the core mutex; no lock of
// its own.
class DrmpStore {
 public:
  struct Installed {
    std::string version;
    uint64_t size = 0;
    std::string sha256;
  };

  DrmpStore(const std::string& persistentPath, uint64_t maxObjectBytes);

  // Creates the directory, reads the index, removes scratch files and files
  // the index does not vouch for, and drops entries whose file is missing or
  // differs from what the index recorded.
  void recover();
  const std::map<std::string, Installed>& installed() const { return installed_; }

  // Installs verified bytes as `entry`; false (reason in `why`) leaves the
  // previous version, if any, in place.
  bool install(const DrmpEntry& entry, const std::string& bytes, std::string& why);
  // Deletes an installed object; false when the index could not be stored
  // (the object then stays installed).
  bool remove(const std::string& name);
  // Room left on the file system of the object directory.
  uint64_t freeBytes() const;
  // Everything of the store, for a factory reset.
  void drop();

  static constexpr const char* kIndexName = "drmpIndex";
  static constexpr const char* kDirectoryName = "drmp";

 private:
  bool loadIndex();
  bool storeIndex();
  bool verify(const std::string& name, const Installed& record) const;

  std::string persistentPath_;
  std::string directory_;
  uint64_t maxObjectBytes_;
  std::map<std::string, Installed> installed_;
};

}  // namespace Drmp
}  // namespace Lum
