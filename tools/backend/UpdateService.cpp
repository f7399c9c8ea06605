#include "tools/backend/UpdateService.h"

#include <openssl/sha.h>

#include <cstdio>
#include <cstdlib>

#include "tools/backend/JsonText.h"
#include "tools/backend/UploadLedger.h"

namespace Lum {
namespace Tools {

namespace {

constexpr const char* kPrefix = "/api/v1/su/";
constexpr const char* kMetadataPath = "/api/v1/su/metadata";
constexpr const char* kPayloadPrefix = "/api/v1/su/payload/";
constexpr const char* kCompletePath = "/api/v1/su/download/complete";

// "bytes=A-B" with A <= B.
bool ParseRange(const std::string& header, uint64_t* first, uint64_t* last) {
  const std::string prefix = "bytes=";
  if (header.compare(0, prefix.size(), prefix) != 0) {
    return false;
  }
  const std::string range = header.substr(prefix.size());
  const size_t dash = range.find('-');
  if (dash == std::string::npos || dash == 0 || dash + 1 >= range.size()) {
    return false;
  }
  char* end = nullptr;
  *first = std::strtoull(range.c_str(), &end, 10);
  if (end != range.c_str() + dash) {
    return false;
  }
  *last = std::strtoull(range.c_str() + dash + 1, &end, 10);
  return *end == '\0' && *first <= *last;
}

}  // namespace

UpdateService::UpdateService(const TestPki& pki,
                             std::function<bool(std::chrono::milliseconds)> wait)
    : pki_(pki), wait_(std::move(wait)) {}

bool UpdateService::start(std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  return signer_.valid() || signer_.create(pki_, true, error);
}

bool UpdateService::Handles(const std::string& path) {
  return path.compare(0, std::string(kPrefix).size(), kPrefix) == 0;
}

void UpdateService::publishUpdate(const UpdateOffer& offer) {
  std::lock_guard<std::mutex> lock(mutex_);
  offer_ = offer;
  published_ = true;
}

void UpdateService::withdrawUpdate() {
  std::lock_guard<std::mutex> lock(mutex_);
  published_ = false;
}

void UpdateService::setFaults(const UpdateFaults& faults) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_ = faults;
}

std::string UpdateService::metadataEnvelope() {
  std::lock_guard<std::mutex> lock(mutex_);
  return published_ ? buildEnvelope() : std::string();
}

std::vector<LumJson::Value> UpdateService::downloadCompletions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return completions_;
}

std::vector<uint64_t> UpdateService::payloadRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return payloadRequests_;
}

unsigned UpdateService::metadataRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return metadataRequests_;
}

// Called with mutex_ held.
std::string UpdateService::buildEnvelope() {
  LumJson::Value document(LumJson::objectValue);
  document["version"] = offer_.version;
  document["size"] = static_cast<LumJson::UInt64>(offer_.payload.size());
  document["sha256"] = faults_.wrongHash ? UploadLedger::Sha256Hex(offer_.payload + "x")
                                         : UploadLedger::Sha256Hex(offer_.payload);
  document["blockSize"] = offer_.blockSize;
  LumJson::Value hashes(LumJson::arrayValue);
  for (size_t at = 0; at < offer_.payload.size(); at += offer_.blockSize) {
    hashes.append(UploadLedger::Sha256Hex(offer_.payload.substr(at, offer_.blockSize)));
  }
  document["blockSha256"] = hashes;
  document["mandatory"] = offer_.mandatory;
  document["autoAnswer"] = offer_.autoAnswer;
  document["payload"] = "su/payload/" + offer_.version;
  const std::string text = JsonText::Compact(document);
  if (faults_.rogueSigner && !rogue_.valid()) {
    rogue_.create(pki_, false);
  }
  const DocumentSigner& signer = faults_.rogueSigner ? rogue_ : signer_;
  if (!faults_.alteredDocument) {
    return signer.sign(text);
  }
  LumJson::Value envelope;
  JsonText::ParseStrict(signer.sign(text), &envelope);
  document["size"] = static_cast<LumJson::UInt64>(offer_.payload.size() + 1);
  envelope["document"] = JsonText::Compact(document);
  return JsonText::Compact(envelope);
}

void UpdateService::handle(const RecordedRequest& request, Reply& reply) {
  if (request.host.find("-su.") == std::string::npos) {
    reply.json(421, "{\"error\":\"not the update host\"}");
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (faults_.unavailable > 0) {
      --faults_.unavailable;
      reply.json(503, "{}");
      return;
    }
  }
  if (request.path == kMetadataPath && request.method == "GET") {
    answerMetadata(reply);
  } else if (request.path.compare(0, std::string(kPayloadPrefix).size(), kPayloadPrefix) == 0 &&
             request.method == "GET") {
    answerPayload(request, reply);
  } else if (request.path == kCompletePath && request.method == "POST") {
    LumJson::Value body;
    if (!JsonText::ParseStrict(request.body, &body) || !body.isObject()) {
      reply.json(400, "{\"error\":\"not a JSON object\"}");
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    completions_.push_back(body);
    reply.json(200, "{}");
  } else {
    reply.json(404, "{\"error\":\"no such update path\"}");
  }
}

void UpdateService::answerMetadata(Reply& reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++metadataRequests_;
  if (!published_) {
    reply.status = 204;
    reply.body.clear();
    return;
  }
  reply.json(200, buildEnvelope());
}

void UpdateService::answerPayload(const RecordedRequest& request, Reply& reply) {
  uint64_t first = 0;
  uint64_t last = 0;
  std::chrono::milliseconds delay{0};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!published_ || request.path != kPayloadPrefix + offer_.version) {
      reply.json(404, "{\"error\":\"no such payload\"}");
      return;
    }
    if (!ParseRange(request.header("Range"), &first, &last)) {
      reply.json(400, "{\"error\":\"a byte range is required\"}");
      return;
    }
    if (last >= offer_.payload.size()) {
      reply.json(416, "{}");
      return;
    }
    payloadRequests_.push_back(first);
    reply.status = 206;
    reply.contentType = "application/octet-stream";
    reply.body =
        offer_.payload.substr(static_cast<size_t>(first), static_cast<size_t>(last - first + 1));
    reply.headers.emplace_back("Content-Range", "bytes " + std::to_string(first) + "-" +
                                                    std::to_string(last) + "/" +
                                                    std::to_string(offer_.payload.size()));
    const int block = static_cast<int>(first / offer_.blockSize);
    if (block == faults_.corruptBlock) {
      reply.body[0] = static_cast<char>(reply.body[0] ^ 0x5a);
    }
    if (block == faults_.dropAtBlock && faults_.dropCount != 0) {
      if (faults_.dropCount > 0) {
        --faults_.dropCount;
      }
      // The status line and headers go out, the body never does.
      reply.action = Reply::Action::StallAfterHeaders;
      reply.stallLimit = std::chrono::milliseconds(1);
    }
    delay = faults_.blockDelay;
  }
  if (delay.count() > 0 && !wait_(delay)) {
    reply.action = Reply::Action::Drop;
  }
}

}  // namespace Tools
}  // namespace Lum
