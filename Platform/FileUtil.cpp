#include "Platform/FileUtil.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "Platform/FileOperations.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/FileUtil");

namespace Lum {
namespace Core {

namespace {

using FP = FilterProperties;

constexpr char kSidecarHeader[] = "lumfile 1";
constexpr mode_t kFileMode = 0600;  // the state holds the device's credentials
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kDigestHexLength = 64;
// A sidecar lists at most two versions; anything longer is damaged anyway.
constexpr size_t kMaxSidecarBytes = 4096;

struct Paths {
  std::string directory;  // as given; "" means the working directory
  std::string current;
  std::string previous;
  std::string sidecar;
  std::string currentTemp;
  std::string sidecarTemp;
};

// One version the sidecar vouches for.
struct Entry {
  uint64_t version = 0;
  uint64_t size = 0;
  std::string digest;
};

enum class ReadStatus { kOk, kAbsent, kTooLarge, kFailed };

// One of the two content files as found on disk.
struct Candidate {
  ReadStatus status = ReadStatus::kAbsent;
  std::string content;
  std::string digest;
  // Vouched for by the sidecar or, without a valid one, a whole JSON document.
  bool intact = false;
  uint64_t version = 0;  // meaningful when intact; 0 when taken unchecked
};

enum class SidecarStatus { kAbsent, kValid, kDamaged };

struct Sidecar {
  SidecarStatus status = SidecarStatus::kAbsent;
  std::vector<Entry> entries;
};

// A name is one file in the directory: anything that would reach elsewhere
// is refused.
bool IsValidName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

Paths MakePaths(const std::string& directory, const std::string& name) {
  std::string prefix = directory;
  if (!prefix.empty() && prefix.back() != '/') {
    prefix += '/';
  }
  Paths paths;
  paths.directory = directory;
  paths.current = prefix + name;
  paths.previous = paths.current + ".prev";
  paths.sidecar = paths.current + ".sum";
  paths.currentTemp = paths.current + ".tmp";
  paths.sidecarTemp = paths.sidecar + ".tmp";
  return paths;
}

std::string Digest(const std::string& content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return std::string();  // matches no entry, so the content counts as damaged
  }
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * length);
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0x0f];
  }
  return hex;
}

bool IsLowerHex(const std::string& text) {
  return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string FormatSidecar(const std::vector<Entry>& entries) {
  std::string text = std::string(kSidecarHeader) + "\n";
  for (const Entry& entry : entries) {
    char line[64];
    snprintf(line, sizeof line, "%" PRIu64 " %" PRIu64 " ", entry.version, entry.size);
    text += line + entry.digest + "\n";
  }
  return text;
}

bool ParseEntry(const std::string& line, Entry* entry) {
  char digest[kDigestHexLength + 2] = {0};
  int consumed = 0;
  // %65s reads one character more than a digest has, so a longer one is caught.
  if (sscanf(line.c_str(), "%" SCNu64 " %" SCNu64 " %65s%n", &entry->version, &entry->size, digest,
             &consumed) != 3 ||
      static_cast<size_t>(consumed) != line.size() || line[0] == '-') {
    return false;
  }
  entry->digest = digest;
  return entry->digest.size() == kDigestHexLength && IsLowerHex(entry->digest);
}

// A sidecar that does not parse line by line is damaged as a whole: nothing in
// it can be trusted to vouch for a version.
bool ParseSidecar(const std::string& text, std::vector<Entry>* entries) {
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kSidecarHeader) {
    return false;
  }
  while (std::getline(in, line)) {
    Entry entry;
    if (!ParseEntry(line, &entry)) {
      return false;
    }
    entries->push_back(entry);
  }
  return !entries->empty() && !text.empty() && text.back() == '\n';
}

// Reads at most one byte beyond `maxBytes`, so that an oversized file is
// recognised without holding more of it than that in memory.
ReadStatus ReadWhole(FileOperations& ops, const std::string& path, size_t maxBytes,
                     std::string* content) {
  content->clear();
  int fd = ops.open(path.c_str(), O_RDONLY, 0);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return ReadStatus::kAbsent;
    }
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot open %s: %s",
            path.c_str(), strerror(errno));
    return ReadStatus::kFailed;
  }
  // Not zeroed: most files are far smaller than a chunk, and each read says
  // how much of it holds data.
  const std::unique_ptr<char[]> chunk(new char[kReadChunk]);
  for (;;) {
    const size_t room = maxBytes - content->size();
    ssize_t n = ops.read(fd, chunk.get(), room < kReadChunk ? room + 1 : kReadChunk);
    if (n < 0) {
      LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot read %s: %s",
              path.c_str(), strerror(errno));
      ops.close(fd);
      content->clear();
      return ReadStatus::kFailed;
    }
    if (n == 0) {
      break;
    }
    content->append(chunk.get(), static_cast<size_t>(n));
    if (content->size() > maxBytes) {
      ops.close(fd);
      content->clear();
      LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
              "%s is larger than %zu bytes, ignoring it", path.c_str(), maxBytes);
      return ReadStatus::kTooLarge;
    }
  }
  ops.close(fd);
  return ReadStatus::kOk;
}

bool WriteAll(FileOperations& ops, int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ops.write(fd, content.data() + done, content.size() - done);
    if (n < 0) {
      return false;
    }
    if (n == 0) {  // no progress and no error: give up rather than spin
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Writes a complete, synced file, so that renaming it afterwards can only
// ever expose the whole content.
bool WriteDurably(FileOperations& ops, const std::string& path, const std::string& content) {
  int fd = ops.open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, kFileMode);
  if (fd < 0) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot create %s: %s",
            path.c_str(), strerror(errno));
    return false;
  }
  const char* failed = nullptr;
  if (!WriteAll(ops, fd, content)) {
    failed = "write";
  } else if (ops.fsync(fd) != 0) {
    failed = "sync";
  }
  int error = errno;
  // Some file systems report deferred write errors only at close.
  if (ops.close(fd) != 0 && failed == nullptr) {
    failed = "close";
    error = errno;
  }
  if (failed != nullptr) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot %s %s: %s", failed,
            path.c_str(), strerror(error));
    ops.unlink(path.c_str());
    return false;
  }
  return true;
}

// Makes the renames done so far in the directory durable.
bool SyncDirectory(FileOperations& ops, const std::string& directory) {
  const std::string path = directory.empty() ? "." : directory;
  int fd = ops.open(path.c_str(), O_RDONLY | O_DIRECTORY, 0);
  if (fd < 0) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Cannot open directory %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  bool synced = ops.fsync(fd) == 0;
  int error = errno;
  ops.close(fd);
  if (!synced) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Cannot sync directory %s: %s", path.c_str(), strerror(error));
  }
  return synced;
}

bool Rename(FileOperations& ops, const std::string& from, const std::string& to) {
  if (ops.rename(from.c_str(), to.c_str()) != 0) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot rename %s to %s: %s",
            from.c_str(), to.c_str(), strerror(errno));
    return false;
  }
  return true;
}

Sidecar ReadSidecar(FileOperations& ops, const Paths& paths) {
  Sidecar sidecar;
  std::string text;
  ReadStatus status = ReadWhole(ops, paths.sidecar, kMaxSidecarBytes, &text);
  if (status == ReadStatus::kAbsent) {
    return sidecar;
  }
  sidecar.status = status == ReadStatus::kOk && ParseSidecar(text, &sidecar.entries)
                       ? SidecarStatus::kValid
                       : SidecarStatus::kDamaged;
  if (sidecar.status == SidecarStatus::kDamaged) {
    sidecar.entries.clear();
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Checksum file %s is unreadable, checking %s as JSON only", paths.sidecar.c_str(),
            paths.current.c_str());
  }
  return sidecar;
}

// Reads one content file and checks it against the sidecar. The same content
// stored twice is listed twice; the newer version counts. Without a valid
// sidecar the only check left is that the content is one whole JSON document,
// which is what every stored file holds.
Candidate ReadCandidate(FileOperations& ops, const std::string& path, const Sidecar& sidecar,
                        size_t maxBytes) {
  Candidate candidate;
  candidate.status = ReadWhole(ops, path, maxBytes, &candidate.content);
  if (candidate.status != ReadStatus::kOk) {
    return candidate;
  }
  candidate.digest = Digest(candidate.content);
  if (sidecar.status != SidecarStatus::kValid) {
    LumJson::Value document;
    candidate.intact = JsonUtil::ParseStrict(candidate.content, document);
    return candidate;
  }
  for (const Entry& entry : sidecar.entries) {
    if (entry.size == candidate.content.size() && entry.digest == candidate.digest &&
        (!candidate.intact || entry.version > candidate.version)) {
      candidate.intact = true;
      candidate.version = entry.version;
    }
  }
  return candidate;
}

// An oversized or unreadable file has been logged by ReadWhole already.
void LogDamaged(const std::string& path, const Candidate& candidate, const Sidecar& sidecar) {
  if (candidate.status != ReadStatus::kOk) {
    return;
  }
  if (sidecar.status == SidecarStatus::kValid) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s does not match its checksum, ignoring it", path.c_str());
  } else {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s has no checksum and is not a whole JSON document, ignoring it", path.c_str());
  }
}

uint64_t HighestVersion(const Sidecar& sidecar) {
  uint64_t highest = 0;
  for (const Entry& entry : sidecar.entries) {
    highest = entry.version > highest ? entry.version : highest;
  }
  return highest;
}

Entry MakeEntry(uint64_t version, const std::string& content, const std::string& digest) {
  Entry entry;
  entry.version = version;
  entry.size = content.size();
  entry.digest = digest;
  return entry;
}

// The version Load returns. Store keeps exactly this one as its fallback, so
// that a text Load would refuse never becomes a version the sidecar vouches
// for.
struct Choice {
  enum Source { kNone, kCurrent, kPrevious } source = kNone;
  std::string content;
  Entry entry;
};

Choice Choose(FileOperations& ops, const Paths& paths, const Sidecar& sidecar, size_t maxBytes) {
  Choice choice;
  Candidate current = ReadCandidate(ops, paths.current, sidecar, maxBytes);
  if (current.intact) {
    choice.source = Choice::kCurrent;
    choice.entry = MakeEntry(current.version, current.content, current.digest);
    choice.content = std::move(current.content);
    return choice;
  }
  LogDamaged(paths.current, current, sidecar);
  Candidate previous = ReadCandidate(ops, paths.previous, sidecar, maxBytes);
  if (previous.intact) {
    choice.source = Choice::kPrevious;
    choice.entry = MakeEntry(previous.version, previous.content, previous.digest);
    choice.content = std::move(previous.content);
    return choice;
  }
  LogDamaged(paths.previous, previous, sidecar);
  if (current.status != ReadStatus::kAbsent || previous.status != ReadStatus::kAbsent) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "No intact version of %s is left", paths.current.c_str());
  }
  return choice;
}

// Step 2 of Store: after this the sidecar vouches for both the new content
// and the fallback, before either content file changes.
bool PublishSidecar(FileOperations& ops, const Paths& paths, const Entry& newest,
                    const Choice& fallback) {
  std::vector<Entry> entries{newest};
  if (fallback.source != Choice::kNone) {
    entries.push_back(fallback.entry);
  }
  if (!WriteDurably(ops, paths.sidecarTemp, FormatSidecar(entries))) {
    return false;
  }
  if (!Rename(ops, paths.sidecarTemp, paths.sidecar)) {
    ops.unlink(paths.sidecarTemp.c_str());
    return false;
  }
  return SyncDirectory(ops, paths.directory);
}

// Steps 3 and 4 of Store. A fallback already in name.prev stays where it is.
bool PublishContent(FileOperations& ops, const Paths& paths, const Choice& fallback) {
  if (fallback.source == Choice::kCurrent && !Rename(ops, paths.current, paths.previous)) {
    return false;
  }
  if (!Rename(ops, paths.currentTemp, paths.current)) {
    return false;
  }
  return SyncDirectory(ops, paths.directory);
}

bool RemoveIfPresent(FileOperations& ops, const std::string& path, bool* removed) {
  if (ops.unlink(path.c_str()) == 0) {
    *removed = true;
    return true;
  }
  if (errno == ENOENT || errno == ENOTDIR) {
    return true;
  }
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Cannot delete %s: %s",
          path.c_str(), strerror(errno));
  return false;
}

void LogInvalidName(const std::string& name) {
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Invalid file name \"%s\"",
          name.c_str());
}

}  // namespace

FileOperations* FileUtil::operations_ = nullptr;

// Both never destroyed: an agent thread may be storing a file while the host
// exits.
Mutex& FileUtil::GetMutex() {
  static Mutex* const mutex = new Mutex();
  return *mutex;
}

FileOperations& FileUtil::Operations() {
  static FileOperations* const posix = new FileOperations();
  return operations_ != nullptr ? *operations_ : *posix;
}

void FileUtil::SetOperations(FileOperations* operations) {
  LockMutex lock(&GetMutex());
  operations_ = operations;
}

std::string FileUtil::Load(const std::string& directory, const std::string& name, size_t maxBytes) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name)) {
    LogInvalidName(name);
    return std::string();
  }
  LockMutex lock(&GetMutex());
  FileOperations& ops = Operations();
  const Paths paths = MakePaths(directory, name);
  Choice choice = Choose(ops, paths, ReadSidecar(ops, paths), maxBytes);
  if (choice.source == Choice::kPrevious) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Using the previous version %" PRIu64 " of %s", choice.entry.version,
            paths.current.c_str());
  }
  return std::move(choice.content);
}

bool FileUtil::Store(const std::string& directory, const std::string& name,
                     const std::string& content, size_t maxBytes) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name)) {
    LogInvalidName(name);
    return false;
  }
  LockMutex lock(&GetMutex());
  FileOperations& ops = Operations();
  const Paths paths = MakePaths(directory, name);
  if (content.size() > maxBytes) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Not storing %zu bytes in %s, more than the %zu bytes it is loaded with",
            content.size(), paths.current.c_str(), maxBytes);
    return false;
  }
  const Sidecar sidecar = ReadSidecar(ops, paths);
  const Choice fallback = Choose(ops, paths, sidecar, maxBytes);
  uint64_t highest = HighestVersion(sidecar);
  if (fallback.source != Choice::kNone && fallback.entry.version > highest) {
    highest = fallback.entry.version;
  }
  const Entry newest = MakeEntry(highest + 1, content, Digest(content));

  if (!WriteDurably(ops, paths.currentTemp, content)) {
    return false;
  }
  if (!PublishSidecar(ops, paths, newest, fallback) || !PublishContent(ops, paths, fallback)) {
    ops.unlink(paths.currentTemp.c_str());
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Storing %s failed, its previous content is kept", paths.current.c_str());
    return false;
  }
  return true;
}

bool FileUtil::Drop(const std::string& directory, const std::string& name) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name)) {
    LogInvalidName(name);
    return false;
  }
  LockMutex lock(&GetMutex());
  FileOperations& ops = Operations();
  const Paths paths = MakePaths(directory, name);
  // Oldest first and the sidecar last: an interrupted Drop leaves either the
  // newest content, still vouched for, or nothing, but never brings back an
  // older version. A removal that fails stops the Drop there: going on would
  // take the newest content and its sidecar and leave name.prev alone, which
  // Load would then trust as a whole document.
  bool removed = false;
  bool clean = true;
  for (const std::string* path :
       {&paths.currentTemp, &paths.sidecarTemp, &paths.previous, &paths.current, &paths.sidecar}) {
    clean = clean && RemoveIfPresent(ops, *path, &removed);
  }
  if (removed && !SyncDirectory(ops, paths.directory)) {
    return false;
  }
  return clean;
}

bool FileUtil::Replace(const std::string& directory, const std::string& name,
                       const std::string& tempName, const std::string& content) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name) || !IsValidName(tempName) || name == tempName) {
    LogInvalidName(name + "/" + tempName);
    return false;
  }
  LockMutex lock(&GetMutex());
  FileOperations& ops = Operations();
  const Paths paths = MakePaths(directory, name);
  const Paths temp = MakePaths(directory, tempName);
  if (!WriteDurably(ops, temp.current, content)) {
    return false;
  }
  if (!Rename(ops, temp.current, paths.current)) {
    ops.unlink(temp.current.c_str());
    return false;
  }
  return SyncDirectory(ops, paths.directory);
}

bool FileUtil::ReadAll(const std::string& directory, const std::string& name, size_t maxBytes,
                       std::string& content) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name)) {
    LogInvalidName(name);
    return false;
  }
  LockMutex lock(&GetMutex());
  return ReadWhole(Operations(), MakePaths(directory, name).current, maxBytes, &content) ==
         ReadStatus::kOk;
}

bool FileUtil::Remove(const std::string& directory, const std::string& name) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!IsValidName(name)) {
    LogInvalidName(name);
    return false;
  }
  LockMutex lock(&GetMutex());
  FileOperations& ops = Operations();
  const Paths paths = MakePaths(directory, name);
  bool removed = false;
  if (!RemoveIfPresent(ops, paths.current, &removed)) {
    return false;
  }
  return !removed || SyncDirectory(ops, paths.directory);
}

}  // namespace Core
}  // namespace Lum
