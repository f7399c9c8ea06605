#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/LumJson.h"
#include "tools/backend/DocumentSigner.h"
#include "tools/backend/HttpExchange.h"
#include "tools/pki/TestPki.h"

namespace Lum {
namespace Tools {

// One object the back end wants every device to hold, and how it is served.
struct DrmpObject {
  enum class Fault {
    None,
    WrongBytes,   // the right length, other bytes (the hash does not match)
    WrongSize,    // one byte more than listed
    Drop,         // headers announcing the body, then the connection closes
    Unavailable,  // 503
  };
  std::string name;
  std::string version;
  std::string bytes;
  Fault fault = Fault::None;
};

// How the object list goes out.
enum class DrmpListSigning {
  Signed,          // by the back end's signing certificate (trusted CA)
  RogueSigned,     // by a certificate of the untrusted CA
  WrongSignature,  // the trusted certificate, a signature over other bytes
  Unsigned,        // the bare document, no envelope
};

// The DRMP paths of the local back end, for every device alike:
//   GET  /api/v1/drmp/objects             the signed list of the objects set
//   GET  /api/v1/drmp/object/NAME?version=V
//                                         the object's bytes (404 for another
//                                         version or an unknown name)
//   POST /api/v1/drmp/report              records the JSON body, answers {}
// Every path answers 421 unless the host is "OPID-drmp.INSTANCE" of the
// client certificate, and 422 unless "Authorization" holds the device's GID
// token. Thread-safe.
class DrmpService {
 public:
  using Authorizer = std::function<bool(const RecordedRequest&)>;

  DrmpService(const TestPki& pki, Authorizer authorize);

  void handle(const RecordedRequest& request, Reply& reply);

  void setObjects(std::vector<DrmpObject> objects);
  std::vector<DrmpObject> objects() const;
  // The console's edits: an object of `text` under `name`, its version one
  // higher than before; and the object gone from the list.
  void put(const std::string& name, const std::string& text);
  bool remove(const std::string& name);
  void setListSigning(DrmpListSigning signing);

  // Report bodies in arrival order.
  std::vector<LumJson::Value> reports() const;
  bool waitForReports(size_t n, std::chrono::milliseconds timeout) const;
  // The list document as it is signed now.
  std::string listDocument() const;

 private:
  void answerList(Reply& reply);
  void answerObject(const RecordedRequest& request, Reply& reply);
  void answerReport(const RecordedRequest& request, Reply& reply);
  std::string listDocumentLocked() const;
  // Issued on first use: two RSA keys cost more than a test that never
  // asks for the list should pay. The rogue one comes from the untrusted CA.
  const DocumentSigner& signer(bool rogue);

  const TestPki& pki_;  // immutable, outlives the service
  const Authorizer authorize_;
  std::mutex signerMutex_;
  std::unique_ptr<DocumentSigner> signer_;
  std::unique_ptr<DocumentSigner> rogueSigner_;

  mutable std::mutex mutex_;
  mutable std::condition_variable reportCv_;
  std::vector<DrmpObject> objects_;
  DrmpListSigning signing_ = DrmpListSigning::Signed;
  std::vector<LumJson::Value> reports_;
};

}  // namespace Tools
}  // namespace Lum
