#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "Platform/LumJson.h"

namespace Lum {
namespace Ds {

// Holds the host's data items until they are uploaded: admits only the ids
// the back end allows, stamps each item with a time, bounds the bytes held,
// counts what it had to drop or reject, and turns the queue into the package
// text whose hash is announced before the package itself is sent. A package
// that did not arrive is either put back in front of the queue or released,
// as the upload outcome decides; until then it stays as built, so a resend is
// byte for byte the text that was announced.
//
// No lock of its own: every member is guarded by the core mutex
// (CoreManager::getMutex), which every caller holds.
class QueueManager {
 public:
  // The byte bound is half of maximumDataBytes (rounded down); the other
  // half is head room for the package text built from the same items.
  explicit QueueManager(uint32_t maximumDataBytes);

  // Parses `text` strictly and admits it; a text that is not JSON counts as
  // rejected. True when the item was queued.
  bool queueDataItem(const char* text);
  bool queueDataItem(const char* text, size_t length);
  bool queueJsonDataItem(LumJson::Value& item);

  // Items wait that are not yet in a package.
  bool isDataQueued() const { return !queueItems_.empty(); }
  // The bytes held reach `percentage` of the bound.
  bool isAggressive(uint32_t percentage) const;

  // Builds the package unless one is pending, and returns its hash.
  std::string hashPackage();
  const std::string& marshalPackage() const { return package_; }
  void releasePackage();
  void requeuePackage();
  bool isPackagePending() const { return !package_.empty(); }

  void removeUnacceptableIds();
  void setAllowedDataItemIds(const std::set<std::string>& ids);
  // Reads a stored package back into the queue through the admission rule;
  // false when the text is not a package this version can read.
  bool unmarshalPackage(const std::string& text);

  uint32_t getCurrentBytes() const { return currentBytes_; }
  uint32_t getMaximumBytes() const { return maximumBytes_; }
  size_t getQueuedCount() const { return queueItems_.size(); }
  size_t getPackageCount() const { return packageItems_.size(); }

  void logStateInfo() const;

 private:
  bool isAllowed(const LumJson::Value& item) const;
  void buildPackage();
  // Strict parse that also turns jsoncpp's exception for over-deep nesting
  // into a plain failure.
  bool parseStrict(const char* begin, const char* end, LumJson::Value& out);
  void forgetBytesWhenEmpty();
  // The queue's fill in percent of the bound; a zero bound counts as full.
  uint32_t fillPercent() const;

  // Built once for the queue's life: building a reader (with its settings
  // object) or a writer per item would tax every submission.
  std::unique_ptr<LumJson::CharReader> reader_;
  LumJson::FastWriter writer_;

  std::set<std::string> allowedIds_;
  // Compact item texts, oldest first. A deque keeps the per-item overhead
  // near one string header, which matters on a TV's small heap.
  std::deque<std::string> queueItems_;
  std::deque<std::string> packageItems_;
  std::string hash_;
  std::string package_;
  uint32_t currentBytes_ = 0;
  uint32_t packageBytes_ = 0;
  uint32_t maximumBytes_ = 0;
  bool packageAllowedIdChanges_ = false;
  uint32_t droppedQueue_ = 0;
  uint32_t rejectedQueue_ = 0;
  uint32_t droppedPackage_ = 0;
  uint32_t rejectedPackage_ = 0;
};

}  // namespace Ds
}  // namespace Lum
