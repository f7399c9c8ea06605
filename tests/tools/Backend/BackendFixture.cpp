#include "BackendFixture.h"

#include "Platform/JsonUtil.h"

namespace LumTest {

using namespace Lum::Tools;

TestPki* BackendTest::pki_ = nullptr;

void BackendTest::SetUpTestSuite() {
  pki_ = new TestPki();
  std::string error;
  ASSERT_TRUE(pki_->generate(&error)) << error;
}

void BackendTest::TearDownTestSuite() {
  delete pki_;
  pki_ = nullptr;
}

void BackendTest::SetUp() {
  backend_ = std::make_unique<Backend>(*pki_);
  std::string error;
  ASSERT_TRUE(backend_->start(&error)) << error;
  // An EC key keeps issuing a device per test cheap.
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName(kOpid, backend_->port()), &device_,
                                TestPki::kDefaultPassPhrase, KeyType::EcP256, &error))
      << error;
}

BackendTest::Http::Request BackendTest::deviceRequest(const std::string& url,
                                                      uint32_t timeoutMs) const {
  Http::Request request;
  request.url = url;
  request.clientCertificate = device_.certPem.c_str();
  request.clientKey = device_.keyPem.c_str();
  request.caCertificates = device_.trustPem.c_str();
  request.connectTimeout = 5000;
  request.messageTimeout = timeoutMs;
  return request;
}

BackendTest::Http::Response BackendTest::call(Http::Verb verb, const std::string& path,
                                              const std::string& token, const std::string& body,
                                              uint32_t timeoutMs, const std::string& base) const {
  Http::Request request =
      deviceRequest((base.empty() ? backend_->baseUrl(kOpid) : base) + path, timeoutMs);
  request.verb = verb;
  request.headers = {"Content-Type: application/json"};
  if (!token.empty()) {
    request.headers.push_back("Authorization: " + token);
  }
  request.body = body;
  return Perform(request);
}

std::string BackendTest::registerDevice() const {
  Http::Response response = post("/api/v1/da/gidtoken", "");
  return response.statusCode == 200 ? Parse(response.body)["daGidToken"].asString() : "";
}

BackendTest::Http::Response BackendTest::Perform(Http::Request request) {
  Http::Response response;
  Http::Perform(request, response);
  return response;
}

LumJson::Value BackendTest::Parse(const std::string& text) {
  LumJson::Value value;
  return Lum::Core::JsonUtil::ParseStrict(text, value) ? value : LumJson::Value();
}

}  // namespace LumTest
