#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Base/Injector.h"
#include "HttpTestSupport.h"
#include "Platform/Http.h"
#include "Platform/JsonUtil.h"

namespace {

using Lum::Core::Http;
using Lum::Core::Injector;

class InjectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backend_ = LumHttpTest::StartBackend();
    ASSERT_NE(nullptr, backend_);
    base_ = backend_->baseUrl("OPID") + "/api/v1/";
  }

  void TearDown() override { Injector::Instance().terminate(); }

  void configure(const std::string& json) {
    LumJson::Value value;
    ASSERT_TRUE(Lum::Core::JsonUtil::ParseStrict(json, value)) << json;
    Injector::Instance().initialize(value);
  }

  Http::Response perform(const std::string& path, uint8_t* buffer = nullptr,
                         uint32_t maxLength = 0) {
    Http::Request r = LumHttpTest::DeviceRequest(Http::POST, base_ + path);
    r.mock = true;  // stale: the injector must decide afresh
    Http::Response response;
    response.bodyBuffer = buffer;
    response.bodyMaxLength = maxLength;
    Http::Perform(r, response);
    EXPECT_EQ(nullptr, r.handle);
    lastMock_ = r.mock;
    return response;
  }

  std::unique_ptr<Lum::Tools::Backend> backend_;
  std::string base_;
  bool lastMock_ = false;
};

TEST_F(InjectorTest, InitializeKeepsEntriesUpToTheFirstMalformedElement) {
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {R"({"suffix":"a","responses":[{}]})", {}},  // not an array
      {R"([{"suffix":"a","responses":[{}]},{"responses":[{}]},{"suffix":"c","responses":[{}]}])",
       {"a"}},
      {R"([{"suffix":1,"responses":[{}]}])", {}},
      {R"([{"suffix":"a","responses":[{}]},"b"])", {"a"}},
      {R"([{"suffix":"a","responses":[{}]},{"suffix":"b"}])", {"a"}},
      {R"([{"suffix":"a","responses":{}}])", {}},
      {R"([{"suffix":"a","responses":[{}]},{"suffix":"b","responses":[]}])", {"a"}},
  };
  for (const auto& [json, expected] : cases) {
    SCOPED_TRACE(json);
    configure(json);
    std::vector<std::string> suffixes;
    for (const Injector::Entry& entry : Injector::Instance().entries()) {
      suffixes.push_back(entry.suffix);
    }
    EXPECT_EQ(expected, suffixes);
    Injector::Instance().terminate();
    EXPECT_TRUE(Injector::Instance().entries().empty());
  }
}

TEST_F(InjectorTest, MistypedResponseFieldsFallBackToDefaults) {
  configure(R"([{"suffix":"x","responses":[
      {"statusCode":"500","duration":-1,"body":{"k":1},"headers":["A: 1",7]}]}])");
  const Injector::CannedResponse r = Injector::Instance().entries().at(0).responses.at(0);
  EXPECT_EQ(0u, r.statusCode);
  EXPECT_EQ(0u, r.duration);
  EXPECT_EQ("{}", r.body);
  EXPECT_EQ(std::vector<std::string>{"A: 1"}, r.headers);
}

TEST_F(InjectorTest, ScriptedStatusesPlayInTurnAndTheLastRepeats) {
  configure(R"([{"suffix":"da/state","responses":[{"statusCode":500},{"statusCode":200}]}])");
  EXPECT_EQ(500, perform("da/state").statusCode);
  EXPECT_TRUE(lastMock_);
  for (int i = 0; i < 3; ++i) {
    const Http::Response response = perform("da/state");
    EXPECT_EQ(200, response.statusCode);
    EXPECT_TRUE(response.answered);
    EXPECT_EQ("{}", response.body);  // no body configured
  }
  EXPECT_EQ(4u, Injector::Instance().entries()[0].calls);
  EXPECT_EQ(0u, backend_->requestCount());
}

TEST_F(InjectorTest, OnlyUrlsEndingInTheSuffixMatch) {
  configure(R"([{"suffix":"da/state","responses":[{"statusCode":299}]}])");
  for (const char* path : {"da/state/", "da/stat", "da/state?x=1"}) {
    SCOPED_TRACE(path);
    EXPECT_NE(299, perform(path).statusCode);
    EXPECT_FALSE(lastMock_);
  }
  EXPECT_EQ(0u, Injector::Instance().entries()[0].calls);
  EXPECT_EQ(3u, backend_->requestCount());  // every one of them went out

  configure(R"([{"suffix":")" + base_ + R"(da/state","responses":[{}]}])");
  EXPECT_EQ(0, perform("da/state").statusCode);  // a suffix as long as the URL still matches
  EXPECT_TRUE(lastMock_);
  EXPECT_EQ(3u, backend_->requestCount());
}

TEST_F(InjectorTest, SeveralMatchingEntriesApplyInOrder) {
  configure(R"([
      {"suffix":"state","responses":[{"statusCode":201,"body":"first","headers":["A: 1\r\n"]}]},
      {"suffix":"other","responses":[{"statusCode":202}]},
      {"suffix":"da/state","responses":[{"statusCode":203,"headers":["B: 2\r\n"]}]}])");
  const Http::Response response = perform("da/state");
  EXPECT_EQ(203, response.statusCode);
  EXPECT_EQ("{}", response.body);  // the later entry's default body overrides
  EXPECT_EQ((std::vector<std::string>{"A: 1\r\n", "B: 2\r\n"}), response.headers);
  const std::vector<Injector::Entry> entries = Injector::Instance().entries();
  EXPECT_EQ(1u, entries[0].calls);
  EXPECT_EQ(0u, entries[1].calls);
  EXPECT_EQ(1u, entries[2].calls);
  EXPECT_EQ(0u, backend_->requestCount());
}

TEST_F(InjectorTest, CallerBufferReceivesTheBodyOnlyWhenItFits) {
  configure(R"([{"suffix":"blob","responses":[{"statusCode":200,"body":"0123456789"}]}])");
  for (const uint32_t maxLength : {10u, 9u}) {
    SCOPED_TRACE(maxLength);
    uint8_t buffer[11] = {0};
    const Http::Response response = perform("blob", buffer, maxLength);
    EXPECT_EQ(200, response.statusCode);
    EXPECT_TRUE(response.body.empty());
    const uint32_t expected = maxLength == 10 ? 10 : 0;
    EXPECT_EQ(expected, response.bodyLength);
    EXPECT_EQ(std::string("0123456789", expected), reinterpret_cast<const char*>(buffer));
  }
  EXPECT_EQ(0u, backend_->requestCount());
}

TEST_F(InjectorTest, DurationDelaysTheAnswer) {
  configure(R"([{"suffix":"slow","responses":[{"statusCode":200,"duration":1}]}])");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(200, perform("slow").statusCode);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
}

// A cancel cuts a canned wait short, and the answer is not given.
TEST_F(InjectorTest, CancelEndsTheWaitWithoutAnAnswer) {
  configure(R"([{"suffix":"slow","responses":[{"statusCode":200,"duration":60}]}])");
  Http::Request request = LumHttpTest::DeviceRequest(Http::POST, base_ + "slow");
  Http::Response response;
  const auto elapsed = LumHttpTest::PerformCancelled(request, response, [] { return true; });
  EXPECT_TRUE(request.mock);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_FALSE(response.answered);
  EXPECT_LT(elapsed, std::chrono::seconds(10));
  EXPECT_EQ(0u, backend_->requestCount());
}

}  // namespace
