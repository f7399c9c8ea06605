#include "Platform/FileOperations.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

namespace Lum {
namespace Core {

int FileOperations::open(const char* path, int flags, mode_t mode) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

ssize_t FileOperations::read(int fd, void* buffer, size_t size) {
  ssize_t n;
  do {
    n = ::read(fd, buffer, size);
  } while (n < 0 && errno == EINTR);
  return n;
}

ssize_t FileOperations::write(int fd, const void* buffer, size_t size) {
  ssize_t n;
  do {
    n = ::write(fd, buffer, size);
  } while (n < 0 && errno == EINTR);
  return n;
}

int FileOperations::fsync(int fd) {
  int result;
  do {
    result = ::fsync(fd);
  } while (result < 0 && errno == EINTR);
  return result;
}

// close is not retried on EINTR: on Linux the descriptor is released anyway
// and a retry could close a descriptor another thread has just been given.
int FileOperations::close(int fd) {
  return ::close(fd);
}

int FileOperations::rename(const char* from, const char* to) {
  return ::rename(from, to);
}

int FileOperations::unlink(const char* path) {
  return ::unlink(path);
}

}  // namespace Core
}  // namespace Lum
