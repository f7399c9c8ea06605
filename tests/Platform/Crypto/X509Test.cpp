#include <gtest/gtest.h>

#include <string>

#include "Platform/X509Util.h"
#include "TestPki.h"

namespace {

using Lum::Core::X509Util;
using LumTest::TestPki;

TEST(X509Util, GetCommonName) {
  const TestPki& pki = TestPki::Get();
  const struct {
    const char* name;
    std::string pem;
    std::string expected;
  } cases[] = {
      {"leaf", pki.leafPem, "device-0042"},
      {"first of two, raw UTF-8 bytes", pki.twoCommonNamesPem, "first\xc3\xa9"},
      {"bundle reads its first certificate", pki.intermediatePem + pki.rootPem,
       "Test Intermediate"},
      {"no common name leaves the value", pki.noCommonNamePem, "unchanged"},
      {"garbage leaves the value", "-----BEGIN CERTIFICATE-----\nAA==\n-----END CERTIFICATE-----\n",
       "unchanged"},
      {"no PEM block leaves the value", "device-0042", "unchanged"},
      {"empty text leaves the value", "", "unchanged"},
  };
  for (const auto& c : cases) {
    std::string commonName = "unchanged";
    X509Util::GetCommonName(c.pem, commonName);
    EXPECT_EQ(commonName, c.expected) << c.name;
  }
}

TEST(X509Util, VerifyChain) {
  const TestPki& pki = TestPki::Get();
  const struct {
    const char* name;
    std::string leaf;
    std::string intermediates;
    std::string ca;
    bool expected;
  } cases[] = {
      {"leaf, intermediate, root", pki.leafPem, pki.intermediatePem, pki.rootPem, true},
      {"root found among several trusted", pki.leafPem, pki.intermediatePem,
       pki.otherRootPem + pki.ecLeafPem + pki.rootPem, true},
      {"unrelated extra intermediates", pki.leafPem, pki.ecLeafPem + pki.intermediatePem,
       pki.rootPem, true},
      {"certificate issued by the root directly", pki.ecLeafPem, "", pki.rootPem, true},
      {"root name under another key", pki.leafPem, pki.intermediatePem, pki.impostorRootPem, false},
      {"unrelated root", pki.leafPem, pki.intermediatePem, pki.otherRootPem, false},
      {"missing intermediate", pki.leafPem, "", pki.rootPem, false},
      {"root offered in place of the intermediate", pki.leafPem, pki.rootPem, pki.rootPem, false},
      {"no trusted certificates", pki.leafPem, pki.intermediatePem, "", false},
      {"garbage leaf", "-----BEGIN CERTIFICATE-----\nAA==\n-----END CERTIFICATE-----\n",
       pki.intermediatePem, pki.rootPem, false},
      {"no leaf", "", pki.intermediatePem, pki.rootPem, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(X509Util::VerifyChain(c.leaf, c.intermediates, c.ca), c.expected) << c.name;
  }
}

}  // namespace
