#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "BackendFixture.h"
#include "Platform/Sha256Util.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kTokenPath = "/api/v1/ds/uploadtoken";
constexpr const char* kPackagePath = "/api/v1/dsdata/upload/package";

std::string Hash(const std::string& text) {
  std::string hash;
  Lum::Core::Sha256Util::Hash(text, hash);
  return hash;
}

std::string Package(uint32_t dropped, uint32_t rejected, const std::vector<std::string>& items) {
  std::string text = "{\"version\":2,\"dropped\":" + std::to_string(dropped) +
                     ",\"rejected\":" + std::to_string(rejected) + ",\"dataItems\":[";
  for (size_t i = 0; i < items.size(); ++i) {
    text += (i > 0 ? "," : "") + items[i];
  }
  return text + "]}";
}

std::string TokenBody(const std::string& hash) {
  return "{\"daGidSeqNum\":0,\"daOpidSeqNum\":1,\"dsPackageHash\":\"" + hash + "\"}";
}

// Requests shaped as the agent sends them: the token request to the "-ds"
// host with the GID token, the package as a form to the region's host.
class BackendUploadTest : public BackendTest {
 protected:
  Http::Response askToken(const std::string& gid, const std::string& body,
                          const std::string& base = "") const {
    return call(Http::POST, kTokenPath, gid, body, 20000,
                base.empty() ? backend_->dsBaseUrl(kOpid) : base);
  }
  std::string tokenFor(const std::string& gid, const std::string& package) const {
    Http::Response response = askToken(gid, TokenBody(Hash(package)));
    EXPECT_EQ(response.statusCode, 200) << response.body;
    return Parse(response.body)["dsUploadToken"].asString();
  }
  Http::Response upload(const std::string& token, const std::string& package,
                        const std::string& region = "eu1") const {
    Http::Request request = deviceRequest(backend_->dsDataBaseUrl(kOpid, region) + kPackagePath);
    request.data = reinterpret_cast<const uint8_t*>(package.data());
    request.dataLength = static_cast<uint32_t>(package.size());
    request.token = token;
    return Perform(request);
  }
};

TEST_F(BackendUploadTest, TokensNeedTheCurrentGidTokenAHashAndTheDataServicesHost) {
  const std::string stale = registerDevice();
  const std::string gid = registerDevice();
  ASSERT_FALSE(gid.empty());
  const std::string good = TokenBody(Hash("package"));
  const struct {
    const char* what;
    std::string authorization, body, base;  // base empty: the "-ds" host
    long status;
  } cases[] = {
      {"no GID token", "", good, "", 422},
      {"replaced GID token", stale, good, "", 422},
      {"body not JSON", gid, "dsPackageHash=abc", "", 400},
      {"hash in capitals", gid, TokenBody(std::string(64, 'A')), "", 400},
      {"hash too short", gid, TokenBody(std::string(63, 'a')), "", 400},
      {"core host", gid, good, backend_->baseUrl(kOpid), 421},
      {"right", gid, good, "", 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Http::Response response = askToken(c.authorization, c.body, c.base);
    EXPECT_EQ(response.statusCode, c.status) << response.body;
    LumJson::Value answer = Parse(response.body);
    EXPECT_EQ(!answer["dsUploadToken"].asString().empty(), c.status == 200) << response.body;
    EXPECT_EQ(answer["dsUploadRegion"].asString(), c.status == 200 ? "eu1" : "");
  }
  EXPECT_EQ(backend_->uploadTokensIssued(), 1u);
}

TEST_F(BackendUploadTest, UploadsMustMatchTheTokensRegionAndHashAndSpendIt) {
  const std::string gid = registerDevice();
  const std::vector<std::string> items = {"{\"id\":\"TvPowerState\",\"value\":\"on\"}",
                                          "{\"id\":\"TvChannelTune\",\"dateTime\":\"x, y\"}"};
  const std::string package = Package(1, 2, items);
  const std::string other = Package(1, 2, {items[0]});
  const struct {
    const char* what;
    const char* token;  // nullptr: a fresh token for `package`
    const char* region;
    const std::string& data;
    long status;
    bool spend = false;  // present the token with other data first
  } cases[] = {
      {"unknown token", "ds-1-made-up", "eu1", package, 403},
      {"no token part", "", "eu1", package, 400},
      {"another region's host", nullptr, "us1", package, 421},
      {"other data", nullptr, "eu1", other, 400},
      {"token spent on a refusal", nullptr, "eu1", package, 403, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string token = c.token != nullptr ? c.token : tokenFor(gid, package);
    if (c.spend) {
      EXPECT_EQ(upload(token, other).statusCode, 400);
    }
    Http::Response response = upload(token, c.data, c.region);
    EXPECT_EQ(response.statusCode, c.status) << response.body;
  }
  EXPECT_TRUE(backend_->packages().empty());
  EXPECT_FALSE(backend_->waitForDataItems(1, milliseconds(20)));

  const std::string token = tokenFor(gid, package);
  Http::Response accepted = upload(token, package);
  EXPECT_EQ(accepted.statusCode, 200);
  EXPECT_EQ(accepted.body, "{}");
  EXPECT_EQ(upload(token, package).statusCode, 403);  // once only

  std::vector<ReceivedPackage> packages = backend_->packages();
  ASSERT_EQ(packages.size(), 1u);
  EXPECT_EQ(packages[0].commonName, device_.commonName);
  EXPECT_EQ(packages[0].text, package);
  EXPECT_TRUE(backend_->waitForDataItems(2, seconds(10)));
  std::vector<LumJson::Value> stored = backend_->dataItems();
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored[0]["value"].asString(), "on");
  EXPECT_EQ(stored[1]["dateTime"].asString(), "x, y");
}

// The format and the device binding, without the transport: each text is
// announced by its own hash, so only the package rules decide.
TEST(UploadLedgerTest, PackagesMustBeVersionTwoInTheAgentsExactForm) {
  const std::string cn = "LUMTEST.lum.localhost:1";
  const std::string host = "lumtest-DSDATA-eu1.LUM.localhost:1";  // names ignore case
  const std::string tricky = "{\"id\":\"b\",\"v\":[1,{\"c\":\"]}\"}]}";
  const struct {
    const char* what;
    std::string text;
    bool accepted = false;
  } cases[] = {
      {"two items", Package(3, 4, {"{\"id\":\"a\"}", tricky}), true},
      {"no items", Package(0, 0, {}), true},
      {"version 1", "{\"version\":1,\"dropped\":0,\"rejected\":0,\"dataItems\":[]}"},
      {"white space", "{\"version\":2, \"dropped\":0,\"rejected\":0,\"dataItems\":[]}"},
      {"item without id", Package(0, 0, {"{\"name\":\"a\"}"})},
      {"line feed at the end", Package(0, 0, {}) + "\n"},
  };
  UploadLedger ledger;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ReceivedPackage package;
    EXPECT_EQ(ledger.accept(cn, host, ledger.issue(cn, Hash(c.text), "eu1"), c.text, &package),
              c.accepted ? UploadLedger::Verdict::Accepted : UploadLedger::Verdict::BadPackage);
  }
  const std::vector<ReceivedPackage> packages = ledger.packages();
  ASSERT_EQ(packages.size(), 2u);
  EXPECT_EQ(packages[0].dropped, 3u);
  EXPECT_EQ(packages[0].items, (std::vector<std::string>{"{\"id\":\"a\"}", tricky}));
  EXPECT_TRUE(packages[1].items.empty());

  const std::string text = Package(0, 0, {});
  EXPECT_EQ(ledger.accept("OTHER.lum.localhost:1", "other-dsdata-eu1.lum.localhost:1",
                          ledger.issue(cn, Hash(text), "eu1"), text, nullptr),
            UploadLedger::Verdict::UnknownToken);
}

}  // namespace
}  // namespace LumTest
