#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "Base/Injector.h"
#include "HttpTestSupport.h"
#include "Platform/Http.h"

namespace {

using Lum::Core::Http;
using Lum::Core::Injector;

LumJson::Value ParseJson(const std::string& text) {
  LumJson::CharReaderBuilder builder;
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  LumJson::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

class InjectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backend_ = LumHttpTest::StartBackend();
    ASSERT_NE(nullptr, backend_);
    base_ = backend_->baseUrl("OPID") + "/api/v1/";
  }

  void TearDown() override { Injector::Instance().terminate(); }

  void configure(const std::string& json) { Injector::Instance().initialize(ParseJson(json)); }

  Http::Request request(const std::string& path) {
    return LumHttpTest::DeviceRequest(Http::POST, base_ + path);
  }

  Http::Response perform(const std::string& path) {
    Http::Request r = request(path);
    Http::Response response;
    Http::Perform(r, response);
    EXPECT_EQ(nullptr, r.handle);
    lastMock_ = r.mock;
    return response;
  }

  std::unique_ptr<Lum::Tools::Backend> backend_;
  std::string base_;
  bool lastMock_ = false;
};

struct ParseCase {
  const char* name;
  const char* json;
  std::vector<std::string> suffixes;
};

TEST_F(InjectorTest, InitializeKeepsEntriesUpToTheFirstMalformedElement) {
  const ParseCase cases[] = {
      {"not an array", R"({"suffix":"a","responses":[{}]})", {}},
      {"empty array", "[]", {}},
      {"two good entries",
       R"([{"suffix":"a","responses":[{}]},{"suffix":"b","responses":[{}]}])",
       {"a", "b"}},
      {"second lacks suffix",
       R"([{"suffix":"a","responses":[{}]},{"responses":[{}]},{"suffix":"c","responses":[{}]}])",
       {"a"}},
      {"suffix not text", R"([{"suffix":1,"responses":[{}]}])", {}},
      {"element not an object", R"([{"suffix":"a","responses":[{}]},"b"])", {"a"}},
      {"no responses", R"([{"suffix":"a","responses":[{}]},{"suffix":"b"}])", {"a"}},
      {"responses not an array", R"([{"suffix":"a","responses":{}}])", {}},
      {"responses empty",
       R"([{"suffix":"a","responses":[{}]},{"suffix":"b","responses":[]}])",
       {"a"}},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    configure(c.json);
    std::vector<std::string> suffixes;
    for (const Injector::Entry& entry : Injector::Instance().entries()) {
      suffixes.push_back(entry.suffix);
    }
    EXPECT_EQ(c.suffixes, suffixes);
    Injector::Instance().terminate();
    EXPECT_TRUE(Injector::Instance().entries().empty());
  }
}

TEST_F(InjectorTest, ResponseFieldsFallBackToDefaultsWhenAbsentOrMistyped) {
  configure(R"([{"suffix":"x","responses":[
      {"statusCode":201,"duration":0,"body":"[1]","headers":["A: 1",7,"B: 2"]},
      {},
      {"statusCode":"500","duration":-1,"body":{"k":1},"headers":"C: 3"},
      5]}])");
  const std::vector<Injector::Entry> entries = Injector::Instance().entries();
  ASSERT_EQ(1u, entries.size());
  const std::vector<Injector::CannedResponse>& r = entries[0].responses;
  ASSERT_EQ(4u, r.size());
  EXPECT_EQ(201u, r[0].statusCode);
  EXPECT_EQ("[1]", r[0].body);
  EXPECT_EQ((std::vector<std::string>{"A: 1", "B: 2"}), r[0].headers);
  for (size_t i = 1; i < r.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(0u, r[i].statusCode);
    EXPECT_EQ(0u, r[i].duration);
    EXPECT_EQ("{}", r[i].body);
    EXPECT_TRUE(r[i].headers.empty());
  }
}

TEST_F(InjectorTest, ScriptedStatusesPlayInTurnAndTheLastRepeats) {
  configure(R"([{"suffix":"da/state","responses":[{"statusCode":500},{"statusCode":200}]}])");
  EXPECT_EQ(500, perform("da/state").statusCode);
  EXPECT_TRUE(lastMock_);
  for (int i = 0; i < 3; ++i) {
    const Http::Response response = perform("da/state");
    EXPECT_EQ(200, response.statusCode);
    EXPECT_EQ("{}", response.body);
  }
  EXPECT_EQ(4u, Injector::Instance().entries()[0].calls);
  EXPECT_EQ(0u, backend_->requestCount());
}

TEST_F(InjectorTest, OnlyUrlsEndingInTheSuffixMatch) {
  configure(R"([{"suffix":"da/state","responses":[{"statusCode":299}]}])");
  const char* notMatching[] = {"da/state/", "da/stat", "ds/uploadtoken", "da/state?x=1"};
  for (const char* path : notMatching) {
    SCOPED_TRACE(path);
    const Http::Response response = perform(path);
    EXPECT_FALSE(lastMock_);
    EXPECT_NE(299, response.statusCode);
  }
  EXPECT_EQ(0u, Injector::Instance().entries()[0].calls);
  EXPECT_EQ(4u, backend_->requestCount());  // every one of them went out

  configure(R"([{"suffix":")" + base_ + R"(da/state","responses":[{}]}])");
  EXPECT_EQ(0, perform("da/state").statusCode);  // a suffix as long as the URL still matches
  EXPECT_TRUE(lastMock_);
  EXPECT_EQ(4u, backend_->requestCount());
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
  struct Case {
    uint32_t maxLength;
    uint32_t expectedLength;
  };
  const Case cases[] = {{16, 10}, {10, 10}, {9, 0}, {0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.maxLength);
    uint8_t buffer[16];
    std::memset(buffer, '#', sizeof buffer);
    Http::Request r = request("blob");
    Http::Response response;
    response.bodyBuffer = buffer;
    response.bodyMaxLength = c.maxLength;
    Http::Perform(r, response);
    EXPECT_EQ(200, response.statusCode);
    EXPECT_EQ(c.expectedLength, response.bodyLength);
    EXPECT_TRUE(response.body.empty());
    EXPECT_EQ(std::string("0123456789").substr(0, c.expectedLength),
              std::string(reinterpret_cast<char*>(buffer), c.expectedLength));
    EXPECT_EQ('#', buffer[c.expectedLength]);
  }
  EXPECT_EQ(0u, backend_->requestCount());
}

TEST_F(InjectorTest, MockFlagAndResponseAreResetOnEveryCall) {
  configure(R"([{"suffix":"x","responses":[{"statusCode":200}]}])");
  Http::Request r = request("x");
  r.mock = true;  // a stale flag must not decide anything
  Http::Response response;
  response.body = "old";
  response.headers = {"old"};
  response.bodyOverflow = true;
  Http::Perform(r, response);
  EXPECT_TRUE(r.mock);
  EXPECT_EQ("{}", response.body);
  EXPECT_TRUE(response.headers.empty());
  EXPECT_FALSE(response.bodyOverflow);
  EXPECT_EQ(0u, backend_->requestCount());

  r = request("y");
  r.mock = true;
  Http::Perform(r, response);
  EXPECT_FALSE(r.mock);
  EXPECT_EQ(404, response.statusCode);  // really sent: the back end has no such path
  EXPECT_EQ(1u, backend_->requestCount());
}

TEST_F(InjectorTest, DurationDelaysTheAnswer) {
  configure(R"([{"suffix":"slow","responses":[{"statusCode":200,"duration":1}]}])");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(200, perform("slow").statusCode);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
}

}  // namespace
