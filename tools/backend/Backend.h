#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/LumJson.h"
#include "tools/backend/DrmpService.h"
#include "tools/backend/HttpExchange.h"
#include "tools/backend/SupportSessions.h"
#include "tools/backend/TlsServer.h"
#include "tools/backend/UpdateService.h"
#include "tools/backend/UploadLedger.h"
#include "tools/pki/TestPki.h"

namespace Lum {
namespace Tools {

struct BackendOptions {
  std::string bindAddress = "127.0.0.1";
  int port = 0;  // 0: an ephemeral port, read it back with Backend::port()
  ServerCertKind serverCert = ServerCertKind::Default;
  OcspMode ocsp = OcspMode::Good;
  TlsVersion minTls = TlsVersion::Tls1_2;
  TlsVersion maxTls = TlsVersion::Tls1_3;
  // How long an idle keep-alive connection is kept open.
  std::chrono::milliseconds idleTimeout{5000};
  // Called after every answer (or drop) with the finished record, on the
  // connection's thread; the command-line back end prints from here.
  std::function<void(const RecordedRequest&)> onRequest;
  // Called with every accepted data package, on the connection's thread,
  // before the answer goes out.
  std::function<void(const ReceivedPackage&)> onPackage;
  // How long "sv/command/get" holds a poll with nothing to hand out before
  // answering 204. It must stay below the agent's message time-out (15 s by
  // default), or the agent would count every quiet poll as a failure.
  std::chrono::milliseconds longPollHold{10000};
  // Whether support sessions idle beyond their limit end (422 afterwards).
  // Off by default: a test's pauses then never end a session by accident.
  bool expireSessions = false;
  // Called on session changes and with every task answer accepted, on the
  // thread that caused them (a connection's, or a control call's).
  std::function<void(const SupportSessionEvent&)> onSessionEvent;
  std::function<void(const TaskAnswer&)> onTaskAnswer;
};

// Fault injected into the answers of one path ("*" for every path). The
// aspects combine: e.g. a delay followed by a status.
struct Fault {
  int count = 1;                       // answers affected; negative: until cleared
  std::chrono::milliseconds delay{0};  // wait before answering (cut short by stop)
  int status = 0;                      // answer this status with an empty JSON body
  bool notJson = false;                // answer 200 with a body that is not JSON
  bool drop = false;                   // close the connection without an answer
  // Send status line and headers, then hang this long (or until stop) and close.
  std::chrono::milliseconds stallAfterHeaders{0};
  // Send the whole answer (the status, or 200, with an empty JSON body) one
  // byte every this long, status line and headers included.
  std::chrono::milliseconds trickle{0};
  bool resetMidBody = false;  // status line, headers, half of a 64 KiB body, then a reset
  size_t bodyBytes = 0;       // answer the status (or 200) with this many bytes, not JSON
  size_t headerBytes = 0;     // answer the status (or 200) with this many bytes of headers
  bool closeNotify = false;   // send TLS's closing alert instead of an answer
};

// What the back end knows of one device (by client-certificate CN).
struct DeviceView {
  std::string commonName;
  std::string gidToken;          // current token, empty before the first "da/gidtoken"
  LumJson::Value reportedState;  // members of the last "da/state" body (null before)
  uint32_t opidSeqNum = 0;
  uint32_t gidSeqNum = 0;
  unsigned tokensIssued = 0;
  unsigned stateCalls = 0;
  unsigned notificationCalls = 0;
  unsigned uploadTokensIssued = 0;  // "ds/uploadtoken" answers that carried a token
  bool deliveryPending = false;     // pushed changes or events not yet delivered
};

// The local device-agent back end: a mutual-TLS HTTPS server on loopback with
// the core paths under "/api/v1/", a control interface for tests, fault
// injection and a record of every request.
//
// Paths:
//   POST /api/v1/da/gidtoken      issues {"daGidToken": ...} for the client's CN
//   POST /api/v1/da/state         422 unless "Authorization" holds the device's
//                                 token; stores the body, answers "daSynchronized",
//                                 sequence numbers, pushed tunables, allowed ids,
//                                 consent URL, undelivered "daEvents" and the
//                                 speed-test URLs below (unless pushed)
//   POST /api/v1/da/notification  422 as above; "daStateSynchronized" false while
//                                 something pushed is undelivered
//   POST /api/v1/ds/uploadtoken   host "OPID-ds.INSTANCE" (else 421); 422 as above;
//                                 400 unless the body holds "dsPackageHash" (64
//                                 lower-case hex digits); issues a one-time
//                                 {"dsUploadToken","dsUploadRegion"} bound to the
//                                 device, the hash and the current region
//   POST /api/v1/dsdata/upload/package
//                                 multipart parts "token" and "data", no
//                                 Authorization; 403 for an unknown, foreign or
//                                 spent token, 421 unless the host is
//                                 "OPID-dsdata-REGION.INSTANCE" of the token's
//                                 region, 400 when the data's SHA-256 is not the
//                                 bound hash or the data is not a version 2
//                                 package; stores it and answers {}
//   POST /api/v1/sv/session/initialize
//                                 host "OPID-sv.INSTANCE" (else 421, as for every
//                                 "sv/" path); 422 unless "Authorization" holds the
//                                 GID token; opens the device's session (ending
//                                 any earlier one): {"sessionCode","sessionToken"}
//   POST /api/v1/sv/session/terminate, /api/v1/sv/session/suspend,
//        /api/v1/sv/session/resume
//                                 "Authorization" is the bare session token, good
//                                 only with the certificate it was issued to (422
//                                 otherwise, and once the session ended); ends,
//                                 pauses or reactivates the session; answers {}
//   POST /api/v1/sv/command/get   {"seqNum": n}; the long poll: the first queued,
//                                 unanswered task after n as {"seqNum",
//                                 "taskRequest"}, at once or as soon as one is
//                                 queued; 204 after the hold time, on stop, or
//                                 when the session pauses or ends; 422 unless the
//                                 session is active
//   POST /api/v1/sv/command/put   {"taskResponse": text, "seqNum": n}; records
//                                 the answer, answers {"seqNum": answers so far};
//                                 422 unless the session is active, 400 for a
//                                 body that is not JSON or a taskResponse that is
//                                 not a text
//   GET  /api/v1/sv/speedtest/download[?size=N]
//                                 N bytes (default 102400, at most 64 MiB)
//   POST /api/v1/sv/speedtest/upload
//                                 reads the body, answers {"bytes": its size}
//   any  /test/method             answers the method text exactly as received
//   any  /test/bytes/N            answers N bytes ("application/octet-stream")
//   any  /api/v1/drmp/...        the DRMP paths, see DrmpService
//   anything else                 404
//
// All public operations are thread-safe. stop() (also run by the destructor)
// wakes delayed and stalled answers and joins every thread.
class Backend {
 public:
  using RouteHandler = std::function<void(const RecordedRequest&, Reply&)>;

  Backend(const TestPki& pki, BackendOptions options = BackendOptions());
  ~Backend();
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;

  // Binds and starts serving; false (reason in *error) when the TLS set-up or
  // the bind fails. A start after a stop binds the port of the first start
  // again, so device certificates that name it stay good: a back end that
  // was down comes back.
  bool start(std::string* error = nullptr);
  void stop();
  int port() const;
  // "https://OPID-da.lum.localhost:PORT", the base the agent derives from the
  // device certificate "OPID.lum.localhost:PORT".
  std::string baseUrl(const std::string& opid) const;

  // TLS behaviour; takes effect for new connections.
  void setOcspMode(OcspMode mode);
  bool setServerCert(ServerCertKind kind, std::string* error = nullptr);
  bool setTlsRange(TlsVersion minVersion, TlsVersion maxVersion, std::string* error = nullptr);

  // Routes (exact path, or a prefix for addPrefixRoute); a later one replaces
  // an earlier one of the same path. Handlers run on connection threads
  // without any back-end lock held.
  void addRoute(const std::string& path, RouteHandler handler);
  void addPrefixRoute(const std::string& prefix, RouteHandler handler);

  // Control of the core answers. Pushed values go to every device: each device
  // gets them in its next "da/state" answer, with a bumped sequence number.
  void pushTunables(const LumJson::Value& members);  // merged into the state answer
  void setAllowedDataItemIds(const std::vector<std::string>& ids);
  void setConsentUrl(const std::string& url);
  void queueEvent(const std::string& event, uint32_t id = 0, const std::string& parameters = "");
  void setSynchronizedAnswer(bool synchronized);  // "daSynchronized" (default true)
  // Forgets the device's token (all devices when `commonName` is empty), so
  // its next state or notification call is answered 422.
  void revokeGidToken(const std::string& commonName = "");
  bool device(const std::string& commonName, DeviceView* view) const;
  std::vector<std::string> deviceNames() const;

  // Data services. The region names the upload host of tokens issued from
  // now on; false (and no change) unless it is a DNS label.
  bool setUploadRegion(const std::string& region);
  std::string uploadRegion() const;
  // "https://OPID-ds.lum.localhost:PORT" and
  // "https://OPID-dsdata-REGION.lum.localhost:PORT".
  std::string dsBaseUrl(const std::string& opid) const;
  std::string dsDataBaseUrl(const std::string& opid, const std::string& region) const;
  unsigned uploadTokensIssued() const;
  std::vector<ReceivedPackage> packages() const;
  // Every item of every accepted package, in arrival order.
  std::vector<LumJson::Value> dataItems() const;
  bool waitForPackages(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForDataItems(size_t n, std::chrono::milliseconds timeout) const;

  // Support view. "https://OPID-sv.lum.localhost:PORT".
  std::string svBaseUrl(const std::string& opid) const;
  // Takes effect for polls that arrive from now on.
  void setLongPollHold(std::chrono::milliseconds hold);
  // Queue a task for the device's open (active or suspended) session: the
  // task document's "REQUESTS" array as given, or one command. Returns the
  // task's seqNum, which is also its "TASK_ID"; 0 when the device has no
  // open session (or `requests` is not an array).
  uint32_t queueTask(const std::string& commonName, const LumJson::Value& requests);
  uint32_t queueCommand(const std::string& commonName, const std::string& name,
                        const std::string& operation = "EXECUTE",
                        const LumJson::Value& inputs = LumJson::Value(LumJson::objectValue));
  // False when the device never made a support-view call.
  bool supportSession(const std::string& commonName, SupportSessionView* view) const;
  // Task answers in arrival order, of one device or (empty name) of all.
  std::vector<TaskAnswer> taskAnswers(const std::string& commonName = "") const;
  bool waitForTaskAnswers(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForSessionState(const std::string& commonName, SupportSessionState state,
                           std::chrono::milliseconds timeout) const;
  // Until at least n of the device's gets are being held.
  bool waitForHeldPolls(const std::string& commonName, unsigned n,
                        std::chrono::milliseconds timeout) const;
  // Ends the device's open session, as a support agent hanging up: a held
  // poll answers 204 and every later call with its token 422. False when it
  // had none.
  bool endSession(const std::string& commonName);

  // DRMP: the objects every device should hold and the reports received
  // (see DrmpService for the paths under "/api/v1/drmp/").
  DrmpService& drmp() { return *drmp_; }
  // Software update: "https://OPID-su.lum.localhost:PORT" (UpdateService).
  UpdateService& updates() { return updates_; }

  // Faults, per path ("/api/v1/da/state") or "*" for every path.
  void injectFault(const std::string& path, const Fault& fault);
  // The next `count` connections (negative: until cleared) that ask for the
  // host `serverName` ("acme-da.lum.localhost") during the handshake.
  void injectConnectionFault(const std::string& serverName, ConnectionFault fault, int count = 1);
  void clearFaults();  // both kinds
  // Faults of either kind applied so far; waits until at least n.
  unsigned faultsTaken() const;
  bool waitForFaultsTaken(unsigned n, std::chrono::milliseconds timeout) const;

  // The record of requests.
  std::vector<RecordedRequest> requests() const;
  std::vector<RecordedRequest> requestsTo(const std::string& path) const;
  size_t requestCount() const;
  size_t requestCount(const std::string& path) const;
  void clearRequests();
  // Wait until at least n requests (to `path`, when given) have arrived.
  bool waitForRequests(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForRequests(const std::string& path, size_t n, std::chrono::milliseconds timeout) const;
  // Wait until at least n requests have been answered (status set).
  bool waitForAnswers(size_t n, std::chrono::milliseconds timeout) const;

 private:
  struct DeviceRecord {
    std::string gidToken;
    LumJson::Value reportedState;
    uint32_t opidSeqNum = 1;
    uint32_t gidSeqNum = 0;
    uint64_t deliveredConfig = 0;  // configVersion_ last delivered
    size_t deliveredEvents = 0;    // events_ delivered so far
    unsigned tokensIssued = 0;
    unsigned stateCalls = 0;
    unsigned notificationCalls = 0;
    unsigned uploadTokensIssued = 0;
  };
  struct RouteEntry {
    std::string path;
    bool prefix = false;
    RouteHandler handler;
  };

  void installCoreRoutes();
  void handle(RecordedRequest& request, Reply& reply);
  bool applyFault(const RecordedRequest& request, Reply& reply);
  bool takeFault(const std::string& path, Fault* fault);
  ConnectionFault takeConnectionFault(const std::string& serverName);
  void countFaultTaken();
  bool waitUnlessStopping(std::chrono::milliseconds duration);
  RouteHandler findRoute(const std::string& path) const;
  void recordArrival(RecordedRequest& request);
  void recordAnswer(const RecordedRequest& request, int status);

  void handleGidToken(const RecordedRequest& request, Reply& reply);
  void handleState(const RecordedRequest& request, Reply& reply);
  void handleNotification(const RecordedRequest& request, Reply& reply);
  void handleUploadToken(const RecordedRequest& request, Reply& reply);
  void handleUploadPackage(const RecordedRequest& request, Reply& reply);
  void handleSupport(const std::string& path, const RecordedRequest& request, Reply& reply);
  DeviceRecord& deviceFor(const std::string& commonName);
  bool authorized(const RecordedRequest& request, DeviceRecord** device);
  bool deliveryPending(const DeviceRecord& device) const;
  LumJson::Value stateAnswer(const std::string& commonName, DeviceRecord& device);

  TlsSettings tlsSettings() const;
  std::string ocspDer() const;
  bool reconfigureTls(std::string* error);

  const TestPki& pki_;  // immutable, outlives the back end
  const BackendOptions options_;

  // lifeMutex_ serialises start(), stop() and the TLS set-up; it guards the
  // members up to port_.
  mutable std::mutex lifeMutex_;
  std::unique_ptr<TlsServer> server_;
  ServerCertKind serverCert_;
  OcspMode ocspMode_;
  TlsVersion minTls_;
  TlsVersion maxTls_;
  int port_ = 0;

  mutable std::mutex stopMutex_;
  std::condition_variable stopCv_;  // wakes delayed answers on stop
  bool stopping_ = false;           // guarded by stopMutex_

  mutable std::mutex routeMutex_;
  std::vector<RouteEntry> routes_;  // guarded by routeMutex_

  // Everything below is guarded by stateMutex_.
  mutable std::mutex stateMutex_;
  std::map<std::string, DeviceRecord> devices_;
  LumJson::Value pushedTunables_{LumJson::objectValue};
  bool allowedIdsSet_ = false;
  std::vector<std::string> allowedIds_;
  std::string consentUrl_;
  bool consentUrlSet_ = false;
  uint64_t configVersion_ = 0;                  // bumped by every push of tunables, ids or URL
  LumJson::Value events_{LumJson::arrayValue};  // every queued event, in order
  bool synchronizedAnswer_ = true;
  unsigned long tokenCounter_ = 0;
  std::map<std::string, Fault> faults_;
  std::map<std::string, std::pair<ConnectionFault, int>> connectionFaults_;
  unsigned faultsTaken_ = 0;  // guarded by recordMutex_, signalled through recordCv_
  std::string uploadRegion_ = "eu1";

  // The record, guarded by recordMutex_; recordCv_ signals arrivals and answers.
  mutable std::mutex recordMutex_;
  mutable std::condition_variable recordCv_;
  std::vector<RecordedRequest> records_;
  unsigned long nextSequence_ = 1;

  // Upload tokens and received packages; guarded by its own mutex, and never
  // called with stateMutex_ held.
  UploadLedger uploads_;
  // Support sessions, tasks and answers; likewise self-locking and never
  // called with stateMutex_ held, since a get waits inside it.
  SupportSessions sessions_;
  std::unique_ptr<DrmpService> drmp_;  // self-locking, never called with stateMutex_ held
  UpdateService updates_;
};

}  // namespace Tools
}  // namespace Lum
