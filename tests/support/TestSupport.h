#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace LumTest {

// A fresh directory under the build tree (or /tmp), removed with its content
// when the object goes out of scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Polls `condition` until it holds or `timeout` passes; true when it held.
// Threaded tests wait with this instead of sleeping a fixed time.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

}  // namespace LumTest
