// The client credentials: the platform's pass phrase, then the identity text;
// nothing secret in the log.
#include <gtest/gtest.h>

#include <memory>
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
  const std::string platform = PlatformPassword();
  const struct {
    const char* name;
    bool platformPassword;
    const char* identity;
    const char* keyCertTrust;  // the three texts taken, joined by "|"
    std::string password;
  } cases[] = {
      {"all members", true, R"({"key":"K","cert":"C","trust":"T","password":"P"})", "K|C|T", "P"},
      {"no password keeps the platform's", true, R"({"key":"K","cert":"C","trust":"T"})", "K|C|T",
       platform},
      {"no password and no platform", false, R"({"key":"K"})", "K||", Lum::Sv::NkGetLumPassword()},
      {"an empty password is taken", true, R"({"password":""})", "||", ""},
      {"not JSON", true, "key: K", "||", platform},
      {"members of other types", true, R"({"key":1,"cert":["C"],"trust":{},"password":false})",
       "||", platform},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<Registration<StringGetter>> registration;
    if (c.platformPassword) {
      registration = std::make_unique<Registration<StringGetter>>(Lum::Sv::RegGetLumPassword,
                                                                  PlatformPassword);
    }
    const ProductIdentity identity(c.identity);
    EXPECT_EQ(std::string(identity.getKey()) + "|" + identity.getCert() + "|" + identity.getTrust(),
              c.keyCertTrust);
    EXPECT_EQ(identity.getPassword(), c.password);
  }
}

TEST(ProductIdentity, CredentialsStayOutOfTheLog) {
  LumTest::LogCapture log("trace");
  ProductIdentity(R"({"key":"SECRET-KEY-TEXT","cert":"C","password":"PASS-TEXT"})").logStateDebug();
  ProductIdentity unparsable("{\"key\":\"SECRET-KEY-TEXT\"");
  EXPECT_TRUE(log.logged("identity->key                        : 15 bytes")) << log.text();
  for (const char* secret : {"SECRET-KEY-TEXT", "PASS-TEXT"}) {
    EXPECT_EQ(log.text().find(secret), std::string::npos) << secret;
  }
}

}  // namespace
