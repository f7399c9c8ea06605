#include "support/FailingFileOperations.h"

#include <fcntl.h>

#include <cerrno>

#include "Platform/FileUtil.h"

namespace LumTest {

using Lum::Core::FileOperations;
using Lum::Core::FileUtil;

FailingFileOperations::FailingFileOperations() {
  FileUtil::SetOperations(this);
}

FailingFileOperations::~FailingFileOperations() {
  FileUtil::SetOperations(nullptr);
}

void FailingFileOperations::failNth(int nth, int error) {
  calls_ = 0;
  kinds_.clear();
  nthError_ = error;
  nth_ = nth;
}

void FailingFileOperations::failChanges(int error) {
  changesError_ = error;
}

std::vector<std::string> FailingFileOperations::kinds() const {
  return kinds_;
}

bool FailingFileOperations::fail(const char* kind, bool changes) {
  const int call = ++calls_;
  if (nth_ != 0) {
    kinds_.emplace_back(kind);
    if (call == nth_) {
      errno = nthError_;
      return true;
    }
  }
  const int error = changesError_;
  if (changes && error != 0) {
    errno = error;
    return true;
  }
  return false;
}

int FailingFileOperations::open(const char* path, int flags, mode_t mode) {
  const bool changes = (flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
  return fail("open", changes) ? -1 : FileOperations::open(path, flags, mode);
}

ssize_t FailingFileOperations::read(int fd, void* buffer, size_t size) {
  return fail("read", false) ? -1 : FileOperations::read(fd, buffer, size);
}

ssize_t FailingFileOperations::write(int fd, const void* buffer, size_t size) {
  return fail("write", true) ? -1 : FileOperations::write(fd, buffer, size);
}

int FailingFileOperations::fsync(int fd) {
  return fail("fsync", true) ? -1 : FileOperations::fsync(fd);
}

// A failed close still releases the descriptor, as POSIX close does on Linux.
int FailingFileOperations::close(int fd) {
  if (fail("close", false)) {
    const int error = errno;
    FileOperations::close(fd);
    errno = error;
    return -1;
  }
  return FileOperations::close(fd);
}

int FailingFileOperations::rename(const char* from, const char* to) {
  return fail("rename", true) ? -1 : FileOperations::rename(from, to);
}

int FailingFileOperations::unlink(const char* path) {
  return fail("unlink", true) ? -1 : FileOperations::unlink(path);
}

}  // namespace LumTest
