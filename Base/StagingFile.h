#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Lum {
namespace Su {

// The file an update payload is assembled in, and the few things done to it:
// blocks written at their offsets and made durable before they count,
// truncation back to what was verified, and the checks of what it holds.
// The payload can be far larger than any state file, so this works on the
// file in place rather than through FileUtil's whole-file versions; the
// verified length kept in the update's state file is what makes it safe
// against power loss. Stateless; every call opens and closes the file.
class StagingFile {
 public:
  // The file's size, or -1 when it does not exist.
  static int64_t Size(const std::string& path);
  // Creates the file when needed and sets its length; false with a reason.
  static bool Truncate(const std::string& path, uint64_t length, std::string& why);
  // Writes `length` bytes at `offset` and syncs them to the disk.
  static bool WriteAt(const std::string& path, uint64_t offset, const uint8_t* data, size_t length,
                      std::string& why);
  // Reads exactly `length` bytes at `offset` of any file (a local payload).
  static bool ReadAt(const std::string& path, uint64_t offset, uint8_t* data, size_t length,
                     std::string& why);
  // Bytes an unprivileged writer may still add in the file's directory.
  static bool FreeBytes(const std::string& path, uint64_t& bytes, std::string& why);
  // Whether the `length` bytes at `offset` hash to `blockHash`.
  static bool BlockMatches(const std::string& path, uint64_t offset, uint64_t length,
                           const std::string& blockHash);
  // Reads the first `length` bytes block by block and returns how many of
  // them, from the start, match their block hashes (lower-case hex SHA-256,
  // one per `blockSize` bytes). When all `length` bytes match, `wholeHash`
  // (if given) receives the SHA-256 of those bytes.
  static uint64_t VerifiedPrefix(const std::string& path, uint64_t length, uint32_t blockSize,
                                 const std::vector<std::string>& blockHashes,
                                 std::string* wholeHash);
};

}  // namespace Su
}  // namespace Lum
