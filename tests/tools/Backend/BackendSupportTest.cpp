#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Milliseconds, so that a failed comparison prints numbers.
long long Ms(Clock::duration duration) {
  return std::chrono::duration_cast<milliseconds>(duration).count();
}

constexpr const char* kInitBody = R"({"allowSessionCodeBypass":false,"timeoutMs":60000})";
constexpr const char* kCommand = "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS";

// Support-view calls shaped as the agent sends them, to the "-sv" host.
class BackendSupportTest : public BackendTest {
 protected:
  Http::Response sv(const std::string& path, const std::string& token,
                    const std::string& body = "null", const std::string& base = "") const {
    return call(Http::POST, "/api/v1/sv/" + path, token, body, 20000,
                base.empty() ? backend_->svBaseUrl(kOpid) : base);
  }
  Http::Response get(const std::string& token, uint32_t seqNum) const {
    return sv("command/get", token, "{\"seqNum\":" + std::to_string(seqNum) + "}");
  }
  Http::Response put(const std::string& token, const std::string& taskResponse) const {
    LumJson::Value body(LumJson::objectValue);
    body["taskResponse"] = taskResponse;
    body["seqNum"] = 0;
    return sv("command/put", token, body.toStyledString());
  }
  // Registers the device and opens its session; returns the session token.
  std::string openSession() const {
    Http::Response response = sv("session/initialize", registerDevice(), kInitBody);
    EXPECT_EQ(response.statusCode, 200) << response.body;
    return Parse(response.body)["sessionToken"].asString();
  }
  // A get on a thread of its own: its answer and when that came.
  struct Poll {
    Http::Response response;
    Clock::time_point answeredAt;
    std::thread thread;
  };
  void startPoll(Poll* poll, const std::string& token, uint32_t seqNum) const {
    poll->thread = std::thread([=] {
      poll->response = get(token, seqNum);
      poll->answeredAt = Clock::now();
    });
  }
};

TEST_F(BackendSupportTest, InitializeNeedsTheGidTokenAndTheSupportHostAndBindsTheTokenToTheCn) {
  const std::string stale = registerDevice();
  const std::string gid = registerDevice();
  const struct {
    const char* what;
    std::string authorization, base;
    long status;
  } cases[] = {
      {"no GID token", "", "", 422},
      {"replaced GID token", stale, "", 422},
      {"core host", gid, backend_->baseUrl(kOpid), 421},
      {"right", gid, "", 200},
  };
  std::string token;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Http::Response response = sv("session/initialize", c.authorization, kInitBody, c.base);
    EXPECT_EQ(response.statusCode, c.status) << response.body;
    token = Parse(response.body)["sessionToken"].asString();
    EXPECT_EQ(token.empty(), c.status != 200);
  }
  SupportSessionView view;
  ASSERT_TRUE(backend_->supportSession(device_.commonName, &view));
  EXPECT_EQ(view.state, SupportSessionState::Active);
  EXPECT_EQ(view.token, token);
  EXPECT_EQ(view.code.find_first_not_of("0123456789"), std::string::npos);
  EXPECT_EQ(view.code.size(), 6u);
  EXPECT_EQ(view.calls["sv/session/initialize"], 3u);  // the wrong hosts do not count

  // Another device presenting this token, on its own host, is refused.
  DeviceIdentity other;
  const std::string otherOpid = "LUMOTHER";
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName(otherOpid, backend_->port()), &other,
                                TestPki::kDefaultPassPhrase, KeyType::EcP256));
  Http::Request request = deviceRequest(backend_->svBaseUrl(otherOpid) + "/api/v1/sv/command/get");
  request.clientCertificate = other.certPem.c_str();
  request.clientKey = other.keyPem.c_str();
  request.headers = {"Content-Type: application/json", "Authorization: " + token};
  request.body = R"({"seqNum":0})";
  EXPECT_EQ(Perform(request).statusCode, 422);

  // A new session replaces the old one, whose token is then unknown.
  const std::string second = openSession();
  EXPECT_NE(second, token);
  EXPECT_EQ(sv("session/suspend", token).statusCode, 422);
  EXPECT_EQ(sv("session/suspend", second).statusCode, 200);
}

TEST_F(BackendSupportTest, GetIsHeldUntilATaskIsQueuedOrTheHoldEndsOrTheBackEndStops) {
  const std::string token = openSession();
  backend_->setLongPollHold(milliseconds(300));
  const Clock::time_point start = Clock::now();
  Http::Response quiet = get(token, 0);
  EXPECT_EQ(quiet.statusCode, 204);
  EXPECT_EQ(quiet.body, "");
  EXPECT_GE(Ms(Clock::now() - start), 300);

  backend_->setLongPollHold(seconds(10));
  Poll poll;
  startPoll(&poll, token, 0);
  EXPECT_TRUE(backend_->waitForHeldPolls(device_.commonName, 1, seconds(10)));
  EXPECT_EQ(call(Http::GET, "/test/method").body, "GET");  // not blocked by the held poll
  const Clock::time_point queuedAt = Clock::now();
  EXPECT_EQ(backend_->queueCommand(device_.commonName, kCommand), 1u);
  poll.thread.join();
  ASSERT_EQ(poll.response.statusCode, 200) << poll.response.body;
  EXPECT_GT(poll.answeredAt, queuedAt);
  EXPECT_LT(Ms(poll.answeredAt - queuedAt), 5000);  // released, not timed out

  SupportSessionView view;
  ASSERT_TRUE(backend_->supportSession(device_.commonName, &view));
  const LumJson::Value delivery = Parse(poll.response.body);
  EXPECT_EQ(delivery["seqNum"].asUInt(), 1u);
  const LumJson::Value task = Parse(delivery["taskRequest"].asString());
  EXPECT_EQ(task["SESSION_ID"].asString(), view.sessionId);
  EXPECT_EQ(task["TASK_ID"].asUInt(), 1u);
  EXPECT_EQ(task["REQUESTS"], Parse(std::string("[{\"COMMAND\":{\"NAME\":\"") + kCommand +
                                    "\",\"OPERATION\":\"EXECUTE\",\"VERSION\":0},\"INPUTS\":{}}]"));
  EXPECT_EQ(view.lastDeliveredSeqNum, 1u);

  // A device that has seen task 1 waits; stop() ends the wait at once.
  Poll held;
  startPoll(&held, token, 1);
  EXPECT_TRUE(backend_->waitForHeldPolls(device_.commonName, 1, seconds(10)));
  const Clock::time_point stopAt = Clock::now();
  backend_->stop();
  EXPECT_LT(Ms(Clock::now() - stopAt), 3000);
  held.thread.join();
  EXPECT_LT(Ms(held.answeredAt - stopAt), 3000);
}

TEST_F(BackendSupportTest, SuspendedSessionsResumeByTokenAndTakeNoTasksMeanwhile) {
  const std::string token = openSession();
  ASSERT_EQ(backend_->queueCommand(device_.commonName, kCommand), 1u);
  backend_->setLongPollHold(seconds(10));
  Poll poll;
  startPoll(&poll, token, 1);
  EXPECT_TRUE(backend_->waitForHeldPolls(device_.commonName, 1, seconds(10)));
  const Clock::time_point suspendAt = Clock::now();
  Http::Response suspended = sv("session/suspend", token);
  poll.thread.join();
  EXPECT_EQ(suspended.body, "{}");
  EXPECT_EQ(poll.response.statusCode, 204);  // the pause ended the held poll
  EXPECT_LT(Ms(poll.answeredAt - suspendAt), 5000);
  EXPECT_TRUE(backend_->waitForSessionState(device_.commonName, SupportSessionState::Suspended,
                                            seconds(1)));
  EXPECT_EQ(get(token, 0).statusCode, 422);
  EXPECT_EQ(put(token, "{}").statusCode, 422);

  // Each call is a new connection, as after an agent restart.
  EXPECT_EQ(sv("session/resume", token, R"({"timeoutMs":180000})").body, "{}");  // i.e. 200
  Http::Response delivery = get(token, 0);
  ASSERT_EQ(delivery.statusCode, 200);
  const LumJson::Value task = Parse(Parse(delivery.body)["taskRequest"].asString());

  EXPECT_EQ(sv("command/put", token + "x", R"({"taskResponse":"{}","seqNum":0})").statusCode, 422);
  EXPECT_EQ(sv("command/put", token, "taskResponse=x").statusCode, 400);
  EXPECT_EQ(sv("command/put", token, R"({"taskResponse":{},"seqNum":0})").statusCode, 400);
  const std::string answer = "{\"SESSION_ID\":\"" + task["SESSION_ID"].asString() +
                             "\",\"TASK_ID\":1,\"TASK_OUTPUT\":{\"RESPONSES\":[]}}";
  Http::Response accepted = put(token, answer);
  EXPECT_EQ(accepted.statusCode, 200);
  EXPECT_EQ(Parse(accepted.body)["seqNum"].asUInt(), 1u);
  ASSERT_TRUE(backend_->waitForTaskAnswers(1, seconds(1)));
  const TaskAnswer received = backend_->taskAnswers(device_.commonName).at(0);
  EXPECT_EQ(received.taskId, 1u);
  EXPECT_EQ(received.sessionId, task["SESSION_ID"].asString());
  EXPECT_TRUE(received.output["RESPONSES"].isArray());
  EXPECT_EQ(received.text, answer);
  backend_->setLongPollHold(milliseconds(200));
  EXPECT_EQ(get(token, 0).statusCode, 204);  // an answered task is not handed out again

  // Ended by the device or by the back end: the token is dead.
  EXPECT_EQ(sv("session/terminate", token).body, "{}");
  EXPECT_EQ(sv("session/resume", token, "{}").statusCode, 422);
  const std::string next = openSession();
  EXPECT_TRUE(backend_->endSession(device_.commonName));
  EXPECT_EQ(get(next, 0).statusCode, 422);
  EXPECT_EQ(backend_->queueCommand(device_.commonName, kCommand), 0u);
}

TEST_F(BackendSupportTest, SessionsIdleBeyondTheirLimitExpireWhenAsked) {
  const int port = backend_->port();
  backend_.reset();
  BackendOptions options;
  options.port = port;
  options.expireSessions = true;
  backend_ = std::make_unique<Backend>(*pki_, options);
  ASSERT_TRUE(backend_->start());
  Http::Response opened = sv("session/initialize", registerDevice(),
                             R"({"allowSessionCodeBypass":true,"timeoutMs":100})");
  const std::string token = Parse(opened.body)["sessionToken"].asString();
  backend_->injectFault("/api/v1/sv/command/get", Fault{1, milliseconds(300)});
  EXPECT_EQ(get(token, 0).statusCode, 422);
  EXPECT_TRUE(
      backend_->waitForSessionState(device_.commonName, SupportSessionState::Ended, seconds(1)));
}

}  // namespace
}  // namespace LumTest
