#include "Base/QueueManager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>

#include "Platform/Clock.h"
#include "Platform/Logger.h"
#include "Platform/Sha256Util.h"
#include "Platform/StringUtil.h"

LUM_SOURCE_FILE("Base/QueueManager");

namespace Lum {
namespace Ds {

namespace {

using FP = Core::FilterProperties;

constexpr char kIdKey[] = "id";
constexpr char kDateTimeKey[] = "dateTime";
constexpr uint32_t kPackageVersion = 2;
constexpr size_t kHeaderBufferSize = 1024;
constexpr long long kSecondsPerDay = 86400;

const LumJson::Value* Member(const LumJson::Value& object, const char* key) {
  return object.find(key, key + std::strlen(key));
}

struct CivilDate {
  long long year;
  unsigned month;  // 1-12
  unsigned day;    // 1-31
};

// Days since 1970-01-01 to a proleptic Gregorian date, exact for any day
// (Howard Hinnant's algorithm). Doing this here rather than through gmtime_r
// keeps glibc's time-zone lock and snprintf off the per-item path.
CivilDate CivilFromDays(long long days) {
  days += 719468;  // shift the epoch to 0000-03-01
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned monthFromMarch = (5 * dayOfYear + 2) / 153;
  CivilDate date;
  date.day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  date.month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  date.year = static_cast<long long>(yearOfEra) + era * 400 + (date.month <= 2 ? 1 : 0);
  return date;
}

char* PutDigits(char* out, unsigned value, int width) {
  for (int i = width - 1; i >= 0; --i) {
    out[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  return out + width;
}

// Writes `when` as "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ" (UTC, milliseconds)
// into `out` and returns the length.
size_t FormatUtcMilliseconds(const timespec& when, char (&out)[64]) {
  long long seconds = static_cast<long long>(when.tv_sec);
  long long days = seconds / kSecondsPerDay;
  long long secondOfDay = seconds % kSecondsPerDay;
  if (secondOfDay < 0) {
    secondOfDay += kSecondsPerDay;
    days -= 1;
  }
  const CivilDate date = CivilFromDays(days);
  const unsigned hour = static_cast<unsigned>(secondOfDay / 3600);
  const unsigned minute = static_cast<unsigned>(secondOfDay / 60 % 60);
  const unsigned second = static_cast<unsigned>(secondOfDay % 60);
  const long milliseconds = when.tv_nsec / 1000 / 1000;
  if (date.year < 0 || date.year > 9999 || milliseconds < 0 || milliseconds > 999) {
    // Outside what the fixed-width fast path can write; printf widens fields.
    const int length = std::snprintf(
        out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", static_cast<int>(date.year),
        static_cast<int>(date.month), static_cast<int>(date.day), static_cast<int>(hour),
        static_cast<int>(minute), static_cast<int>(second), milliseconds);
    return length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof out - 1);
  }
  char* p = PutDigits(out, static_cast<unsigned>(date.year), 4);
  *p++ = '-';
  p = PutDigits(p, date.month, 2);
  *p++ = '-';
  p = PutDigits(p, date.day, 2);
  *p++ = 'T';
  p = PutDigits(p, hour, 2);
  *p++ = ':';
  p = PutDigits(p, minute, 2);
  *p++ = ':';
  p = PutDigits(p, second, 2);
  *p++ = '.';
  p = PutDigits(p, static_cast<unsigned>(milliseconds), 3);
  *p++ = 'Z';
  *p = '\0';
  return static_cast<size_t>(p - out);
}

// A stored package this version can read: version 2 with both counters and
// an item array. Anything else (an older version included) is ignored whole.
bool IsReadablePackage(const LumJson::Value& root) {
  if (!root.isObject()) {
    return false;
  }
  const LumJson::Value* version = Member(root, "version");
  const LumJson::Value* dropped = Member(root, "dropped");
  const LumJson::Value* rejected = Member(root, "rejected");
  const LumJson::Value* items = Member(root, "dataItems");
  // isInt64 first: a version beyond 2^63 is integral too, and reading it as
  // a signed number throws.
  return version != nullptr && version->isInt64() && version->asInt64() == kPackageVersion &&
         dropped != nullptr && dropped->isUInt() && rejected != nullptr && rejected->isUInt() &&
         items != nullptr && items->isArray();
}

}  // namespace

QueueManager::QueueManager(uint32_t maximumDataBytes) : maximumBytes_(maximumDataBytes >> 1) {
  LUM_TRACE(FP::SERVICE_DS);
  LumJson::CharReaderBuilder builder;
  LumJson::CharReaderBuilder::strictMode(&builder.settings_);
  reader_.reset(builder.newCharReader());
  writer_.omitEndingLineFeed();
}

bool QueueManager::parseStrict(const char* begin, const char* end, LumJson::Value& out) {
  // The reader throws rather than fails when nesting exceeds its depth limit;
  // that item is as malformed as any other and must not escape to the host.
  // Running out of memory is no fault of the item's and goes on to the
  // entry's barrier, which refuses the call.
  if (!Core::StringUtil::IsUtf8(begin, end)) {
    return false;  // it would not be stored as given
  }
  try {
    return reader_->parse(begin, end, &out, nullptr);
  } catch (const LumJson::Exception&) {
    return false;
  }
}

bool QueueManager::queueDataItem(const char* text) {
  return queueDataItem(text, text != nullptr ? std::strlen(text) : 0);
}

bool QueueManager::queueDataItem(const char* text, size_t length) {
  LUM_TRACE(FP::SERVICE_DS);
  LumJson::Value item;
  if (text == nullptr || !parseStrict(text, text + length, item)) {
    ++rejectedQueue_;
    return false;
  }
  const bool queued = queueJsonDataItem(item);
  logStateInfo();
  return queued;
}

bool QueueManager::isAllowed(const LumJson::Value& item) const {
  if (!item.isObject()) {
    return false;
  }
  const LumJson::Value* id = Member(item, kIdKey);
  return id != nullptr && id->isString() && allowedIds_.count(id->asString()) != 0;
}

bool QueueManager::queueJsonDataItem(LumJson::Value& item) {
  LUM_TRACE(FP::SERVICE_DS);
  if (!isAllowed(item)) {
    ++rejectedQueue_;
    return false;
  }
  if (Member(item, kDateTimeKey) == nullptr) {
    char stamp[64];
    const size_t length = FormatUtcMilliseconds(Core::Clock::WallNow(), stamp);
    item[kDateTimeKey] = LumJson::Value(stamp, stamp + length);
  }
  std::string text = writer_.write(item);
  // No eviction: the oldest items are the ones the back end has waited for
  // longest, so a full queue refuses the newcomer instead.
  if (static_cast<uint64_t>(currentBytes_) + text.size() > maximumBytes_) {
    ++droppedQueue_;
    return false;
  }
  currentBytes_ += static_cast<uint32_t>(text.size());
  queueItems_.push_back(std::move(text));
  return true;
}

uint32_t QueueManager::fillPercent() const {
  if (maximumBytes_ == 0) {
    return 100;
  }
  return static_cast<uint32_t>(static_cast<uint64_t>(currentBytes_) * 100 / maximumBytes_);
}

bool QueueManager::isAggressive(uint32_t percentage) const {
  LUM_TRACE(FP::SERVICE_DS);
  return fillPercent() >= percentage;
}

std::string QueueManager::hashPackage() {
  LUM_TRACE(FP::SERVICE_DS);
  // A pending package is announced again unchanged, so the text sent after a
  // later token is byte for byte the one whose hash the back end holds.
  if (package_.empty()) {
    buildPackage();
  }
  return hash_;
}

void QueueManager::buildPackage() {
  droppedPackage_ = droppedQueue_;
  rejectedPackage_ = rejectedQueue_;
  droppedQueue_ = 0;
  rejectedQueue_ = 0;

  char header[kHeaderBufferSize];
  const int written = std::snprintf(
      header, sizeof header, "{\"version\":%u,\"dropped\":%u,\"rejected\":%u,\"dataItems\":[",
      kPackageVersion, droppedPackage_, rejectedPackage_);
  const size_t headerLength = static_cast<size_t>(std::max(written, 0));
  size_t itemBytes = 0;
  for (const std::string& text : queueItems_) {
    itemBytes += text.size();
  }
  // One allocation of the exact size: the package can be half the byte
  // bound, and doubling growth would briefly need twice that.
  package_.reserve(headerLength + itemBytes + queueItems_.size() + 2);
  package_.append(header, headerLength);
  for (size_t i = 0; i < queueItems_.size(); ++i) {
    if (i != 0) {
      package_ += ',';
    }
    package_ += queueItems_[i];
  }
  package_ += "]}";

  if (packageItems_.empty()) {
    packageItems_.swap(queueItems_);
  } else {
    std::move(queueItems_.begin(), queueItems_.end(), std::back_inserter(packageItems_));
    queueItems_.clear();
  }
  packageBytes_ = currentBytes_;
  Core::Sha256Util::Hash(package_, hash_);
  logStateInfo();
}

void QueueManager::releasePackage() {
  LUM_TRACE(FP::SERVICE_DS);
  hash_.clear();
  // Swapped out rather than cleared: clear() would keep the whole package's
  // capacity allocated until the next one is built.
  std::string().swap(package_);
  packageItems_.clear();
  currentBytes_ -= std::min(packageBytes_, currentBytes_);
  packageBytes_ = 0;
  droppedPackage_ = 0;
  rejectedPackage_ = 0;
  packageAllowedIdChanges_ = false;
  forgetBytesWhenEmpty();
  logStateInfo();
}

// Bytes of removed items stay counted until a package is released, which
// keeps the bound conservative; but with nothing queued and nothing pending
// no later release would ever give them back, and the queue would refuse
// items for room it does not use until the next restart.
void QueueManager::forgetBytesWhenEmpty() {
  if (queueItems_.empty() && package_.empty()) {
    currentBytes_ = 0;
  }
}

void QueueManager::requeuePackage() {
  LUM_TRACE(FP::SERVICE_DS);
  hash_.clear();
  std::string().swap(package_);
  // The package's items are older than anything queued since, so they go
  // back in front.
  if (queueItems_.empty()) {
    queueItems_.swap(packageItems_);
  } else {
    queueItems_.insert(queueItems_.begin(), std::make_move_iterator(packageItems_.begin()),
                       std::make_move_iterator(packageItems_.end()));
  }
  packageItems_.clear();
  packageBytes_ = 0;
  droppedQueue_ += droppedPackage_;
  rejectedQueue_ += rejectedPackage_;
  droppedPackage_ = 0;
  rejectedPackage_ = 0;
  if (packageAllowedIdChanges_) {
    packageAllowedIdChanges_ = false;
    removeUnacceptableIds();
  }
  logStateInfo();
}

void QueueManager::removeUnacceptableIds() {
  LUM_TRACE(FP::SERVICE_DS);
  // The removed items' bytes stay counted on purpose: currentBytes only
  // shrinks when a package is released, so the bound stays conservative.
  LumJson::Value item;
  const auto kept = std::remove_if(
      queueItems_.begin(), queueItems_.end(), [this, &item](const std::string& text) {
        return !parseStrict(text.data(), text.data() + text.size(), item) || !isAllowed(item);
      });
  queueItems_.erase(kept, queueItems_.end());
  forgetBytesWhenEmpty();
}

void QueueManager::setAllowedDataItemIds(const std::set<std::string>& ids) {
  LUM_TRACE(FP::SERVICE_DS);
  if (ids == allowedIds_) {
    return;
  }
  allowedIds_ = ids;
  removeUnacceptableIds();
  // A pending package was announced by its hash and must go out unchanged;
  // its items are filtered only if it comes back.
  if (!package_.empty()) {
    packageAllowedIdChanges_ = true;
  }
}

bool QueueManager::unmarshalPackage(const std::string& text) {
  LUM_TRACE(FP::SERVICE_DS);
  LumJson::Value root;
  if (!parseStrict(text.data(), text.data() + text.size(), root) || !IsReadablePackage(root)) {
    return false;
  }
  droppedQueue_ += root["dropped"].asUInt();
  rejectedQueue_ += root["rejected"].asUInt();
  // Through the admission rule, so ids withdrawn since the package was
  // stored are rejected and a smaller bound drops what no longer fits.
  for (LumJson::Value& item : root["dataItems"]) {
    queueJsonDataItem(item);
  }
  logStateInfo();
  return true;
}

// The line reads, in order: the queue's fill in percent of the bound; the
// queue's dropped-rejected counts, its item count and its bytes outside the
// package; then the package's dropped-rejected counts, its item count and
// its bytes. Called once per submitted item, so nothing is computed unless
// the line will be written.
void QueueManager::logStateInfo() const {
  LUM_LOG(FP::SERVICE_DS, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "Data State Change:  queue=%02u%% %u-%u %u/%u package=%u-%u %u/%u", fillPercent(),
          droppedQueue_, rejectedQueue_, static_cast<unsigned>(queueItems_.size()),
          currentBytes_ - std::min(packageBytes_, currentBytes_), droppedPackage_, rejectedPackage_,
          static_cast<unsigned>(packageItems_.size()), packageBytes_);
}

}  // namespace Ds
}  // namespace Lum
