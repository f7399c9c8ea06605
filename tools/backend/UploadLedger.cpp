#include "tools/backend/UploadLedger.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <strings.h>

#include <exception>
#include <memory>
#include <utility>

#include "tools/backend/JsonText.h"

namespace Lum {
namespace Tools {

namespace {

std::string Hex(const unsigned char* bytes, size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (size_t i = 0; i < length; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0x0f];
  }
  return hex;
}

// Unpredictable, so a device cannot guess another device's token.
std::string RandomPart() {
  unsigned char bytes[12] = {};
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    return "norandom";
  }
  return Hex(bytes, sizeof bytes);
}

std::string OpidOf(const std::string& commonName) {
  return commonName.substr(0, commonName.find('.'));
}

std::string InstanceOf(const std::string& commonName) {
  size_t dot = commonName.find('.');
  return dot == std::string::npos ? std::string() : commonName.substr(dot + 1);
}

}  // namespace

std::string UploadLedger::TokenHost(const std::string& commonName) {
  return OpidOf(commonName) + "-ds." + InstanceOf(commonName);
}

std::string UploadLedger::UploadHost(const std::string& commonName, const std::string& region) {
  return OpidOf(commonName) + "-dsdata-" + region + "." + InstanceOf(commonName);
}

bool UploadLedger::SameHost(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

bool UploadLedger::IsSha256Hex(const std::string& text) {
  if (text.size() != 64) {
    return false;
  }
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
      return false;
    }
  }
  return true;
}

std::string UploadLedger::Sha256Hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return std::string();
  }
  return Hex(digest, length);
}

const char* UploadLedger::VerdictToString(Verdict verdict) {
  switch (verdict) {
    case Verdict::Accepted:
      return "accepted";
    case Verdict::UnknownToken:
      return "unknown upload token";
    case Verdict::UsedToken:
      return "upload token already used";
    case Verdict::WrongHost:
      return "not the upload host of the token's region";
    case Verdict::HashMismatch:
      return "data does not match the announced hash";
    case Verdict::BadPackage:
      return "data is not a version 2 package";
  }
  return "unknown";
}

std::string UploadLedger::issue(const std::string& commonName, const std::string& hash,
                                const std::string& region) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string token = "ds-" + std::to_string(++tokenCounter_) + "-" + RandomPart();
  grants_[token] = Grant{commonName, hash, region, false};
  return token;
}

// The text must be exactly the agent's format: the fixed header, the items
// joined by "," and "]}", with nothing else anywhere. Rebuilding it from the
// parsed counts and the items' own byte ranges and comparing catches extra
// members, white space and reordered keys alike.
bool UploadLedger::ParsePackage(const std::string& text, ReceivedPackage* package) {
  LumJson::Value root;
  if (!JsonText::ParseStrict(text, &root) || !root.isObject()) {
    return false;
  }
  const LumJson::Value& version = root["version"];
  const LumJson::Value& dropped = root["dropped"];
  const LumJson::Value& rejected = root["rejected"];
  const LumJson::Value& items = root["dataItems"];
  if (!version.isInt() || version.asInt() != 2 || !dropped.isUInt() || !rejected.isUInt() ||
      !items.isArray()) {
    return false;
  }
  package->dropped = dropped.asUInt();
  package->rejected = rejected.asUInt();
  std::string rebuilt = "{\"version\":2,\"dropped\":" + std::to_string(package->dropped) +
                        ",\"rejected\":" + std::to_string(package->rejected) + ",\"dataItems\":[";
  for (LumJson::ArrayIndex i = 0; i < items.size(); ++i) {
    const LumJson::Value& item = items[i];
    if (!item.isObject() || !item["id"].isString()) {
      return false;
    }
    const size_t start = static_cast<size_t>(item.getOffsetStart());
    const size_t limit = static_cast<size_t>(item.getOffsetLimit());
    package->items.push_back(text.substr(start, limit - start));
    rebuilt += (i > 0 ? "," : "") + package->items.back();
  }
  rebuilt += "]}";
  package->text = text;
  return rebuilt == text;
}

UploadLedger::Verdict UploadLedger::accept(const std::string& commonName, const std::string& host,
                                           const std::string& token, const std::string& data,
                                           ReceivedPackage* package) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = grants_.find(token);
    if (it == grants_.end() || it->second.commonName != commonName) {
      return Verdict::UnknownToken;
    }
    Grant& grant = it->second;
    if (grant.used) {
      return Verdict::UsedToken;
    }
    grant.used = true;
    if (!SameHost(host, UploadHost(commonName, grant.region))) {
      return Verdict::WrongHost;
    }
    if (Sha256Hex(data) != grant.hash) {
      return Verdict::HashMismatch;
    }
  }
  ReceivedPackage parsed;
  parsed.commonName = commonName;
  if (!ParsePackage(data, &parsed)) {
    return Verdict::BadPackage;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    itemCount_ += parsed.items.size();
    packages_.push_back(parsed);
  }
  stored_.notify_all();
  *package = std::move(parsed);
  return Verdict::Accepted;
}

unsigned UploadLedger::tokensIssued() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<unsigned>(grants_.size());
}

std::vector<ReceivedPackage> UploadLedger::packages() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return packages_;
}

std::vector<LumJson::Value> UploadLedger::dataItems() const {
  std::vector<ReceivedPackage> copy = packages();
  std::vector<LumJson::Value> items;
  for (const auto& package : copy) {
    for (const auto& text : package.items) {
      LumJson::Value item;
      JsonText::ParseStrict(text, &item);  // parsed once already when the package was accepted
      items.push_back(item);
    }
  }
  return items;
}

bool UploadLedger::waitForPackages(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return stored_.wait_for(lock, timeout, [&] { return packages_.size() >= n; });
}

bool UploadLedger::waitForDataItems(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return stored_.wait_for(lock, timeout, [&] { return itemCount_ >= n; });
}

}  // namespace Tools
}  // namespace Lum
