#pragma once

#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace LumTest {

// Routes the process-wide logger into a short-format file for the lifetime of
// the object: every service and category up to `severity` ("debug", "trace",
// ...). The destructor terminates the logger again, so tests that use one
// must not overlap (gtest runs them one after another).
class LogCapture {
 public:
  explicit LogCapture(const std::string& severity = "trace");
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The message part of every line logged so far (without the classification
  // columns of the short format).
  std::vector<std::string> messages() const;
  // Whether some logged message equals `message` exactly.
  bool logged(const std::string& message) const;
  // Everything written so far, byte for byte.
  std::string text() const;

 private:
  TempDir dir_;
};

}  // namespace LumTest
