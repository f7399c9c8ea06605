#pragma once

#include <cstddef>
#include <string>

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

class FileOperations;

// Small files that must survive power loss at any instant: the agent's state
// and tunables, the time of its last back-end call, the data queue. Every one
// of them holds a single JSON document; that is what lets a file without its
// checksum be told apart from a torn one (see below).
//
// On-disk layout for a file `name` in `directory`:
//
//   name       the newest content, byte for byte as stored, so a person can
//              open it with an editor and an older agent can read it as-is.
//   name.prev  the content stored before it, kept as a fallback.
//   name.sum   the checksum sidecar, a short text:
//                  lumfile 1
//                  <version> <size> <sha256 of the content, lowercase hex>
//                  <version> <size> <sha256 ...>            (optional)
//              one line per version it vouches for, newest first. Versions
//              count up by one per Store.
//   name.tmp, name.sum.tmp   scratch files of a Store in progress; Load ignores
//              them and the next Store overwrites them.
//
// Store(content) runs these steps; every file is fsynced before it is renamed:
//   1. write name.tmp with the content;
//   2. write name.sum.tmp listing the new version and the version being kept
//      as fallback (the one Load would return now, if any), rename it over
//      name.sum, fsync the directory;
//   3. if that fallback is name, rename name over name.prev;
//   4. rename name.tmp over name, fsync the directory.
// Load takes name when name.sum vouches for its size and checksum, otherwise
// name.prev when name.sum vouches for that, otherwise nothing. What a crash
// leaves behind at each point, and what Load then returns:
//   during 1 or 2 before its rename:  old sidecar, old files       -> old
//   after 2:      sidecar lists new and old, name is old           -> old
//   after 3:      name is missing, name.prev is old                -> old
//   after 4:      name is new and listed                           -> new
// The sidecar is renamed, and the directory synced, before name changes, so a
// name the sidecar does not vouch for is never the newest content: it is
// damaged, and the previous version is used instead. Step 3 needs no
// directory sync of its own: were step 4 to reach the disk without it, name
// would still be the new, listed content.
//
// Without a readable sidecar (absent: written by hand or by an older agent;
// or itself damaged) no checksum can vouch for anything, so a version is
// trusted only if it parses as a whole as one JSON document: name if it does,
// otherwise name.prev if that does, otherwise nothing. A torn write almost
// never leaves a whole document behind, and the next Store keeps as its
// fallback only the version so chosen, never the unchecked text. Editing a
// stored file by hand means deleting name.sum as well; otherwise the edit
// looks like damage and Load falls back to the previous version.
//
// A content file larger than the limit Load is given is read no further than
// that limit and counts as damaged, like one that fails its check.
//
// All operations are serialised by one process-wide mutex, so two threads
// storing the same name cannot mix their scratch files. Failures are logged
// and reported as false or "": nothing throws. The logger must never store
// through FileUtil, since FileUtil logs while holding its mutex.
class FileUtil {
 public:
  // Far above any state file, so that a file grown by damage or by mistake
  // cannot make the agent allocate without bound inside the TV's process.
  static constexpr size_t kDefaultMaxBytes = 1024 * 1024;

  // The newest intact content, or "" when there is none or it is unreadable.
  // A version larger than `maxBytes` is ignored as damaged.
  static std::string Load(const std::string& directory, const std::string& name,
                          size_t maxBytes = kDefaultMaxBytes);
  // True once the content is durably the newest version. False leaves the
  // previous content loadable; only a failure of the very last directory sync
  // can leave the new content in place (visible, but not known to be durable).
  // `maxBytes` is the limit the file is loaded with: a larger content is
  // refused, since Load would ignore it, and the fallback kept is what Load
  // with that limit returns.
  static bool Store(const std::string& directory, const std::string& name,
                    const std::string& content, size_t maxBytes = kDefaultMaxBytes);
  // Removes every version and the sidecar; true when nothing of name is left.
  static bool Drop(const std::string& directory, const std::string& name);

  // Opaque files replaced whole (downloaded objects), without the sidecar
  // and the previous version: `content` goes to `tempName` in the same
  // directory, is synced, renamed over `name` and the rename synced, so that
  // `name` is at every instant either the old or the new content. False
  // leaves `name` as it was and no `tempName` behind.
  static bool Replace(const std::string& directory, const std::string& name,
                      const std::string& tempName, const std::string& content);
  // The bytes of `name` as they are, at most `maxBytes`; false when it is
  // absent, unreadable or larger.
  static bool ReadAll(const std::string& directory, const std::string& name, size_t maxBytes,
                      std::string& content);
  // Deletes the one file `name`; true when it is gone (or was never there).
  static bool Remove(const std::string& directory, const std::string& name);

  // Routes every system call through `operations` (not owned; it must outlive
  // its use); nullptr restores the plain POSIX calls. For fault injection.
  static void SetOperations(FileOperations* operations);

 private:
  static Mutex& GetMutex();
  static FileOperations& Operations() REQUIRES(GetMutex());

  static FileOperations* operations_ GUARDED_BY(GetMutex());  // nullptr = POSIX
};

}  // namespace Core
}  // namespace Lum
