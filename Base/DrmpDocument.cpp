#include "Base/DrmpDocument.h"

#include <set>

#include "Platform/JsonUtil.h"
#include "Platform/LumJson.h"

namespace Lum {
namespace Drmp {

namespace {
constexpr size_t kMaxNameLength = 64;
constexpr size_t kMaxVersionLength = 64;
constexpr size_t kMaxPathLength = 512;
constexpr size_t kShortenedLength = 80;
constexpr const char kPathPrefix[] = "drmp/";

bool IsNameChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}
}  // namespace

bool DrmpDocument::IsValidName(const std::string& name) {
  if (name.empty() || name.size() > kMaxNameLength || name[0] == '.') {
    return false;
  }
  for (char c : name) {
    if (!IsNameChar(c)) {
      return false;
    }
  }
  return true;
}

// The version is only compared and reported, but it goes into the index and
// the log, so it is kept printable and short.
bool DrmpDocument::IsValidVersion(const std::string& version) {
  if (version.empty() || version.size() > kMaxVersionLength) {
    return false;
  }
  for (char c : version) {
    if (c < 0x21 || c > 0x7e) {
      return false;
    }
  }
  return true;
}

// The path is appended to the device's own DRMP host, so it must stay a
// path on that host: no scheme, authority, fragment, parent step or byte
// that would end the URL or the request line.
bool DrmpDocument::IsValidPath(const std::string& path) {
  if (path.size() > kMaxPathLength || path.compare(0, sizeof kPathPrefix - 1, kPathPrefix) != 0 ||
      path.find("..") != std::string::npos || path.find("//") != std::string::npos) {
    return false;
  }
  for (char c : path) {
    const bool plain =
        IsNameChar(c) || c == '/' || c == '?' || c == '=' || c == '&' || c == '%' || c == '~';
    if (!plain) {
      return false;
    }
  }
  return true;
}

bool DrmpDocument::IsSha256Hex(const std::string& text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string DrmpDocument::Shorten(const std::string& text) {
  return text.size() <= kShortenedLength ? text : text.substr(0, kShortenedLength) + "...";
}

bool DrmpDocument::Parse(const std::string& documentText, size_t maxObjects,
                         std::vector<DrmpEntry>& entries, std::vector<DrmpRefusal>& refused,
                         std::string& why) {
  entries.clear();
  refused.clear();
  LumJson::Value document;
  if (!Core::JsonUtil::ParseObject(documentText, document)) {
    why = "document is not a JSON object";
    return false;
  }
  const LumJson::Value& objects = document["objects"];
  if (!objects.isArray()) {
    why = "\"objects\" is not an array";
    return false;
  }
  if (objects.size() > maxObjects) {
    why = "more objects than the device holds";
    return false;
  }
  std::set<std::string> seen;
  for (const LumJson::Value& object : objects) {
    if (!object.isObject() || !object["name"].isString() || !object["version"].isString() ||
        !object["size"].isUInt64() || !object["sha256"].isString() || !object["path"].isString()) {
      why = "an object lacks a member or has one of the wrong type";
      return false;
    }
    DrmpEntry entry;
    entry.name = object["name"].asString();
    entry.version = object["version"].asString();
    entry.size = object["size"].asUInt64();
    entry.sha256 = object["sha256"].asString();
    entry.path = object["path"].asString();
    const char* reason = nullptr;
    if (!IsValidName(entry.name)) {
      reason = "invalid name";
    } else if (!seen.insert(entry.name).second) {
      reason = "listed twice";
    } else if (!IsValidVersion(entry.version)) {
      reason = "invalid version";
    } else if (!IsSha256Hex(entry.sha256)) {
      reason = "invalid sha256";
    } else if (!IsValidPath(entry.path)) {
      reason = "invalid path";
    }
    if (reason != nullptr) {
      refused.push_back({Shorten(entry.name), reason});
    } else {
      entries.push_back(entry);
    }
  }
  return true;
}

}  // namespace Drmp
}  // namespace Lum
