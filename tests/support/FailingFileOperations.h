#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "Platform/FileOperations.h"

namespace LumTest {

// Installs itself as FileUtil's system calls for its lifetime. Counts every
// call, and makes either the nth call (of any kind) or every call that would
// change the disk fail with a chosen errno: a full disk (ENOSPC), a failing
// medium (EIO), a read-only mount (EROFS). Safe to re-arm while agent threads
// use it.
class FailingFileOperations : public Lum::Core::FileOperations {
 public:
  FailingFileOperations();
  ~FailingFileOperations() override;

  // Fails call number `nth` (1-based, counted from now); 0 fails none.
  void failNth(int nth, int error);
  // Fails every open for writing, write, fsync, rename and unlink; 0 heals.
  void failChanges(int error);
  int calls() const { return calls_; }
  // The kind of every call made since the last failNth.
  std::vector<std::string> kinds() const;

  int open(const char* path, int flags, mode_t mode) override;
  ssize_t read(int fd, void* buffer, size_t size) override;
  ssize_t write(int fd, const void* buffer, size_t size) override;
  int fsync(int fd) override;
  int close(int fd) override;
  int rename(const char* from, const char* to) override;
  int unlink(const char* path) override;

 private:
  // True (with errno set) when this call is to fail.
  bool fail(const char* kind, bool changes);

  std::atomic<int> calls_{0};
  std::atomic<int> nth_{0};
  std::atomic<int> nthError_{0};
  std::atomic<int> changesError_{0};
  std::vector<std::string> kinds_;  // only recorded while failNth is armed, on one thread
};

}  // namespace LumTest
