#include <gtest/gtest.h>
#include <time.h>

#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "Base/QueueManager.h"
#include "Platform/Clock.h"
#include "Platform/JsonUtil.h"
#include "Platform/Sha256Util.h"

namespace {

using Lum::Ds::QueueManager;

class FixedClock : public Lum::Core::Clock {
 public:
  timespec wall() const override { return now; }
  timespec now{1614834367, 89500000};  // 2021-03-04T05:06:07.0895Z
};

// An item that already has its time, so it is stored unchanged, padded to
// exactly `size` bytes (at least 32 for the one-letter id "a").
std::string Item(size_t size, const std::string& id = "a") {
  const std::string head = R"({"dateTime":"d","id":")" + id + R"(","p":")";
  return head + std::string(size - head.size() - 2, 'x') + "\"}";
}

std::string Package(unsigned dropped, unsigned rejected, const std::string& items) {
  return "{\"version\":2,\"dropped\":" + std::to_string(dropped) +
         ",\"rejected\":" + std::to_string(rejected) + ",\"dataItems\":[" + items + "]}";
}

class QueueManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Lum::Core::Clock::Set(&clock_); }
  void TearDown() override { Lum::Core::Clock::Set(nullptr); }
  FixedClock clock_;
};

TEST_F(QueueManagerTest, AdmitsAllowedObjectsAndStampsThoseWithoutATime) {
  const std::string deep =
      R"({"id":"a","v":)" + std::string(5000, '[') + std::string(5000, ']') + "}";
  const std::pair<std::string, std::string> cases[] = {
      // The text given, and the item as packaged ("" when it is rejected).
      {R"({"id":"a", "v": [1, 2]})",
       R"({"dateTime":"2021-03-04T05:06:07.089Z","id":"a","v":[1,2]})"},
      {R"({"id":"a","dateTime":"kept"})", R"({"dateTime":"kept","id":"a"})"},
      {R"({"id":"a","dateTime":null})", R"({"dateTime":null,"id":"a"})"},
      {R"({"id":"x"})", ""},
      {R"({"id":5})", ""},
      {R"(["a"])", ""},
      {R"({"id":"a"} tail)", ""},
      {R"({"id":"a","id":"a"})", ""},
      {deep, ""},
      {std::string(100000, '['), ""},
      // Bytes the writer would replace: the item would not arrive as given.
      {"{\"id\":\"a\",\"v\":\"x\xC3\"}", ""},
      {"{\"id\":\"a\",\"\xED\xA0\x80\":1}", ""},
      {"{\"id\":\"a\",\"v\":\"\xC3\xA9\"}",
       "{\"dateTime\":\"2021-03-04T05:06:07.089Z\",\"id\":\"a\",\"v\":\"\\u00e9\"}"},
  };
  for (const auto& [text, item] : cases) {
    SCOPED_TRACE(text.substr(0, 40));
    QueueManager queue(100000);
    queue.setAllowedDataItemIds({"a", "b"});
    EXPECT_EQ(!item.empty(), queue.queueDataItem(text.c_str()));
    queue.hashPackage();
    EXPECT_EQ(Package(0, item.empty(), item), queue.marshalPackage());
  }
}

// The fast date path against gmtime_r over four centuries of days, and the
// edges that need wide fields.
TEST_F(QueueManagerTest, StampsAreUtcWithMilliseconds) {
  QueueManager queue(1 << 20);
  queue.setAllowedDataItemIds({"a"});
  auto stampAt = [&](time_t seconds, long nanos) {
    clock_.now = {seconds, nanos};
    queue.queueDataItem(R"({"id":"a"})");
    queue.hashPackage();
    LumJson::Value package;
    EXPECT_TRUE(Lum::Core::JsonUtil::ParseStrict(queue.marshalPackage(), package));
    queue.releasePackage();
    return package["dataItems"][0]["dateTime"].asString();
  };
  for (time_t t = -2208988800LL; t < 10413792000LL; t += 86400 * 37 + 3601 * 5 + 7) {
    tm parts{};
    char expected[64];
    std::strftime(expected, sizeof expected, "%Y-%m-%dT%H:%M:%S.999Z", gmtime_r(&t, &parts));
    ASSERT_EQ(expected, stampAt(t, 999999999)) << t;
  }
  EXPECT_EQ("2000-02-29T23:59:59.000Z", stampAt(951868799, 999999));
  EXPECT_EQ("1969-12-31T23:59:59.001Z", stampAt(-1, 1000000));
  EXPECT_EQ("10000-01-01T00:00:00.000Z", stampAt(253402300800LL, 0));
}

TEST_F(QueueManagerTest, BytesAreBoundedByHalfTheConfiguredLimit) {
  const struct {
    uint32_t maximumDataBytes;
    std::vector<size_t> sizes;
    size_t accepted;  // the first `accepted` items fit, the rest are dropped
    uint32_t fillPercent;
  } cases[] = {
      {200, {60, 40, 32}, 2, 100},
      {201, {60, 41}, 1, 60},
      {0, {32}, 0, 100},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.maximumDataBytes);
    QueueManager queue(c.maximumDataBytes);
    queue.setAllowedDataItemIds({"a"});
    uint32_t held = 0;
    for (size_t i = 0; i < c.sizes.size(); ++i) {
      EXPECT_EQ(i < c.accepted, queue.queueDataItem(Item(c.sizes[i]).c_str())) << c.sizes[i];
      held += i < c.accepted ? c.sizes[i] : 0;
    }
    EXPECT_EQ(held, queue.getCurrentBytes());
    EXPECT_TRUE(queue.isAggressive(c.fillPercent));
    EXPECT_FALSE(queue.isAggressive(c.fillPercent + 1));
  }
}

// A pending package is announced again unchanged; a requeue puts its items
// back in front and sums both periods' counts; a release gives bytes back.
TEST_F(QueueManagerTest, PackageLifecycle) {
  QueueManager queue(520);
  queue.setAllowedDataItemIds({"a"});
  queue.queueDataItem(Item(100).c_str());
  queue.queueDataItem(Item(90).c_str());
  queue.queueDataItem(Item(80).c_str());  // no room
  queue.queueDataItem("{");
  const std::string hash = queue.hashPackage();
  const std::string package = queue.marshalPackage();
  EXPECT_EQ(Package(1, 1, Item(100) + "," + Item(90)), package);
  std::string digest;
  Lum::Core::Sha256Util::Hash(package, digest);
  EXPECT_EQ(digest, hash);

  queue.queueDataItem(Item(33).c_str());
  queue.queueDataItem(Item(50).c_str());  // no room
  queue.queueDataItem(R"({"id":"b"})");
  EXPECT_EQ(hash, queue.hashPackage());
  EXPECT_EQ(package, queue.marshalPackage());

  queue.requeuePackage();
  EXPECT_EQ(223u, queue.getCurrentBytes());
  EXPECT_NE(hash, queue.hashPackage());
  EXPECT_EQ(Package(2, 2, Item(100) + "," + Item(90) + "," + Item(33)), queue.marshalPackage());
  queue.queueDataItem(Item(37).c_str());
  queue.releasePackage();
  EXPECT_EQ(37u, queue.getCurrentBytes());
  EXPECT_TRUE(queue.queueDataItem(Item(223).c_str()));
}

// Withdrawn ids leave the queue at once, but never the announced package;
// its items are filtered only when it comes back. Removed bytes stay counted
// until the next release.
TEST_F(QueueManagerTest, WithdrawnIdsSpareThePendingPackageUntilRequeued) {
  QueueManager queue(1000);
  queue.setAllowedDataItemIds({"a", "b"});
  queue.queueDataItem(Item(40, "a").c_str());
  queue.queueDataItem(Item(41, "b").c_str());
  queue.hashPackage();
  const std::string package = queue.marshalPackage();
  queue.queueDataItem(Item(42, "b").c_str());
  queue.queueDataItem(Item(43, "a").c_str());

  queue.setAllowedDataItemIds({"a", "c"});
  EXPECT_EQ(1u, queue.getQueuedCount());
  EXPECT_EQ(package, queue.marshalPackage());
  EXPECT_EQ(166u, queue.getCurrentBytes());

  queue.requeuePackage();
  queue.hashPackage();
  EXPECT_EQ(Package(0, 0, Item(40, "a") + "," + Item(43, "a")), queue.marshalPackage());
  queue.releasePackage();
  EXPECT_EQ(0u, queue.getCurrentBytes());
}

// With nothing queued and no package, no release will come to give removed
// bytes back, so they must not linger and crowd out later items.
TEST_F(QueueManagerTest, WithdrawingEveryQueuedItemGivesItsRoomBack) {
  QueueManager queue(200);  // a bound of 100 bytes
  queue.setAllowedDataItemIds({"a", "b"});
  ASSERT_TRUE(queue.queueDataItem(Item(60, "a").c_str()));
  queue.setAllowedDataItemIds({"b"});
  EXPECT_EQ(0u, queue.getQueuedCount());
  EXPECT_EQ(0u, queue.getCurrentBytes());
  EXPECT_TRUE(queue.queueDataItem(Item(100, "b").c_str()));
}

TEST_F(QueueManagerTest, AStoredPackageReadsBackThroughAdmission) {
  const std::string text = Package(1, 2, Item(40, "a") + "," + Item(40, "b"));
  QueueManager same(1000);
  same.setAllowedDataItemIds({"a", "b"});
  EXPECT_TRUE(same.unmarshalPackage(text));
  same.hashPackage();
  EXPECT_EQ(text, same.marshalPackage());

  QueueManager narrower(80);  // room for one item, and "b" withdrawn
  narrower.setAllowedDataItemIds({"a"});
  EXPECT_TRUE(narrower.unmarshalPackage(
      Package(3, 4, Item(40, "b") + "," + Item(40, "a") + "," + Item(40, "a"))));
  narrower.hashPackage();
  EXPECT_EQ(Package(4, 5, Item(40, "a")), narrower.marshalPackage());

  const std::string ignored[] = {
      R"({"version":1,"dropped":0,"rejected":0,"dataItems":[{"id":"a"}]})",
      text.substr(0, text.size() - 1),
  };
  for (const std::string& t : ignored) {
    SCOPED_TRACE(t);
    QueueManager queue(1000);
    queue.setAllowedDataItemIds({"a"});
    EXPECT_FALSE(queue.unmarshalPackage(t));
    queue.hashPackage();
    EXPECT_EQ(Package(0, 0, ""), queue.marshalPackage());
  }
}

}  // namespace
