#include "Base/ProductIdentity.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "Platform/FilterProperties.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/LumJson.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Base/ProductIdentity");

namespace Lum {
namespace Core {

namespace {

constexpr int kService = FilterProperties::SERVICE_CORE;

char* CopyText(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text.c_str(), text.size() + 1);
  }
  return copy;
}

// Key material must not linger in freed heap memory.
void CleanseAndFree(char*& copy) {
  if (copy != nullptr) {
    OPENSSL_cleanse(copy, std::strlen(copy));
    std::free(copy);
    copy = nullptr;
  }
}

}  // namespace

ProductIdentity::ProductIdentity(const char* identity) {
  LUM_TRACE(kService);
  setCustomValues();
  takeMembers(identity);
  makeCopies();
}

ProductIdentity::~ProductIdentity() {
  freeCopies();
}

void ProductIdentity::setCustomValues() {
  password_ = Sv::NkGetLumPassword();
}

void ProductIdentity::takeMembers(const char* identity) {
  LumJson::Value root;
  if (!JsonUtil::ParseObject(identity, root)) {
    LUM_LOG(kService, FilterProperties::CATEGORY_STATE, FilterProperties::SEVERITY_ERROR,
            "Identity text is not a JSON object; keeping the platform's values");
    return;
  }
  key_ = JsonUtil::ReadText(root, "key", key_);
  cert_ = JsonUtil::ReadText(root, "cert", cert_);
  trust_ = JsonUtil::ReadText(root, "trust", trust_);
  password_ = JsonUtil::ReadText(root, "password", password_);
}

void ProductIdentity::makeCopies() {
  keyCopy_ = CopyText(key_);
  certCopy_ = CopyText(cert_);
  trustCopy_ = CopyText(trust_);
  passwordCopy_ = CopyText(password_);
}

void ProductIdentity::freeCopies() {
  CleanseAndFree(keyCopy_);
  CleanseAndFree(certCopy_);
  CleanseAndFree(trustCopy_);
  CleanseAndFree(passwordCopy_);
}

void ProductIdentity::logStateDebug() const {
  LUM_TRACE(kService);
  const int category = FilterProperties::CATEGORY_STATE;
  const int severity = FilterProperties::SEVERITY_DEBUG;
  LUM_LOG(kService, category, severity, "%-37s: %zu bytes", "identity->key", key_.size());
  LUM_LOG(kService, category, severity, "%-37s: %zu bytes", "identity->cert", cert_.size());
  LUM_LOG(kService, category, severity, "%-37s: %zu bytes", "identity->trust", trust_.size());
  LUM_LOG(kService, category, severity, "%-37s: %s", "identity->password",
          password_.empty() ? "empty" : "set");
}

}  // namespace Core
}  // namespace Lum
