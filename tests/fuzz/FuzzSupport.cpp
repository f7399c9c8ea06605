#include "fuzz/FuzzSupport.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace LumFuzz {

namespace {

void RemoveTree(const std::string& path, bool keepTop) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    return;
  }
  if (S_ISDIR(st.st_mode)) {
    if (DIR* dir = opendir(path.c_str())) {
      while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
          RemoveTree(path + "/" + name, false);
        }
      }
      closedir(dir);
    }
    if (!keepTop) {
      rmdir(path.c_str());
    }
  } else {
    unlink(path.c_str());
  }
}

std::string& Dir() {
  static std::string dir;
  return dir;
}

void RemoveWorkDir() {
  if (!Dir().empty()) {
    RemoveTree(Dir(), false);
  }
}

}  // namespace

const std::string& WorkDir() {
  std::string& dir = Dir();
  if (dir.empty()) {
    struct stat st {};
    const char* tmp = std::getenv("TMPDIR");
    std::string base = stat("/dev/shm", &st) == 0 ? "/dev/shm" : (tmp != nullptr ? tmp : "/tmp");
    dir = base + "/lumfuzz-" + std::to_string(getpid()) + "/";
    RemoveTree(dir, false);
    if (mkdir(dir.c_str(), 0700) != 0) {
      Fail("cannot create " + dir);
    }
    std::atexit(RemoveWorkDir);
  }
  return dir;
}

void ClearDir(const std::string& dir) {
  RemoveTree(dir, true);
}

void WriteRaw(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) {
    Fail("cannot write " + path);
  }
}

void Fail(const std::string& reason) {
  std::fprintf(stderr, "PROPERTY BROKEN: %s\n", reason.c_str());
  std::fflush(stderr);
  std::abort();
}

void FixedClock::Install() {
  static FixedClock clock;
  Lum::Core::Clock::Set(&clock);
}

}  // namespace LumFuzz
