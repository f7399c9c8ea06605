// Data items as the host submits them (LumSubmitDataItem hands each text to
// the queue), then a restart: the queue stored as the data services manager
// stores it at a stop and read into a fresh queue as at the next start.
//
// Input: byte 0 sets the queue's bound (maximumDataBytes = 256 << (b % 8)),
// the rest is split at '\n' into submissions. Two lines are actions instead:
// "!p" builds the upload package (it stays pending, as while a token is
// bought), "!q" puts a pending package back in front of the queue. The ids
// "a", "b" and "LUM_TEST_ITEM" are allowed.
// Properties: after the restart the queue holds every accepted item, in the
// order accepted, unchanged but for the time stamp added to an item without
// one (so an item whose text would not be written back as given is refused); every refused
// submission is counted as dropped or rejected; and a second restart gives back the stored text
// byte for byte.
#include <cstdint>
#include <string>
#include <vector>

#include "Base/QueueManager.h"
#include "Platform/JsonUtil.h"
#include "fuzz/FuzzSupport.h"

using Lum::Ds::QueueManager;
using LumFuzz::Fail;

namespace {

const std::set<std::string> kAllowed = {"a", "b", "LUM_TEST_ITEM"};

// What DataServicesManager::storeQueueFile writes.
std::string Stored(QueueManager& queue) {
  if (queue.isPackagePending()) {
    queue.requeuePackage();
  }
  queue.hashPackage();
  return queue.marshalPackage();
}

// An accepted item must survive being written and read again unchanged
// (text that is not UTF-8 would come back with U+FFFD in its place).
bool WritesBackExactly(const LumJson::Value& item) {
  LumJson::Value back;
  return Lum::Core::JsonUtil::ParseStrict(Lum::Core::JsonUtil::WriteCompact(item), back) &&
         back == item;
}

LumJson::Value WithoutStamp(LumJson::Value item) {
  item.removeMember("dateTime");
  return item;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LumFuzz::FixedClock::Install();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const uint32_t bound = 256u << (data[0] % 8);
  QueueManager queue(bound);
  queue.setAllowedDataItemIds(kAllowed);
  std::vector<LumJson::Value> accepted;
  unsigned refused = 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  size_t start = 0;
  while (start <= input.size()) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) {
      end = input.size();
    }
    const std::string line = input.substr(start, end - start);
    start = end + 1;
    if (line == "!p") {
      queue.hashPackage();
    } else if (line == "!q") {
      if (queue.isPackagePending()) {
        queue.requeuePackage();
      }
    } else if (queue.queueDataItem(line.data(), line.size())) {
      LumJson::Value item;
      if (!Lum::Core::JsonUtil::ParseStrict(line, item)) {
        Fail("an item that is not strict JSON was accepted: " + line);
      }
      accepted.push_back(item);
    } else {
      ++refused;
    }
  }

  const std::string stored = Stored(queue);
  if (queue.getCurrentBytes() > bound / 2) {
    Fail("the queue holds more bytes than its bound");
  }
  QueueManager restarted(bound);
  restarted.setAllowedDataItemIds(kAllowed);
  if (!restarted.unmarshalPackage(stored)) {
    Fail("the stored queue is not readable: " + stored);
  }
  const std::string again = Stored(restarted);
  if (again != stored) {
    Fail("a second restart changed the stored queue:\n" + stored + "\n" + again);
  }

  LumJson::Value package;
  if (!Lum::Core::JsonUtil::ParseStrict(stored, package)) {
    Fail("the stored queue is not JSON");
  }
  const LumJson::Value& items = package["dataItems"];
  if (items.size() != accepted.size()) {
    Fail("the restart kept " + std::to_string(items.size()) + " of " +
         std::to_string(accepted.size()) + " accepted items");
  }
  for (LumJson::ArrayIndex i = 0; i < items.size(); ++i) {
    const LumJson::Value& item = items[i];
    const bool hadStamp = accepted[i].isMember("dateTime");
    if (!WritesBackExactly(accepted[i])) {
      Fail("item " + std::to_string(i) + " would not be stored as given");
    }
    if ((!hadStamp && !item["dateTime"].isString()) ||
        (hadStamp ? item != accepted[i] : WithoutStamp(item) != accepted[i])) {
      Fail("item " + std::to_string(i) + " changed across the restart");
    }
  }
  if (package["dropped"].asUInt() + package["rejected"].asUInt() != refused) {
    Fail("refused submissions are not all counted");
  }
  return 0;
}
