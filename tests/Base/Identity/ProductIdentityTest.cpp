// The client credentials: the platform's pass phrase, then the identity text;
// NUL-terminated copies for the HTTP layer; nothing secret in the log.
#include <gtest/gtest.h>

#include <string>

#include "Base/ProductIdentity.h"
#include "Project/NorvikInterfaces.h"
#include "lum_platform.h"
#include "support/LogCapture.h"
#include "support/PlatformRegistration.h"

namespace {

using Lum::Core::ProductIdentity;
using Lum::Sv::StringGetter;
using LumTest::Registration;

std::string PlatformPassword() {
  return "platform pass phrase";
}

TEST(ProductIdentity, TextOverPlatformPassword) {
  const std::string fallback = Lum::Sv::NkGetLumPassword();
  const std::string platform = "platform pass phrase";
  const std::string deep = "{\"key\":" + std::string(5000, '[') + std::string(5000, ']') + "}";
  const struct {
    const char* name;
    bool platformPassword;
    const char* identity;
    const char* key;
    const char* cert;
    const char* trust;
    std::string password;
  } cases[] = {
      {"all members", true, R"({"key":"K","cert":"C","trust":"T","password":"P"})", "K", "C", "T",
       "P"},
      {"no password keeps the platform's", true, R"({"key":"K","cert":"C","trust":"T"})", "K", "C",
       "T", platform},
      {"no password and no platform", false, R"({"key":"K"})", "K", "", "", fallback},
      {"an empty password is taken", true, R"({"password":""})", "", "", "", ""},
      {"not JSON", true, "key: K", "", "", "", platform},
      {"null text", true, nullptr, "", "", "", platform},
      {"nesting beyond the parser's depth limit", true, deep.c_str(), "", "", "", platform},
      {"members of other types", true, R"({"key":1,"cert":["C"],"trust":{},"password":false})", "",
       "", "", platform},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<Registration<StringGetter>> registration;
    if (c.platformPassword) {
      registration = std::make_unique<Registration<StringGetter>>(Lum::Sv::RegGetLumPassword,
                                                                  PlatformPassword);
    }
    const ProductIdentity identity(c.identity);
    EXPECT_STREQ(identity.getKey(), c.key);
    EXPECT_STREQ(identity.getCert(), c.cert);
    EXPECT_STREQ(identity.getTrust(), c.trust);
    EXPECT_EQ(identity.getPassword(), c.password);
  }
}

TEST(ProductIdentity, CopiesAreSeparateAndStable) {
  const std::string pem =
      "-----BEGIN CERTIFICATE-----\n" + std::string(4000, 'A') + "\n-----END CERTIFICATE-----\n";
  const std::string text = R"({"key":"","cert":")" + std::string("-----BEGIN CERTIFICATE-----\\n") +
                           std::string(4000, 'A') + R"(\n-----END CERTIFICATE-----\n"})";
  const ProductIdentity identity(text.c_str());
  EXPECT_EQ(identity.getCert(), pem);
  const char* key = identity.getKey();
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(key[0], '\0');
  EXPECT_NE(identity.getKey(), identity.getTrust()) << "each value has its own buffer";
  EXPECT_EQ(identity.getCert(), identity.getCert()) << "the same copy for the object's lifetime";
}

TEST(ProductIdentity, DebugDumpKeepsCredentialsOutOfTheLog) {
  LumTest::LogCapture log("trace");
  {
    const ProductIdentity identity(
        R"({"key":"SECRET-KEY-TEXT","cert":"CERT-TEXT","trust":"TRUST-TEXT","password":"PASS-TEXT"})");
    identity.logStateDebug();
  }
  const std::string text = log.text();
  EXPECT_TRUE(log.logged("identity->key                        : 15 bytes")) << text;
  EXPECT_TRUE(log.logged("identity->password                   : set")) << text;
  for (const char* secret : {"SECRET-KEY-TEXT", "PASS-TEXT"}) {
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  }
  const ProductIdentity unparsable("{\"key\":\"SECRET-KEY-TEXT\"");
  EXPECT_EQ(log.text().find("SECRET-KEY-TEXT"), std::string::npos)
      << "a rejected text must not be echoed either";
}

}  // namespace
