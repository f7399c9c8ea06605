#pragma once

#include <sys/types.h>

namespace Lum {
namespace Core {

// The handful of system calls FileUtil makes, behind virtual functions so a
// test can make any one of them fail (a full disk, an I/O error, a read-only
// mount) at an exact moment. The default implementation calls POSIX directly.
//
// Every operation behaves like its POSIX namesake: on failure it returns -1
// and sets errno. Interrupted calls (EINTR) are retried here, so callers never
// see them.
class FileOperations {
 public:
  FileOperations() = default;
  virtual ~FileOperations() = default;
  FileOperations(const FileOperations&) = delete;
  FileOperations& operator=(const FileOperations&) = delete;

  virtual int open(const char* path, int flags, mode_t mode);
  virtual ssize_t read(int fd, void* buffer, size_t size);
  virtual ssize_t write(int fd, const void* buffer, size_t size);
  // Also used on directories (opened with O_DIRECTORY) to make renames durable.
  virtual int fsync(int fd);
  virtual int close(int fd);
  virtual int rename(const char* from, const char* to);
  virtual int unlink(const char* path);
};

}  // namespace Core
}  // namespace Lum
