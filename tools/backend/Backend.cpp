#include "tools/backend/Backend.h"

#include <openssl/rand.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tools/backend/JsonText.h"

namespace Lum {
namespace Tools {

namespace {

constexpr const char* kGidTokenPath = "/api/v1/da/gidtoken";
constexpr const char* kStatePath = "/api/v1/da/state";
constexpr const char* kNotificationPath = "/api/v1/da/notification";
constexpr const char* kUploadTokenPath = "/api/v1/ds/uploadtoken";
constexpr const char* kUploadPackagePath = "/api/v1/dsdata/upload/package";
constexpr const char* kSupportPrefix = "/api/v1/";
constexpr const char* kSupportPaths[] = {
    "sv/session/initialize", "sv/session/terminate", "sv/session/suspend",
    "sv/session/resume",     "sv/command/get",       "sv/command/put",
};
constexpr const char* kSpeedDownloadPath = "/api/v1/sv/speedtest/download";
constexpr const char* kSpeedUploadPath = "/api/v1/sv/speedtest/upload";
// The device's default download size; a request may ask for up to the cap.
constexpr size_t kDefaultSpeedBytes = 102400;
constexpr size_t kMaxSpeedBytes = 64u * 1024u * 1024u;
constexpr size_t kMaxDnsLabel = 63;
constexpr const char* kMethodPath = "/test/method";
constexpr const char* kBytesPrefix = "/test/bytes/";
constexpr const char* kAnyPath = "*";
constexpr size_t kMaxTestBytes = 1024u * 1024u * 1024u;
constexpr const char* kNotJsonBody = "<html><body>Service temporarily unavailable</body></html>";

bool ParseJson(const std::string& text, LumJson::Value* value) {
  LumJson::CharReaderBuilder builder;
  LumJson::CharReaderBuilder::strictMode(&builder.settings_);
  std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  std::string errors;
  return reader->parse(text.data(), text.data() + text.size(), value, &errors);
}

std::string ErrorBody(const std::string& text) {
  LumJson::Value body(LumJson::objectValue);
  body["error"] = text;
  return JsonText::Compact(body);
}

std::string RandomHex(size_t bytes) {
  std::string raw(bytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&raw[0]), static_cast<int>(bytes)) != 1) {
    for (auto& c : raw) {
      c = static_cast<char>(std::rand());
    }
  }
  std::string hex;
  char digits[3];
  for (unsigned char c : raw) {
    std::snprintf(digits, sizeof(digits), "%02x", c);
    hex += digits;
  }
  return hex;
}

OcspStatus StatusOf(OcspMode mode) {
  switch (mode) {
    case OcspMode::Revoked:
      return OcspStatus::Revoked;
    case OcspMode::Expired:
      return OcspStatus::Expired;
    case OcspMode::Stale:
      return OcspStatus::Stale;
    case OcspMode::FreshWithoutNextUpdate:
      return OcspStatus::FreshWithoutNextUpdate;
    case OcspMode::Good:
    case OcspMode::None:
      break;
  }
  return OcspStatus::Good;
}

// The test byte route: byte i of the body is 'a' + i % 26, so a client can
// check which bytes it kept.
void AnswerBytes(const RecordedRequest& request, Reply& reply) {
  std::string count = request.path.substr(std::string(kBytesPrefix).size());
  char* end = nullptr;
  unsigned long long n = std::strtoull(count.c_str(), &end, 10);
  if (count.empty() || *end != '\0' || n > kMaxTestBytes) {
    reply.json(400, ErrorBody("bad byte count"));
    return;
  }
  reply.status = 200;
  reply.contentType = "application/octet-stream";
  reply.body.resize(static_cast<size_t>(n));
  for (size_t i = 0; i < reply.body.size(); ++i) {
    reply.body[i] = static_cast<char>('a' + i % 26);
  }
}

// The region becomes part of a host name, so it must be one DNS label.
bool IsDnsLabel(const std::string& text) {
  if (text.empty() || text.size() > kMaxDnsLabel || text.front() == '-' || text.back() == '-') {
    return false;
  }
  for (char c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') {
      return false;
    }
  }
  return true;
}

int StatusOf(UploadLedger::Verdict verdict) {
  switch (verdict) {
    case UploadLedger::Verdict::Accepted:
      return 200;
    case UploadLedger::Verdict::UnknownToken:
    case UploadLedger::Verdict::UsedToken:
      return 403;
    case UploadLedger::Verdict::WrongHost:
      return 421;
    case UploadLedger::Verdict::HashMismatch:
    case UploadLedger::Verdict::BadPackage:
      break;
  }
  return 400;
}

// GET "sv/speedtest/download?size=N": N bytes (default 102400, capped).
void AnswerSpeedDownload(const RecordedRequest& request, Reply& reply) {
  if (request.method != "GET") {
    reply.json(405, ErrorBody("GET only"));
    return;
  }
  size_t size = kDefaultSpeedBytes;
  const size_t query = request.target.find("?size=");
  if (query != std::string::npos) {
    const std::string count = request.target.substr(query + 6);
    char* end = nullptr;
    const unsigned long long n = std::strtoull(count.c_str(), &end, 10);
    if (count.empty() || *end != '\0' || n > kMaxSpeedBytes) {
      reply.json(400, ErrorBody("bad size"));
      return;
    }
    size = static_cast<size_t>(n);
  }
  reply.status = 200;
  reply.contentType = "application/octet-stream";
  reply.body.assign(size, 'x');
}

// POST "sv/speedtest/upload": counts the body.
void AnswerSpeedUpload(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  LumJson::Value answer(LumJson::objectValue);
  answer["bytes"] = static_cast<LumJson::UInt64>(request.body.size());
  reply.json(200, JsonText::Compact(answer));
}

void AnswerMethod(const RecordedRequest& request, Reply& reply) {
  reply.status = 200;
  reply.contentType = "text/plain";
  reply.body = request.method;
}

SupportSessions::Options SessionOptions(const BackendOptions& options) {
  SupportSessions::Options sessions;
  sessions.hold = options.longPollHold;
  sessions.expire = options.expireSessions;
  sessions.onEvent = options.onSessionEvent;
  sessions.onAnswer = options.onTaskAnswer;
  return sessions;
}

}  // namespace

Backend::Backend(const TestPki& pki, BackendOptions options)
    : pki_(pki),
      options_(std::move(options)),
      serverCert_(options_.serverCert),
      ocspMode_(options_.ocsp),
      minTls_(options_.minTls),
      maxTls_(options_.maxTls),
      sessions_(SessionOptions(options_)),
      updates_(pki, [this](std::chrono::milliseconds delay) { return waitUnlessStopping(delay); }) {
  installCoreRoutes();
}

Backend::~Backend() {
  stop();
}

void Backend::installCoreRoutes() {
  addRoute(kGidTokenPath, [this](const RecordedRequest& request, Reply& reply) {
    handleGidToken(request, reply);
  });
  addRoute(kStatePath,
           [this](const RecordedRequest& request, Reply& reply) { handleState(request, reply); });
  addRoute(kNotificationPath, [this](const RecordedRequest& request, Reply& reply) {
    handleNotification(request, reply);
  });
  addRoute(kUploadTokenPath, [this](const RecordedRequest& request, Reply& reply) {
    handleUploadToken(request, reply);
  });
  addRoute(kUploadPackagePath, [this](const RecordedRequest& request, Reply& reply) {
    handleUploadPackage(request, reply);
  });
  for (const char* path : kSupportPaths) {
    const std::string name = path;
    addRoute(kSupportPrefix + name, [this, name](const RecordedRequest& request, Reply& reply) {
      handleSupport(name, request, reply);
    });
  }
  drmp_.reset(new DrmpService(pki_, [this](const RecordedRequest& request) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    DeviceRecord* device = nullptr;
    return authorized(request, &device);
  }));
  addPrefixRoute("/api/v1/drmp/", [this](const RecordedRequest& request, Reply& reply) {
    drmp_->handle(request, reply);
  });
  addRoute(kSpeedDownloadPath, AnswerSpeedDownload);
  addRoute(kSpeedUploadPath, AnswerSpeedUpload);
  addRoute(kMethodPath, AnswerMethod);
  addPrefixRoute(kBytesPrefix, AnswerBytes);
  addPrefixRoute("/api/v1/su/", [this](const RecordedRequest& request, Reply& reply) {
    updates_.handle(request, reply);
  });
}

// ---- life cycle and TLS ----

TlsSettings Backend::tlsSettings() const {
  TlsSettings settings;
  settings.certPem = pki_.serverCertPem(serverCert_);
  settings.keyPem = pki_.serverKeyPem(serverCert_);
  settings.issuerPem =
      serverCert_ == ServerCertKind::UntrustedCa ? pki_.untrustedCaCertPem() : pki_.caCertPem();
  settings.clientCaPem = pki_.caCertPem();
  settings.minVersion = minTls_;
  settings.maxVersion = maxTls_;
  return settings;
}

std::string Backend::ocspDer() const {
  if (ocspMode_ == OcspMode::None) {
    return std::string();
  }
  return pki_.ocspResponse(serverCert_, StatusOf(ocspMode_));
}

bool Backend::reconfigureTls(std::string* error) {
  if (!server_) {
    return true;  // applied by start()
  }
  if (!server_->configure(tlsSettings(), error)) {
    return false;
  }
  server_->setOcspResponse(ocspDer());
  return true;
}

bool Backend::start(std::string* error) {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  if (server_) {
    return true;
  }
  if (!pki_.valid()) {
    if (error != nullptr) {
      *error = "the PKI has not been generated or loaded";
    }
    return false;
  }
  {
    std::lock_guard<std::mutex> stopLock(stopMutex_);
    stopping_ = false;
  }
  sessions_.setStopping(false);
  TlsServer::Callbacks callbacks;
  callbacks.handle = [this](RecordedRequest& request, Reply& reply) { handle(request, reply); };
  callbacks.answered = [this](const RecordedRequest& request) {
    recordAnswer(request, request.status);
  };
  callbacks.connectionFault = [this](const std::string& serverName) {
    return takeConnectionFault(serverName);
  };
  server_ = std::make_unique<TlsServer>(std::move(callbacks), options_.idleTimeout);
  if (!reconfigureTls(error) || !server_->start(options_.bindAddress, port_ != 0 ? port_ : options_.port, error)) {
    server_.reset();
    return false;
  }
  port_ = server_->port();
  return updates_.start(error);
}

void Backend::stop() {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  {
    std::lock_guard<std::mutex> stopLock(stopMutex_);
    stopping_ = true;
  }
  stopCv_.notify_all();
  // Held polls answer before the server joins their connection threads.
  sessions_.setStopping(true);
  if (server_) {
    server_->stop();
    server_.reset();
  }
}

int Backend::port() const {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  return port_;
}

std::string Backend::baseUrl(const std::string& opid) const {
  return "https://" + opid + "-da.lum.localhost:" + std::to_string(port());
}

void Backend::setOcspMode(OcspMode mode) {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  ocspMode_ = mode;
  if (server_) {
    server_->setOcspResponse(ocspDer());
  }
}

bool Backend::setServerCert(ServerCertKind kind, std::string* error) {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  serverCert_ = kind;
  return reconfigureTls(error);
}

bool Backend::setTlsRange(TlsVersion minVersion, TlsVersion maxVersion, std::string* error) {
  std::lock_guard<std::mutex> lock(lifeMutex_);
  minTls_ = minVersion;
  maxTls_ = maxVersion;
  return reconfigureTls(error);
}

bool Backend::waitUnlessStopping(std::chrono::milliseconds duration) {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopCv_.wait_for(lock, duration, [this] { return stopping_; });
}

// ---- routing and faults ----

void Backend::addRoute(const std::string& path, RouteHandler handler) {
  std::lock_guard<std::mutex> lock(routeMutex_);
  for (auto& route : routes_) {
    if (!route.prefix && route.path == path) {
      route.handler = std::move(handler);
      return;
    }
  }
  routes_.push_back(RouteEntry{path, false, std::move(handler)});
}

void Backend::addPrefixRoute(const std::string& prefix, RouteHandler handler) {
  std::lock_guard<std::mutex> lock(routeMutex_);
  for (auto& route : routes_) {
    if (route.prefix && route.path == prefix) {
      route.handler = std::move(handler);
      return;
    }
  }
  routes_.push_back(RouteEntry{prefix, true, std::move(handler)});
}

Backend::RouteHandler Backend::findRoute(const std::string& path) const {
  std::lock_guard<std::mutex> lock(routeMutex_);
  for (const auto& route : routes_) {
    if (!route.prefix && route.path == path) {
      return route.handler;
    }
  }
  // The longest matching prefix wins.
  const RouteEntry* best = nullptr;
  for (const auto& route : routes_) {
    if (route.prefix && path.compare(0, route.path.size(), route.path) == 0 &&
        (best == nullptr || route.path.size() > best->path.size())) {
      best = &route;
    }
  }
  return best != nullptr ? best->handler : RouteHandler();
}

void Backend::injectFault(const std::string& path, const Fault& fault) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  faults_[path] = fault;
}

void Backend::injectConnectionFault(const std::string& serverName, ConnectionFault fault,
                                    int count) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  connectionFaults_[serverName] = {fault, count};
}

void Backend::clearFaults() {
  std::lock_guard<std::mutex> lock(stateMutex_);
  faults_.clear();
  connectionFaults_.clear();
}

ConnectionFault Backend::takeConnectionFault(const std::string& serverName) {
  ConnectionFault fault;
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    auto it = connectionFaults_.find(serverName);
    if (it == connectionFaults_.end() || it->second.second == 0) {
      return ConnectionFault::None;
    }
    fault = it->second.first;
    if (it->second.second > 0 && --it->second.second == 0) {
      connectionFaults_.erase(it);
    }
  }
  countFaultTaken();
  return fault;
}

void Backend::countFaultTaken() {
  {
    std::lock_guard<std::mutex> lock(recordMutex_);
    ++faultsTaken_;
  }
  recordCv_.notify_all();
}

unsigned Backend::faultsTaken() const {
  std::lock_guard<std::mutex> lock(recordMutex_);
  return faultsTaken_;
}

bool Backend::waitForFaultsTaken(unsigned n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(recordMutex_);
  return recordCv_.wait_for(lock, timeout, [&] { return faultsTaken_ >= n; });
}

bool Backend::takeFault(const std::string& path, Fault* fault) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  auto it = faults_.find(path);
  if (it == faults_.end()) {
    it = faults_.find(kAnyPath);
  }
  if (it == faults_.end() || it->second.count == 0) {
    return false;
  }
  *fault = it->second;
  if (it->second.count > 0 && --it->second.count == 0) {
    faults_.erase(it);
  }
  return true;
}

// True when the fault produced the whole answer; a fault that only delays
// lets the route answer afterwards.
bool Backend::applyFault(const RecordedRequest& request, Reply& reply) {
  Fault fault;
  if (!takeFault(request.path, &fault)) {
    return false;
  }
  countFaultTaken();
  if (fault.delay.count() > 0 && !waitUnlessStopping(fault.delay)) {
    reply.action = Reply::Action::Drop;
    return true;
  }
  if (fault.drop) {
    reply.action = Reply::Action::Drop;
  } else if (fault.stallAfterHeaders.count() > 0) {
    reply.action = Reply::Action::StallAfterHeaders;
    reply.json(fault.status != 0 ? fault.status : 200, "{}");
    reply.stallLimit = fault.stallAfterHeaders;
  } else if (fault.trickle.count() > 0) {
    reply.action = Reply::Action::Trickle;
    reply.json(fault.status != 0 ? fault.status : 200, "{}");
    reply.byteInterval = fault.trickle;
  } else if (fault.resetMidBody) {
    reply.action = Reply::Action::ResetMidBody;
    reply.json(fault.status != 0 ? fault.status : 200, std::string(64 * 1024, ' '));
  } else if (fault.bodyBytes > 0) {
    reply.status = fault.status != 0 ? fault.status : 200;
    reply.contentType = "application/json";
    reply.body.assign(fault.bodyBytes, 'x');
  } else if (fault.headerBytes > 0) {
    reply.json(fault.status != 0 ? fault.status : 200, "{}");
    // Lines of 1 KiB, each well within what a client takes per line.
    for (size_t i = 0; i * 1024 < fault.headerBytes; ++i) {
      reply.headers.emplace_back("X-Filler-" + std::to_string(i), std::string(1000, 'h'));
    }
  } else if (fault.closeNotify) {
    reply.action = Reply::Action::CloseNotify;
  } else if (fault.status != 0) {
    reply.json(fault.status, "{}");
  } else if (fault.notJson) {
    reply.status = 200;
    reply.contentType = "application/json";
    reply.body = kNotJsonBody;
  } else {
    return false;
  }
  return true;
}

void Backend::handle(RecordedRequest& request, Reply& reply) {
  recordArrival(request);
  if (applyFault(request, reply)) {
    return;
  }
  RouteHandler route = findRoute(request.path);
  if (!route) {
    reply.json(404, ErrorBody("no such path: " + request.path));
    return;
  }
  try {
    route(request, reply);
  } catch (const std::exception& e) {
    reply = Reply();
    reply.json(500, ErrorBody(e.what()));
  }
}

// ---- the record ----

void Backend::recordArrival(RecordedRequest& request) {
  {
    std::lock_guard<std::mutex> lock(recordMutex_);
    request.sequence = nextSequence_++;
    records_.push_back(request);
  }
  recordCv_.notify_all();
}

void Backend::recordAnswer(const RecordedRequest& request, int status) {
  {
    std::lock_guard<std::mutex> lock(recordMutex_);
    for (auto it = records_.rbegin(); it != records_.rend(); ++it) {
      if (it->sequence == request.sequence) {
        it->status = status;
        break;
      }
    }
  }
  recordCv_.notify_all();
  if (options_.onRequest) {
    options_.onRequest(request);
  }
}

std::vector<RecordedRequest> Backend::requests() const {
  std::lock_guard<std::mutex> lock(recordMutex_);
  return records_;
}

std::vector<RecordedRequest> Backend::requestsTo(const std::string& path) const {
  std::lock_guard<std::mutex> lock(recordMutex_);
  std::vector<RecordedRequest> matching;
  for (const auto& record : records_) {
    if (record.path == path) {
      matching.push_back(record);
    }
  }
  return matching;
}

size_t Backend::requestCount() const {
  std::lock_guard<std::mutex> lock(recordMutex_);
  return records_.size();
}

size_t Backend::requestCount(const std::string& path) const {
  std::lock_guard<std::mutex> lock(recordMutex_);
  size_t count = 0;
  for (const auto& record : records_) {
    count += record.path == path ? 1 : 0;
  }
  return count;
}

void Backend::clearRequests() {
  std::lock_guard<std::mutex> lock(recordMutex_);
  records_.clear();
}

bool Backend::waitForRequests(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(recordMutex_);
  return recordCv_.wait_for(lock, timeout, [&] { return records_.size() >= n; });
}

bool Backend::waitForRequests(const std::string& path, size_t n,
                              std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(recordMutex_);
  return recordCv_.wait_for(lock, timeout, [&] {
    size_t count = 0;
    for (const auto& record : records_) {
      count += record.path == path ? 1 : 0;
    }
    return count >= n;
  });
}

bool Backend::waitForAnswers(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(recordMutex_);
  return recordCv_.wait_for(lock, timeout, [&] {
    size_t count = 0;
    for (const auto& record : records_) {
      count += record.status >= 0 ? 1 : 0;
    }
    return count >= n;
  });
}

// ---- the core paths ----

Backend::DeviceRecord& Backend::deviceFor(const std::string& commonName) {
  return devices_[commonName];  // created on first contact
}

bool Backend::authorized(const RecordedRequest& request, DeviceRecord** device) {
  auto it = devices_.find(request.clientCommonName);
  if (it == devices_.end() || it->second.gidToken.empty() ||
      it->second.gidToken != request.header("Authorization")) {
    return false;
  }
  *device = &it->second;
  return true;
}

bool Backend::deliveryPending(const DeviceRecord& device) const {
  return device.deliveredConfig < configVersion_ || device.deliveredEvents < events_.size();
}

void Backend::handleGidToken(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  std::lock_guard<std::mutex> lock(stateMutex_);
  DeviceRecord& device = deviceFor(request.clientCommonName);
  device.gidToken = "gid-" + std::to_string(++tokenCounter_) + "-" + RandomHex(12);
  ++device.tokensIssued;
  LumJson::Value answer(LumJson::objectValue);
  answer["daGidToken"] = device.gidToken;
  reply.json(200, JsonText::Compact(answer));
}

LumJson::Value Backend::stateAnswer(const std::string& commonName, DeviceRecord& device) {
  bool newConfig = device.deliveredConfig < configVersion_;
  bool newEvents = device.deliveredEvents < events_.size();
  // The device reads events only when a sequence number moved.
  if (newConfig) {
    ++device.opidSeqNum;
  }
  if (newEvents) {
    ++device.gidSeqNum;
  }
  LumJson::Value answer(LumJson::objectValue);
  answer["daSynchronized"] = synchronizedAnswer_;
  answer["daOpidSeqNum"] = device.opidSeqNum;
  answer["daGidSeqNum"] = device.gidSeqNum;
  if (allowedIdsSet_) {
    LumJson::Value ids(LumJson::arrayValue);
    for (const auto& id : allowedIds_) {
      ids.append(id);
    }
    answer["dsAllowedDataItemIds"] = ids;
  }
  if (consentUrlSet_) {
    answer["daConsentUrl"] = consentUrl_;
  }
  if (newEvents) {
    LumJson::Value events(LumJson::arrayValue);
    for (LumJson::ArrayIndex i = static_cast<LumJson::ArrayIndex>(device.deliveredEvents);
         i < events_.size(); ++i) {
      events.append(events_[i]);
    }
    answer["daEvents"] = events;
  }
  // The speed tests run against this back end unless a test pushes others.
  const std::string speedBase = "https://" + SupportSessions::HostFor(commonName);
  answer["svSpeedTestDownloadUrl"] = speedBase + kSpeedDownloadPath;
  answer["svSpeedTestUploadUrl"] = speedBase + kSpeedUploadPath;
  // Pushed members come last so that a test can override any of the above.
  for (const auto& name : pushedTunables_.getMemberNames()) {
    answer[name] = pushedTunables_[name];
  }
  device.deliveredConfig = configVersion_;
  device.deliveredEvents = events_.size();
  return answer;
}

void Backend::handleState(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  LumJson::Value body;
  bool parsed = ParseJson(request.body, &body) && body.isObject();
  std::lock_guard<std::mutex> lock(stateMutex_);
  DeviceRecord* device = nullptr;
  if (!authorized(request, &device)) {
    reply.json(422, ErrorBody("unknown GID token"));
    return;
  }
  if (!parsed) {
    reply.json(400, ErrorBody("the body is not a JSON object"));
    return;
  }
  ++device->stateCalls;
  device->reportedState = body;
  reply.json(200, JsonText::Compact(stateAnswer(request.clientCommonName, *device)));
}

void Backend::handleNotification(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  std::lock_guard<std::mutex> lock(stateMutex_);
  DeviceRecord* device = nullptr;
  if (!authorized(request, &device)) {
    reply.json(422, ErrorBody("unknown GID token"));
    return;
  }
  ++device->notificationCalls;
  LumJson::Value answer(LumJson::objectValue);
  answer["daStateSynchronized"] = !deliveryPending(*device);
  reply.json(200, JsonText::Compact(answer));
}

// ---- the data-services paths ----

void Backend::handleUploadToken(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  if (!UploadLedger::SameHost(request.host, UploadLedger::TokenHost(request.clientCommonName))) {
    reply.json(421, ErrorBody("not the data-services host of this device: " + request.host));
    return;
  }
  LumJson::Value body;
  const bool parsed = ParseJson(request.body, &body) && body.isObject();
  std::string region;
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    DeviceRecord* device = nullptr;
    if (!authorized(request, &device)) {
      reply.json(422, ErrorBody("unknown GID token"));
      return;
    }
    if (!parsed || !body["dsPackageHash"].isString() ||
        !UploadLedger::IsSha256Hex(body["dsPackageHash"].asString())) {
      reply.json(400, ErrorBody("expected a JSON object with a SHA-256 \"dsPackageHash\""));
      return;
    }
    ++device->uploadTokensIssued;
    region = uploadRegion_;
  }
  LumJson::Value answer(LumJson::objectValue);
  answer["dsUploadToken"] =
      uploads_.issue(request.clientCommonName, body["dsPackageHash"].asString(), region);
  answer["dsUploadRegion"] = region;
  reply.json(200, JsonText::Compact(answer));
}

void Backend::handleUploadPackage(const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  const MultipartPart* data = request.part("data");
  const MultipartPart* token = request.part("token");
  if (data == nullptr || token == nullptr) {
    reply.json(400, ErrorBody("expected the form parts \"data\" and \"token\""));
    return;
  }
  ReceivedPackage package;
  const UploadLedger::Verdict verdict = uploads_.accept(request.clientCommonName, request.host,
                                                        token->content, data->content, &package);
  if (verdict != UploadLedger::Verdict::Accepted) {
    reply.json(StatusOf(verdict), ErrorBody(UploadLedger::VerdictToString(verdict)));
    return;
  }
  if (options_.onPackage) {
    options_.onPackage(package);
  }
  reply.json(200, "{}");
}

// ---- the support-view paths ----

void Backend::handleSupport(const std::string& path, const RecordedRequest& request, Reply& reply) {
  if (request.method != "POST") {
    reply.json(405, ErrorBody("POST only"));
    return;
  }
  const std::string& cn = request.clientCommonName;
  if (!UploadLedger::SameHost(request.host, SupportSessions::HostFor(cn))) {
    reply.json(421, ErrorBody("not the support-view host of this device: " + request.host));
    return;
  }
  sessions_.countCall(cn, path);
  const std::string token = request.header("Authorization");
  SupportSessions::Answer answer;
  if (path == "sv/session/initialize") {
    {
      std::lock_guard<std::mutex> lock(stateMutex_);
      DeviceRecord* device = nullptr;
      if (!authorized(request, &device)) {
        reply.json(422, ErrorBody("unknown GID token"));
        return;
      }
    }
    answer = sessions_.initialize(cn, request.body);
  } else if (path == "sv/session/terminate") {
    answer = sessions_.terminate(cn, token);
  } else if (path == "sv/session/suspend") {
    answer = sessions_.suspend(cn, token);
  } else if (path == "sv/session/resume") {
    answer = sessions_.resume(cn, token, request.body);
  } else if (path == "sv/command/get") {
    answer = sessions_.getCommand(cn, token, request.body);
  } else {
    answer = sessions_.putCommand(cn, token, request.body);
  }
  if (answer.status == 204) {
    reply.status = 204;
    reply.contentType.clear();
    reply.body.clear();
  } else {
    reply.json(answer.status, answer.body);
  }
}

std::string Backend::svBaseUrl(const std::string& opid) const {
  return "https://" + opid + "-sv.lum.localhost:" + std::to_string(port());
}

void Backend::setLongPollHold(std::chrono::milliseconds hold) {
  sessions_.setHold(hold);
}

uint32_t Backend::queueTask(const std::string& commonName, const LumJson::Value& requests) {
  return sessions_.queueTask(commonName, requests);
}

uint32_t Backend::queueCommand(const std::string& commonName, const std::string& name,
                               const std::string& operation, const LumJson::Value& inputs) {
  LumJson::Value requests(LumJson::arrayValue);
  requests.append(SupportSessions::CommandRequest(name, operation, inputs));
  return sessions_.queueTask(commonName, requests);
}

bool Backend::supportSession(const std::string& commonName, SupportSessionView* view) const {
  return sessions_.view(commonName, view);
}

std::vector<TaskAnswer> Backend::taskAnswers(const std::string& commonName) const {
  return sessions_.answers(commonName);
}

bool Backend::waitForTaskAnswers(size_t n, std::chrono::milliseconds timeout) const {
  return sessions_.waitForAnswers(n, timeout);
}

bool Backend::waitForSessionState(const std::string& commonName, SupportSessionState state,
                                  std::chrono::milliseconds timeout) const {
  return sessions_.waitForState(commonName, state, timeout);
}

bool Backend::waitForHeldPolls(const std::string& commonName, unsigned n,
                               std::chrono::milliseconds timeout) const {
  return sessions_.waitForHeldPolls(commonName, n, timeout);
}

bool Backend::endSession(const std::string& commonName) {
  return sessions_.endSession(commonName);
}

bool Backend::setUploadRegion(const std::string& region) {
  if (!IsDnsLabel(region)) {
    return false;
  }
  std::lock_guard<std::mutex> lock(stateMutex_);
  uploadRegion_ = region;
  return true;
}

std::string Backend::uploadRegion() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return uploadRegion_;
}

std::string Backend::dsBaseUrl(const std::string& opid) const {
  return "https://" + opid + "-ds.lum.localhost:" + std::to_string(port());
}

std::string Backend::dsDataBaseUrl(const std::string& opid, const std::string& region) const {
  return "https://" + opid + "-dsdata-" + region + ".lum.localhost:" + std::to_string(port());
}

unsigned Backend::uploadTokensIssued() const {
  return uploads_.tokensIssued();
}

std::vector<ReceivedPackage> Backend::packages() const {
  return uploads_.packages();
}

std::vector<LumJson::Value> Backend::dataItems() const {
  return uploads_.dataItems();
}

bool Backend::waitForPackages(size_t n, std::chrono::milliseconds timeout) const {
  return uploads_.waitForPackages(n, timeout);
}

bool Backend::waitForDataItems(size_t n, std::chrono::milliseconds timeout) const {
  return uploads_.waitForDataItems(n, timeout);
}

// ---- control ----

void Backend::pushTunables(const LumJson::Value& members) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  if (!members.isObject()) {
    return;
  }
  for (const auto& name : members.getMemberNames()) {
    pushedTunables_[name] = members[name];
  }
  ++configVersion_;
}

void Backend::setAllowedDataItemIds(const std::vector<std::string>& ids) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  allowedIds_ = ids;
  allowedIdsSet_ = true;
  ++configVersion_;
}

void Backend::setConsentUrl(const std::string& url) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  consentUrl_ = url;
  consentUrlSet_ = true;
  ++configVersion_;
}

void Backend::queueEvent(const std::string& event, uint32_t id, const std::string& parameters) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  LumJson::Value entry(LumJson::objectValue);
  entry["event"] = event;
  entry["id"] = id;
  entry["parameters"] = parameters;
  events_.append(entry);
}

void Backend::setSynchronizedAnswer(bool synchronized) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  synchronizedAnswer_ = synchronized;
}

void Backend::revokeGidToken(const std::string& commonName) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  for (auto& device : devices_) {
    if (commonName.empty() || device.first == commonName) {
      device.second.gidToken.clear();
    }
  }
}

bool Backend::device(const std::string& commonName, DeviceView* view) const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  auto it = devices_.find(commonName);
  if (it == devices_.end()) {
    return false;
  }
  const DeviceRecord& record = it->second;
  view->commonName = commonName;
  view->gidToken = record.gidToken;
  view->reportedState = record.reportedState;
  view->opidSeqNum = record.opidSeqNum;
  view->gidSeqNum = record.gidSeqNum;
  view->tokensIssued = record.tokensIssued;
  view->stateCalls = record.stateCalls;
  view->notificationCalls = record.notificationCalls;
  view->uploadTokensIssued = record.uploadTokensIssued;
  view->deliveryPending = deliveryPending(record);
  return true;
}

std::vector<std::string> Backend::deviceNames() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  std::vector<std::string> names;
  for (const auto& device : devices_) {
    names.push_back(device.first);
  }
  return names;
}

}  // namespace Tools
}  // namespace Lum
