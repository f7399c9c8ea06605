#include <gtest/gtest.h>

#include <chrono>
#include <future>
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
  Http::Response send(const DeviceIdentity& device, const std::string& url,
                      std::vector<std::string> headers, const std::string& body,
                      const std::string* data = nullptr, const std::string& token = "") const {
    Http::Request request;
    request.verb = Http::POST;
    request.url = url;
    request.clientCertificate = device.certPem.c_str();
    request.clientKey = device.keyPem.c_str();
    request.caCertificates = device.trustPem.c_str();
    request.connectTimeout = 5000;
    request.messageTimeout = 20000;
    request.headers = std::move(headers);
    request.body = body;
    if (data != nullptr) {
      request.data = reinterpret_cast<const uint8_t*>(data->data());
      request.dataLength = static_cast<uint32_t>(data->size());
      request.token = token;
    }
    Http::Response response;
    Http::Perform(request, response);
    return response;
  }
  Http::Response askToken(const std::string& gid, const std::string& body,
                          const std::string& base = "") const {
    std::vector<std::string> headers = {"Accept: application/json",
                                        "Content-Type: application/json; charset=UTF-8"};
    if (!gid.empty()) {
      headers.push_back("Authorization: " + gid);
    }
    return send(device_, (base.empty() ? backend_->dsBaseUrl(kOpid) : base) + kTokenPath, headers,
                body);
  }
  // A token for `package`, from a device that registered for it.
  std::string tokenFor(const std::string& gid, const std::string& package) const {
    Http::Response response = askToken(gid, TokenBody(Hash(package)));
    EXPECT_EQ(response.statusCode, 200) << response.body;
    return Parse(response.body)["dsUploadToken"].asString();
  }
  Http::Response upload(const std::string& token, const std::string& package,
                        const std::string& region = "eu1",
                        const DeviceIdentity* device = nullptr) const {
    return send(device != nullptr ? *device : device_,
                backend_->dsDataBaseUrl(kOpid, region) + kPackagePath, {"Accept: application/json"},
                "", &package, token);
  }
};

TEST_F(BackendUploadTest, TokensNeedTheCurrentGidTokenAHashAndTheDataServicesHost) {
  const std::string stale = registerDevice();
  const std::string gid = registerDevice();
  ASSERT_FALSE(gid.empty());
  const std::string good = TokenBody(Hash("package"));
  const std::string upper = TokenBody(std::string(64, 'A'));
  const std::string coreHost = backend_->baseUrl(kOpid);
  struct Case {
    const char* what;
    const std::string& authorization;
    std::string body;
    std::string base;  // empty: the "-ds" host
    long status;
  } cases[] = {
      {"no GID token", "", good, "", 422},
      {"replaced GID token", stale, good, "", 422},
      {"body not JSON", gid, "dsPackageHash=abc", "", 400},
      {"no hash", gid, "{\"daGidSeqNum\":0}", "", 400},
      {"hash not a string", gid, "{\"dsPackageHash\":12}", "", 400},
      {"hash in capitals", gid, upper, "", 400},
      {"hash too short", gid, TokenBody(std::string(63, 'a')), "", 400},
      {"core host", gid, good, coreHost, 421},
      {"right", gid, good, "", 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Http::Response response = askToken(c.authorization, c.body, c.base);
    EXPECT_EQ(response.statusCode, c.status) << response.body;
    LumJson::Value answer = Parse(response.body);
    EXPECT_EQ(answer.isMember("dsUploadToken"), c.status == 200) << response.body;
    if (c.status == 200) {
      EXPECT_FALSE(answer["dsUploadToken"].asString().empty());
      EXPECT_EQ(answer["dsUploadRegion"].asString(), "eu1");
    }
  }
  EXPECT_EQ(backend_->uploadTokensIssued(), 1u);
  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.uploadTokensIssued, 1u);
}

TEST_F(BackendUploadTest, UploadsMustMatchTheTokensDeviceRegionAndHash) {
  const std::string gid = registerDevice();
  const std::vector<std::string> items = {"{\"id\":\"TvPowerState\",\"value\":\"on\"}",
                                          "{\"id\":\"TvChannelTune\",\"dateTime\":\"x, y\"}"};
  const std::string package = Package(1, 2, items);
  const std::string other = Package(1, 2, {items[0]});

  DeviceIdentity second;
  std::string error;
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName("LUMSECOND", backend_->port()), &second,
                                TestPki::kDefaultPassPhrase, KeyType::EcP256, &error))
      << error;
  Http::Response secondGid = send(second, backend_->baseUrl("LUMSECOND") + "/api/v1/da/gidtoken",
                                  {"Content-Type: application/json"}, "{}");
  std::vector<std::string> secondHeaders = {"Authorization: " +
                                            Parse(secondGid.body)["daGidToken"].asString()};
  const std::string foreign = Parse(send(second, backend_->dsBaseUrl("LUMSECOND") + kTokenPath,
                                         secondHeaders, TokenBody(Hash(package)))
                                        .body)["dsUploadToken"]
                                  .asString();
  ASSERT_FALSE(foreign.empty());

  enum class Token { Fresh, Unknown, Foreign, Spent, None };
  struct Case {
    const char* what;
    Token token;
    const char* region;
    const std::string& data;
    long status;
  } cases[] = {
      {"unknown token", Token::Unknown, "eu1", package, 403},
      {"another device's token", Token::Foreign, "eu1", package, 403},
      {"no token part", Token::None, "eu1", package, 400},
      {"another region's host", Token::Fresh, "us1", package, 421},
      {"other data", Token::Fresh, "eu1", other, 400},
      // Any presentation spends a token, a refused one included.
      {"token spent on a refusal", Token::Spent, "eu1", package, 403},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string token = c.token == Token::Unknown   ? "ds-1-made-up"
                        : c.token == Token::Foreign ? foreign
                        : c.token == Token::None    ? ""
                                                    : tokenFor(gid, package);
    if (c.token == Token::Spent) {
      EXPECT_EQ(upload(token, other).statusCode, 400);
    }
    Http::Response response = upload(token, c.data, c.region);
    EXPECT_EQ(response.statusCode, c.status) << response.body;
  }
  EXPECT_TRUE(backend_->packages().empty());

  const std::string token = tokenFor(gid, package);
  Http::Response accepted = upload(token, package);
  EXPECT_EQ(accepted.statusCode, 200);
  EXPECT_EQ(accepted.body, "{}");
  EXPECT_EQ(upload(token, package).statusCode, 403);  // once only

  std::vector<ReceivedPackage> packages = backend_->packages();
  ASSERT_EQ(packages.size(), 1u);
  EXPECT_EQ(packages[0].commonName, device_.commonName);
  EXPECT_EQ(packages[0].dropped, 1u);
  EXPECT_EQ(packages[0].rejected, 2u);
  EXPECT_EQ(packages[0].items, items);
  EXPECT_EQ(packages[0].text, package);
  std::vector<LumJson::Value> stored = backend_->dataItems();
  ASSERT_EQ(stored.size(), 2u);
  EXPECT_EQ(stored[0]["value"].asString(), "on");
  EXPECT_EQ(stored[1]["id"].asString(), "TvChannelTune");
}

TEST_F(BackendUploadTest, TheRegionNamesTheUploadHostOfLaterTokens) {
  const std::string gid = registerDevice();
  const std::string package = Package(0, 0, {"{\"id\":\"a\"}"});
  const std::string early = tokenFor(gid, package);

  for (const char* bad : {"", "eu_1", "-eu", "eu-", "a.b", "e u"}) {
    EXPECT_FALSE(backend_->setUploadRegion(bad)) << bad;
  }
  EXPECT_FALSE(backend_->setUploadRegion(std::string(64, 'a')));
  EXPECT_EQ(backend_->uploadRegion(), "eu1");
  ASSERT_TRUE(backend_->setUploadRegion("us-west2"));
  ASSERT_TRUE(backend_->setUploadRegion(std::string(63, 'a')));
  ASSERT_TRUE(backend_->setUploadRegion("us-west2"));

  Http::Response answer = askToken(gid, TokenBody(Hash(package)));
  EXPECT_EQ(Parse(answer.body)["dsUploadRegion"].asString(), "us-west2");
  const std::string late = Parse(answer.body)["dsUploadToken"].asString();
  EXPECT_EQ(upload(late, package, "eu1").statusCode, 421);
  EXPECT_EQ(upload(early, package, "eu1").statusCode, 200);  // bound at issue
  EXPECT_EQ(upload(tokenFor(gid, package), package, "us-west2").statusCode, 200);
  EXPECT_EQ(backend_->packages().size(), 2u);
}

TEST_F(BackendUploadTest, InjectedFaultsAnswerBeforeTheTokenIsLookedAt) {
  const std::string gid = registerDevice();
  const std::string package = Package(0, 0, {"{\"id\":\"a\"}"});

  backend_->injectFault(kTokenPath, Fault{1, milliseconds(0), 200});
  Http::Response empty = askToken(gid, TokenBody(Hash(package)));
  EXPECT_EQ(empty.statusCode, 200);
  EXPECT_EQ(empty.body, "{}");
  EXPECT_EQ(backend_->uploadTokensIssued(), 0u);

  const std::string token = tokenFor(gid, package);
  backend_->injectFault(kPackagePath, Fault{1, milliseconds(0), 503});
  EXPECT_EQ(upload(token, package).statusCode, 503);
  EXPECT_TRUE(backend_->packages().empty());
  EXPECT_EQ(upload(token, package).statusCode, 200);
  EXPECT_EQ(backend_->requestCount(kPackagePath), 2u);
}

TEST_F(BackendUploadTest, ConcurrentUploadsAreAllStoredAndWakeWaiters) {
  const std::string gid = registerDevice();
  EXPECT_FALSE(backend_->waitForDataItems(1, milliseconds(20)));
  constexpr int kUploaders = 4;
  constexpr int kItems = 3;
  auto waiter = std::async(std::launch::async, [this] {
    return backend_->waitForDataItems(kUploaders * kItems, seconds(60));
  });
  std::vector<std::future<long>> uploaders;
  for (int u = 0; u < kUploaders; ++u) {
    uploaders.push_back(std::async(std::launch::async, [this, &gid, u] {
      std::vector<std::string> items;
      for (int i = 0; i < kItems; ++i) {
        items.push_back("{\"id\":\"u" + std::to_string(u) + "\",\"n\":" + std::to_string(i) + "}");
      }
      const std::string package = Package(0, 0, items);
      return upload(tokenFor(gid, package), package).statusCode;
    }));
  }
  for (auto& uploader : uploaders) {
    EXPECT_EQ(uploader.get(), 200);
  }
  // The waiter's own limit is far off: only a wake-up by the last package
  // ends it in time.
  ASSERT_EQ(waiter.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_TRUE(waiter.get());
  EXPECT_TRUE(backend_->waitForPackages(kUploaders, milliseconds(0)));
  // Items keep their order within a package; packages interleave freely.
  std::vector<LumJson::Value> items = backend_->dataItems();
  ASSERT_EQ(items.size(), static_cast<size_t>(kUploaders * kItems));
  for (size_t i = 0; i < items.size(); i += kItems) {
    for (int n = 0; n < kItems; ++n) {
      EXPECT_EQ(items[i + n]["id"], items[i]["id"]);
      EXPECT_EQ(items[i + n]["n"].asInt(), n);
    }
  }
}

// The format check, without the transport: each text is announced by its own
// hash, so only the package rules decide.
TEST(UploadLedgerTest, PackagesMustBeVersionTwoInTheAgentsExactForm) {
  const std::string cn = "LUMTEST.lum.localhost:1";
  const std::string host = "lumtest-DSDATA-eu1.LUM.localhost:1";  // names ignore case
  struct Case {
    const char* what;
    std::string text;
    bool accepted;
    size_t items;
  } cases[] = {
      {"two items", Package(3, 4, {"{\"id\":\"a\"}", "{\"id\":\"b\",\"v\":[1,{\"c\":\"]}\"}]}"}),
       true, 2},
      {"no items", Package(0, 0, {}), true, 0},
      {"version 1", "{\"version\":1,\"dropped\":0,\"rejected\":0,\"dataItems\":[]}", false, 0},
      {"not JSON", "version=2", false, 0},
      {"white space", "{\"version\":2, \"dropped\":0,\"rejected\":0,\"dataItems\":[]}", false, 0},
      {"members reordered", "{\"dropped\":0,\"version\":2,\"rejected\":0,\"dataItems\":[]}", false,
       0},
      {"extra member", "{\"version\":2,\"dropped\":0,\"rejected\":0,\"dataItems\":[],\"x\":1}",
       false, 0},
      {"negative count", "{\"version\":2,\"dropped\":-1,\"rejected\":0,\"dataItems\":[]}", false,
       0},
      {"item not an object", Package(0, 0, {"1"}), false, 0},
      {"item without id", Package(0, 0, {"{\"name\":\"a\"}"}), false, 0},
      {"space between items", Package(0, 0, {"{\"id\":\"a\"}", " {\"id\":\"b\"}"}), false, 0},
      {"line feed at the end", Package(0, 0, {}) + "\n", false, 0},
  };
  UploadLedger ledger;
  size_t stored = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::string token = ledger.issue(cn, Hash(c.text), "eu1");
    ReceivedPackage package;
    UploadLedger::Verdict verdict = ledger.accept(cn, host, token, c.text, &package);
    EXPECT_EQ(verdict,
              c.accepted ? UploadLedger::Verdict::Accepted : UploadLedger::Verdict::BadPackage);
    stored += c.accepted ? 1 : 0;
    EXPECT_EQ(package.items.size(), c.items);
  }
  std::vector<ReceivedPackage> packages = ledger.packages();
  ASSERT_EQ(packages.size(), stored);
  EXPECT_EQ(packages[0].dropped, 3u);
  EXPECT_EQ(packages[0].items[1], "{\"id\":\"b\",\"v\":[1,{\"c\":\"]}\"}]}");
}

}  // namespace
}  // namespace LumTest
