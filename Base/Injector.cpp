#include "Base/Injector.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "Platform/LockMutex.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/Injector");

namespace Lum {
namespace Core {

namespace {

const int kCore = FilterProperties::SERVICE_CORE;
// A canned wait is sliced so that a cancel is noticed within this.
const std::chrono::milliseconds kCancelPoll(100);

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Configuration comes from a file a person edits; a value of the wrong type
// must fall back to the default instead of throwing out of jsoncpp.
unsigned ReadUnsigned(const LumJson::Value& object, const char* key, unsigned fallback) {
  const LumJson::Value& value = object[key];
  return value.isUInt() ? value.asUInt() : fallback;
}

// False as soon as the request is cancelled, true once the wait is over.
bool WaitUnlessCancelled(unsigned seconds, const Http::Request& request) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!request.cancelled()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= end) {
      return true;
    }
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(end - now, kCancelPoll));
  }
  return false;
}

}  // namespace

// Never destroyed: the agent's threads consult it while the host may exit.
Injector& Injector::Instance() {
  static Injector* const instance = new Injector();
  return *instance;
}

void Injector::initialize(const LumJson::Value& injectors) {
  LUM_TRACE(kCore);
  std::vector<Entry> built;
  if (injectors.isArray()) {
    for (const LumJson::Value& element : injectors) {
      Entry entry;
      if (!ParseEntry(element, &entry)) {
        break;
      }
      built.push_back(std::move(entry));
    }
  }
  LockMutex lock(&mutex_);
  entries_ = std::move(built);
}

bool Injector::ParseEntry(const LumJson::Value& element, Entry* entry) {
  if (!element.isObject() || !element["suffix"].isString() || !element.isMember("responses")) {
    return false;
  }
  const LumJson::Value& responses = element["responses"];
  if (!responses.isArray() || responses.empty()) {
    return false;
  }
  entry->suffix = element["suffix"].asString();
  for (const LumJson::Value& response : responses) {
    entry->responses.push_back(ParseResponse(response));
  }
  return true;
}

Injector::CannedResponse Injector::ParseResponse(const LumJson::Value& element) {
  CannedResponse canned;
  if (!element.isObject()) {
    return canned;
  }
  canned.statusCode = ReadUnsigned(element, "statusCode", canned.statusCode);
  canned.duration = ReadUnsigned(element, "duration", canned.duration);
  if (element["body"].isString()) {
    canned.body = element["body"].asString();
  }
  const LumJson::Value& headers = element["headers"];
  if (headers.isArray()) {
    for (const LumJson::Value& header : headers) {
      if (header.isString()) {
        canned.headers.push_back(header.asString());
      }
    }
  }
  return canned;
}

void Injector::mock(Http::Request& request, Http::Response& response) {
  request.mock = false;
  const std::vector<CannedResponse> answers = takeMatchingResponses(request.url);
  if (answers.empty()) {
    return;
  }
  request.mock = true;
  for (const CannedResponse& canned : answers) {
    if (!Apply(canned, request, response)) {
      return;
    }
  }
}

std::vector<Injector::CannedResponse> Injector::takeMatchingResponses(const std::string& url) {
  std::vector<CannedResponse> answers;
  LockMutex lock(&mutex_);
  for (Entry& entry : entries_) {
    if (!EndsWith(url, entry.suffix)) {
      continue;
    }
    // The script plays its answers in turn and then repeats the last one.
    const size_t index = std::min<size_t>(entry.calls, entry.responses.size() - 1);
    answers.push_back(entry.responses[index]);
    ++entry.calls;
  }
  return answers;
}

bool Injector::Apply(const CannedResponse& canned, const Http::Request& request,
                     Http::Response& response) {
  if (!WaitUnlessCancelled(canned.duration, request)) {
    return false;
  }
  response.statusCode = canned.statusCode;
  response.answered = true;
  if (response.bodyBuffer == nullptr) {
    response.body = canned.body;
  } else if (canned.body.size() <= response.bodyMaxLength) {
    if (!canned.body.empty()) {
      std::memcpy(response.bodyBuffer, canned.body.data(), canned.body.size());
    }
    response.bodyLength = static_cast<uint32_t>(canned.body.size());
  }
  response.headers.insert(response.headers.end(), canned.headers.begin(), canned.headers.end());
  return true;
}

void Injector::terminate() {
  LUM_TRACE(kCore);
  LockMutex lock(&mutex_);
  entries_.clear();
}

std::vector<Injector::Entry> Injector::entries() {
  LockMutex lock(&mutex_);
  return entries_;
}

}  // namespace Core
}  // namespace Lum
