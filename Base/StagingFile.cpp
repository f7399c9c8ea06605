#include "Base/StagingFile.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace Lum {
namespace Su {

namespace {

// Closes on every path out, EINTR included.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

std::string Reason(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + strerror(errno);
}

std::string Hex(const unsigned char* digest, unsigned length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned i = 0; i < length; ++i) {
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 0x0f];
  }
  return hex;
}

struct MdFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

int64_t StagingFile::Size(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return -1;
  }
  return static_cast<int64_t>(info.st_size);
}

bool StagingFile::Truncate(const std::string& path, uint64_t length, std::string& why) {
  Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (!fd.ok()) {
    why = Reason("cannot open", path);
    return false;
  }
  if (ftruncate(fd.get(), static_cast<off_t>(length)) != 0 || fsync(fd.get()) != 0) {
    why = Reason("cannot truncate", path);
    return false;
  }
  return true;
}

bool StagingFile::WriteAt(const std::string& path, uint64_t offset, const uint8_t* data,
                          size_t length, std::string& why) {
  Fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  if (!fd.ok()) {
    why = Reason("cannot open", path);
    return false;
  }
  size_t done = 0;
  while (done < length) {
    const ssize_t written =
        pwrite(fd.get(), data + done, length - done, static_cast<off_t>(offset + done));
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      why = Reason("cannot write", path);
      return false;
    }
    done += static_cast<size_t>(written);
  }
  // The block counts as verified only once the state file says so, and that
  // is written after this returns: the bytes must be on the disk first.
  if (fdatasync(fd.get()) != 0) {
    why = Reason("cannot sync", path);
    return false;
  }
  return true;
}

bool StagingFile::ReadAt(const std::string& path, uint64_t offset, uint8_t* data, size_t length,
                         std::string& why) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) {
    why = Reason("cannot open", path);
    return false;
  }
  size_t done = 0;
  while (done < length) {
    const ssize_t got =
        pread(fd.get(), data + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      why = got == 0 ? path + " ends early" : Reason("cannot read", path);
      return false;
    }
    done += static_cast<size_t>(got);
  }
  return true;
}

bool StagingFile::FreeBytes(const std::string& path, uint64_t& bytes, std::string& why) {
  const size_t slash = path.rfind('/');
  const std::string directory =
      slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
  struct statvfs info {};
  if (statvfs(directory.c_str(), &info) != 0) {
    why = Reason("cannot examine", directory);
    return false;
  }
  bytes = static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_frsize);
  return true;
}

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Feeds `length` bytes at `offset` into both digests; false when the file
// ends early or cannot be read.
bool HashRange(int fd, uint64_t offset, uint64_t length, EVP_MD_CTX* block, EVP_MD_CTX* whole) {
  std::vector<unsigned char> buffer(static_cast<size_t>(std::min<uint64_t>(length, kReadChunk)));
  uint64_t done = 0;
  while (done < length) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(buffer.size(), length - done));
    const ssize_t got = pread(fd, buffer.data(), wanted, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return false;
    }
    if (EVP_DigestUpdate(block, buffer.data(), static_cast<size_t>(got)) != 1 ||
        (whole != nullptr &&
         EVP_DigestUpdate(whole, buffer.data(), static_cast<size_t>(got)) != 1)) {
      return false;
    }
    done += static_cast<uint64_t>(got);
  }
  return true;
}

std::string Final(EVP_MD_CTX* ctx) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  return EVP_DigestFinal_ex(ctx, digest, &length) == 1 ? Hex(digest, length) : std::string();
}

}  // namespace

bool StagingFile::BlockMatches(const std::string& path, uint64_t offset, uint64_t length,
                               const std::string& blockHash) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::unique_ptr<EVP_MD_CTX, MdFree> block(EVP_MD_CTX_new());
  if (!fd.ok() || !block || EVP_DigestInit_ex(block.get(), EVP_sha256(), nullptr) != 1 ||
      !HashRange(fd.get(), offset, length, block.get(), nullptr)) {
    return false;
  }
  return Final(block.get()) == blockHash;
}

uint64_t StagingFile::VerifiedPrefix(const std::string& path, uint64_t length, uint32_t blockSize,
                                     const std::vector<std::string>& blockHashes,
                                     std::string* wholeHash) {
  Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::unique_ptr<EVP_MD_CTX, MdFree> whole(EVP_MD_CTX_new());
  std::unique_ptr<EVP_MD_CTX, MdFree> block(EVP_MD_CTX_new());
  if (blockSize == 0 || !fd.ok() || !whole || !block ||
      EVP_DigestInit_ex(whole.get(), EVP_sha256(), nullptr) != 1) {
    return 0;
  }
  uint64_t verified = 0;
  for (size_t index = 0; verified < length && index < blockHashes.size(); ++index) {
    const uint64_t wanted = std::min<uint64_t>(blockSize, length - verified);
    if (EVP_DigestInit_ex(block.get(), EVP_sha256(), nullptr) != 1 ||
        !HashRange(fd.get(), verified, wanted, block.get(), whole.get()) ||
        Final(block.get()) != blockHashes[index]) {
      return verified;
    }
    verified += wanted;
  }
  if (wholeHash != nullptr && verified == length) {
    *wholeHash = Final(whole.get());
  }
  return verified;
}

}  // namespace Su
}  // namespace Lum
