// Opening signed envelopes: only the trusted signer's exact bytes pass.
#include <gtest/gtest.h>

#include <string>

#include "Base/SignedDocument.h"
#include "Platform/JsonUtil.h"
#include "tools/backend/DocumentSigner.h"
#include "tools/pki/TestPki.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Core::SignedDocument;
using Lum::Tools::DocumentSigner;
using Lum::Tools::TestPki;

std::string Replace(const std::string& envelope, const char* member, const LumJson::Value& value) {
  LumJson::Value parsed;
  JsonUtil::ParseObject(envelope, parsed);
  if (value.isNull()) {
    parsed.removeMember(member);
  } else {
    parsed[member] = value;
  }
  return JsonUtil::WriteCompact(parsed);
}

TEST(SignedDocument, OpensOnlyWhatTheTrustedSignerSigned) {
  TestPki pki;
  ASSERT_TRUE(pki.generate());
  DocumentSigner signer;
  DocumentSigner rogue;
  ASSERT_TRUE(signer.create(pki, true));
  ASSERT_TRUE(rogue.create(pki, false));
  const std::string document = R"({"version": "2.0.0"})";
  const std::string good = signer.sign(document);
  struct Case {
    const char* name;
    std::string envelope;
    std::string trust;
    bool opens;
  } cases[] = {
      {"signed", good, pki.caCertPem(), true},
      {"rogue signer", rogue.sign(document), pki.caCertPem(), false},
      {"other trust", good, pki.untrustedCaCertPem(), false},
      {"no trust", good, "", false},
      {"document altered", Replace(good, "document", R"({"version": "2.0.1"})"), pki.caCertPem(),
       false},
      {"signature of another document", Replace(good, "signature", signer.signature("{}")),
       pki.caCertPem(), false},
      {"signature not Base64", Replace(good, "signature", "%%%"), pki.caCertPem(), false},
      {"signature missing", Replace(good, "signature", LumJson::Value()), pki.caCertPem(), false},
      {"certificate a number", Replace(good, "certificate", 7), pki.caCertPem(), false},
      {"not JSON", "{\"document\":", pki.caCertPem(), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string text = "stale";
    std::string why;
    EXPECT_EQ(SignedDocument::Open(c.envelope, c.trust, text, why), c.opens);
    EXPECT_EQ(text, c.opens ? document : "");
    EXPECT_EQ(why.empty(), c.opens);
  }
}

}  // namespace
