#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/LumJson.h"
#include "tools/backend/DocumentSigner.h"
#include "tools/backend/HttpExchange.h"
#include "tools/pki/TestPki.h"

namespace Lum {
namespace Tools {

// An update the back end offers to every device.
struct UpdateOffer {
  std::string version = "2.0.0";
  std::string payload;         // the bytes
  uint32_t blockSize = 65536;  // of the hashes in the metadata
  bool mandatory = false;
  bool autoAnswer = false;
};

// Faults of the update paths. They stay until replaced.
struct UpdateFaults {
  int dropAtBlock = -1;   // a request starting in this block: headers sent, then the connection cut
  int dropCount = 1;      // how often (negative: every time)
  int corruptBlock = -1;  // this block's bytes are served altered, every time
  bool wrongHash = false;    // the metadata's whole-payload hash is wrong (block hashes are right)
  bool rogueSigner = false;  // signed by a certificate of the untrusted CA
  bool alteredDocument = false;             // the document changed after it was signed
  int unavailable = 0;                      // the next N update requests are answered 503
  std::chrono::milliseconds blockDelay{0};  // before every payload answer
};

// The software update paths of the local back end, under "/api/v1/su/" on
// the host "OPID-su.INSTANCE" (421 on another host):
//   GET  su/metadata[?update=LOCATION]  200 with the signed envelope of the
//        published update's metadata, 204 when nothing is published
//   GET  su/payload/VERSION             "Range: bytes=A-B" answered 206 with
//        those bytes (416 outside the payload, 400 without a range)
//   POST su/download/complete           recorded, answered {}
// Thread-safe.
class UpdateService {
 public:
  // `wait` sleeps for a delay unless the back end stops (false then).
  UpdateService(const TestPki& pki, std::function<bool(std::chrono::milliseconds)> wait);

  // Issues the trusted signing certificate; the rogue one follows on first use.
  bool start(std::string* error = nullptr);
  static bool Handles(const std::string& path);
  void handle(const RecordedRequest& request, Reply& reply);

  void publishUpdate(const UpdateOffer& offer);
  void withdrawUpdate();
  void setFaults(const UpdateFaults& faults);
  // The signed metadata envelope as devices get it now (empty when none).
  std::string metadataEnvelope();
  // The bodies of "su/download/complete", in arrival order.
  std::vector<LumJson::Value> downloadCompletions() const;
  // First bytes of the payload ranges asked for, in arrival order.
  std::vector<uint64_t> payloadRequests() const;
  unsigned metadataRequests() const;

 private:
  void answerMetadata(Reply& reply);
  void answerPayload(const RecordedRequest& request, Reply& reply);
  std::string buildEnvelope();

  const TestPki& pki_;
  std::function<bool(std::chrono::milliseconds)> wait_;
  mutable std::mutex mutex_;  // guards everything below
  DocumentSigner signer_;
  DocumentSigner rogue_;
  bool published_ = false;
  UpdateOffer offer_;
  UpdateFaults faults_;
  std::vector<LumJson::Value> completions_;
  std::vector<uint64_t> payloadRequests_;
  unsigned metadataRequests_ = 0;
};

}  // namespace Tools
}  // namespace Lum
