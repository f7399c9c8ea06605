#include "BackendFixture.h"

namespace LumTest {

using namespace Lum::Tools;

TestPki* BackendTest::pki_ = nullptr;

void BackendTest::SetUpTestSuite() {
  if (pki_ == nullptr) {
    pki_ = new TestPki();
    std::string error;
    ASSERT_TRUE(pki_->generate(&error)) << error;
  }
}

void BackendTest::TearDownTestSuite() {
  delete pki_;
  pki_ = nullptr;
}

void BackendTest::SetUp() {
  restartBackend(BackendOptions());
}

void BackendTest::TearDown() {
  if (backend_) {
    backend_->stop();
  }
}

void BackendTest::restartBackend(const BackendOptions& options) {
  ASSERT_NE(pki_, nullptr);
  backend_.reset();
  backend_ = std::make_unique<Backend>(*pki_, options);
  std::string error;
  ASSERT_TRUE(backend_->start(&error)) << error;
  // EC keys keep issuing per back end cheap; the RSA path has its own test.
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName(kOpid, backend_->port()), &device_,
                                TestPki::kDefaultPassPhrase, KeyType::EcP256, &error))
      << error;
}

CurlRequest BackendTest::deviceRequest(const std::string& method, const std::string& path,
                                       const std::string& body) const {
  CurlRequest request;
  request.method = method;
  request.url = backend_->baseUrl(kOpid) + path;
  request.post = method == "POST";
  request.body = body;
  request.certPem = device_.certPem;
  request.keyPem = device_.keyPem;
  request.caPem = device_.trustPem;
  return request;
}

CurlResult BackendTest::postJson(const std::string& path, const std::string& token,
                                 const LumJson::Value& body) const {
  LumJson::StreamWriterBuilder writer;
  writer["indentation"] = "";
  CurlRequest request = deviceRequest("POST", path, LumJson::writeString(writer, body));
  request.headers = {"Accept: application/json", "Content-Type: application/json; charset=UTF-8"};
  if (!token.empty()) {
    request.headers.push_back("Authorization: " + token);
  }
  return PerformCurl(request);
}

std::string BackendTest::registerDevice() const {
  LumJson::Value body(LumJson::objectValue);
  body["daId"] = "device-1";
  body["daTestMode"] = false;
  CurlResult result = postJson("/api/v1/da/gidtoken", "", body);
  if (!result.ok() || result.status != 200) {
    return std::string();
  }
  return Parse(result.body)["daGidToken"].asString();
}

LumJson::Value BackendTest::Parse(const std::string& text) {
  LumJson::Value value;
  LumJson::CharReaderBuilder builder;
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    return LumJson::Value();
  }
  return value;
}

}  // namespace LumTest
