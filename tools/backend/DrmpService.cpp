#include "tools/backend/DrmpService.h"

#include <strings.h>

#include "tools/backend/JsonText.h"
#include "tools/backend/UploadLedger.h"

namespace Lum {
namespace Tools {

namespace {

constexpr const char* kPrefix = "/api/v1/drmp/";
constexpr const char* kObjectPrefix = "/api/v1/drmp/object/";

std::string ErrorBody(const std::string& text) {
  LumJson::Value body(LumJson::objectValue);
  body["error"] = text;
  return JsonText::Compact(body);
}

std::string DrmpHost(const std::string& commonName) {
  const size_t dot = commonName.find('.');
  if (dot == std::string::npos) {
    return std::string();
  }
  return commonName.substr(0, dot) + "-drmp." + commonName.substr(dot + 1);
}

std::string QueryValue(const std::string& target, const std::string& key) {
  const size_t query = target.find('?');
  if (query == std::string::npos) {
    return std::string();
  }
  const std::string wanted = key + "=";
  size_t at = query + 1;
  while (at < target.size()) {
    size_t end = target.find('&', at);
    if (end == std::string::npos) {
      end = target.size();
    }
    if (target.compare(at, wanted.size(), wanted) == 0) {
      return target.substr(at + wanted.size(), end - at - wanted.size());
    }
    at = end + 1;
  }
  return std::string();
}

}  // namespace

DrmpService::DrmpService(const TestPki& pki, Authorizer authorize)
    : pki_(pki), authorize_(std::move(authorize)) {}

const DocumentSigner& DrmpService::signer(bool rogue) {
  std::lock_guard<std::mutex> lock(signerMutex_);
  std::unique_ptr<DocumentSigner>& slot = rogue ? rogueSigner_ : signer_;
  if (!slot) {
    slot.reset(new DocumentSigner());
    slot->create(pki_, !rogue);
  }
  return *slot;
}

void DrmpService::handle(const RecordedRequest& request, Reply& reply) {
  const std::string host = DrmpHost(request.clientCommonName);
  if (host.empty() || !UploadLedger::SameHost(request.host, host)) {
    reply.json(421, ErrorBody("not the DRMP host of this device: " + request.host));
    return;
  }
  if (!authorize_(request)) {
    reply.json(422, ErrorBody("unknown GID token"));
    return;
  }
  const std::string path = request.path;
  if (path == std::string(kPrefix) + "objects" && request.method == "GET") {
    answerList(reply);
  } else if (path.compare(0, std::string(kObjectPrefix).size(), kObjectPrefix) == 0 &&
             request.method == "GET") {
    answerObject(request, reply);
  } else if (path == std::string(kPrefix) + "report" && request.method == "POST") {
    answerReport(request, reply);
  } else {
    reply.json(404, ErrorBody("no such DRMP path: " + request.method + " " + path));
  }
}

std::string DrmpService::listDocumentLocked() const {
  LumJson::Value list(LumJson::arrayValue);
  for (const DrmpObject& object : objects_) {
    LumJson::Value entry(LumJson::objectValue);
    entry["name"] = object.name;
    entry["version"] = object.version;
    entry["size"] = static_cast<LumJson::UInt64>(object.bytes.size());
    entry["sha256"] = UploadLedger::Sha256Hex(object.bytes);
    entry["path"] = "drmp/object/" + object.name + "?version=" + object.version;
    list.append(entry);
  }
  LumJson::Value document(LumJson::objectValue);
  document["objects"] = list;
  return JsonText::Compact(document);
}

std::string DrmpService::listDocument() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return listDocumentLocked();
}

void DrmpService::answerList(Reply& reply) {
  std::string document;
  DrmpListSigning signing;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    document = listDocumentLocked();
    signing = signing_;
  }
  switch (signing) {
    case DrmpListSigning::Signed:
      reply.json(200, signer(false).sign(document));
      break;
    case DrmpListSigning::RogueSigned:
      reply.json(200, signer(true).sign(document));
      break;
    case DrmpListSigning::WrongSignature: {
      // The trusted certificate, with the signature of another document.
      LumJson::Value envelope(LumJson::objectValue);
      envelope["document"] = document;
      envelope["signature"] = signer(false).signature(document + " ");
      envelope["certificate"] = signer(false).certificatePem();
      reply.json(200, JsonText::Compact(envelope));
      break;
    }
    case DrmpListSigning::Unsigned:
      reply.json(200, document);
      break;
  }
}

void DrmpService::answerObject(const RecordedRequest& request, Reply& reply) {
  const std::string name = request.path.substr(std::string(kObjectPrefix).size());
  const std::string version = QueryValue(request.target, "version");
  DrmpObject object;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const DrmpObject& candidate : objects_) {
      if (candidate.name == name && candidate.version == version) {
        object = candidate;
        found = true;
      }
    }
  }
  if (!found) {
    reply.json(404, ErrorBody("no object " + name + " of version " + version));
    return;
  }
  reply.status = 200;
  reply.contentType = "application/octet-stream";
  reply.body = object.bytes;
  switch (object.fault) {
    case DrmpObject::Fault::None:
      break;
    case DrmpObject::Fault::WrongBytes:
      for (char& c : reply.body) {
        c = static_cast<char>(c ^ 0x5a);
      }
      if (reply.body.empty()) {
        reply.body = "x";
      }
      break;
    case DrmpObject::Fault::WrongSize:
      reply.body += "!";
      break;
    case DrmpObject::Fault::Drop:
      // The length of the whole body goes out, none of the body follows.
      reply.action = Reply::Action::StallAfterHeaders;
      reply.stallLimit = std::chrono::milliseconds(1);
      if (reply.body.empty()) {
        reply.body = "x";
      }
      break;
    case DrmpObject::Fault::Unavailable:
      reply.json(503, ErrorBody("try again later"));
      break;
  }
}

void DrmpService::answerReport(const RecordedRequest& request, Reply& reply) {
  LumJson::Value report;
  if (!JsonText::ParseStrict(request.body, &report) || !report.isObject()) {
    reply.json(400, ErrorBody("expected a JSON object"));
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back(report);
  }
  reportCv_.notify_all();
  reply.json(200, "{}");
}

void DrmpService::setObjects(std::vector<DrmpObject> objects) {
  std::lock_guard<std::mutex> lock(mutex_);
  objects_ = std::move(objects);
}

std::vector<DrmpObject> DrmpService::objects() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return objects_;
}

void DrmpService::put(const std::string& name, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (DrmpObject& object : objects_) {
    if (object.name == name) {
      object.bytes = text;
      object.version = std::to_string(std::stoul("0" + object.version) + 1);
      return;
    }
  }
  DrmpObject object;
  object.name = name;
  object.version = "1";
  object.bytes = text;
  objects_.push_back(object);
}

bool DrmpService::remove(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = objects_.begin(); it != objects_.end(); ++it) {
    if (it->name == name) {
      objects_.erase(it);
      return true;
    }
  }
  return false;
}

void DrmpService::setListSigning(DrmpListSigning signing) {
  std::lock_guard<std::mutex> lock(mutex_);
  signing_ = signing;
}

std::vector<LumJson::Value> DrmpService::reports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

bool DrmpService::waitForReports(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return reportCv_.wait_for(lock, timeout, [&] { return reports_.size() >= n; });
}

}  // namespace Tools
}  // namespace Lum
