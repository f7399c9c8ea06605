#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Platform/Logger.h"
#include "Platform/RsaUtil.h"
#include "Platform/X509Util.h"
#include "TestPki.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::Logger;
using Lum::Core::RsaUtil;
using Lum::Core::X509Util;
using LumTest::TestPki;

// Error lines of service core, category state, in the short format.
std::vector<std::string> ErrorLinesOf(const std::function<void()>& action) {
  LumTest::TempDir dir;
  const std::string path = dir.file("errors.log");
  LumJson::Value loggers(LumJson::arrayValue);
  LumJson::Value file;
  file["type"] = "file";
  file["argument"] = path;
  file["format"] = "short";
  LumJson::Value filter;
  filter["service"] = "core";
  filter["category"] = "state";
  filter["severity"] = "error";
  file["filters"].append(filter);
  loggers.append(file);
  Logger::Instance().initialize(loggers);
  action();
  Logger::Instance().terminate();
  std::vector<std::string> lines;
  std::istringstream in(LumTest::ReadFile(path));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

const char kErrorPrefix[] = "core state      error   ERROR: ";

bool Verify(const std::string& certPem, const std::vector<unsigned char>& signature) {
  static const unsigned char data[] = "signed";
  return RsaUtil::VerifyRS512(certPem, data, sizeof(data), signature.data(),
                              static_cast<unsigned>(signature.size()));
}

// Each failure logs exactly one line naming OpenSSL's reason; leftovers of one
// failure must not leak into the report of the next, and success logs nothing.
TEST(CryptoErrorLog, OneLinePerFailureWithOpenSslText) {
  const TestPki& pki = TestPki::Get();
  const std::vector<unsigned char> good =
      LumTest::SignRS512(pki.leafKey, std::string("signed\0", 7));
  const struct {
    const char* name;
    std::function<bool()> action;
    std::string reason;  // expected in the message after the prefix
  } cases[] = {
      {"garbage certificate", [&] { return Verify("no certificate here", good); }, "no start line"},
      {"EC certificate", [&] { return Verify(pki.ecLeafPem, good); }, "expecting an rsa key"},
      {"bad signature", [&] { return Verify(pki.rootPem, good); }, "error:"},
      {"missing intermediate", [&] { return X509Util::VerifyChain(pki.leafPem, "", pki.rootPem); },
       "unable to get local issuer certificate"},
      {"good signature", [&] { return !Verify(pki.leafPem, good); }, ""},
  };
  for (const auto& c : cases) {
    bool failed = false;
    const std::vector<std::string> lines = ErrorLinesOf([&] { failed = !c.action(); });
    if (c.reason.empty()) {
      EXPECT_TRUE(lines.empty()) << c.name << ": " << (lines.empty() ? "" : lines[0]);
      continue;
    }
    EXPECT_TRUE(failed) << c.name;
    ASSERT_EQ(lines.size(), 1u) << c.name;
    EXPECT_EQ(lines[0].rfind(kErrorPrefix, 0), 0u) << c.name << ": " << lines[0];
    EXPECT_NE(lines[0].find(c.reason), std::string::npos) << c.name << ": " << lines[0];
  }
}

}  // namespace
