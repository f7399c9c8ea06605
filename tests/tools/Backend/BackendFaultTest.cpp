#include <gtest/gtest.h>

#include <chrono>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;
using std::chrono::milliseconds;
using std::chrono::seconds;

using BackendFaultTest = BackendTest;

// Each fault shapes one answer of its path; the next answer is the route's.
TEST_F(BackendFaultTest, FaultKindsShapeOneAnswer) {
  const milliseconds none(0);
  struct Case {
    const char* what;
    Fault fault;
    long status;   // 400 without headers: no answer at all
    bool headers;  // whether the status line and headers arrived
    const char* body;
  } cases[] = {
      {"status", Fault{1, none, 503}, 503, true, "{}"},
      {"not JSON", Fault{1, none, 0, true}, 200, true, nullptr},
      {"drop", Fault{1, none, 0, false, true}, 400, false, ""},
      {"delay", Fault{1, milliseconds(300)}, 200, true, "GET"},
      {"stall after headers", Fault{1, none, 0, false, false, seconds(30)}, 400, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    backend_->injectFault("/test/method", c.fault);
    EXPECT_EQ(call(Http::GET, "/test/bytes/3").body, "abc");  // another path
    const auto start = std::chrono::steady_clock::now();
    Http::Response response = call(Http::GET, "/test/method", "", "", 3000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, c.fault.delay);
    EXPECT_EQ(response.statusCode, c.status);
    EXPECT_EQ(!response.headers.empty(), c.headers);
    if (c.body != nullptr) {
      EXPECT_EQ(response.body, c.body);
    } else {
      EXPECT_TRUE(!response.body.empty() && Parse(response.body).isNull()) << response.body;
    }
    EXPECT_EQ(call(Http::GET, "/test/method").body, "GET");
  }

  // A negative count and the "*" path: every answer until cleared.
  backend_->injectFault("*", Fault{-1, none, 428});
  EXPECT_EQ(call(Http::GET, "/test/method").statusCode, 428);
  EXPECT_EQ(registerDevice(), "");
  backend_->clearFaults();
  EXPECT_EQ(call(Http::GET, "/test/bytes/3").body, "abc");
}

}  // namespace
}  // namespace LumTest
