#pragma once

#include <set>
#include <string>

namespace Lum {
namespace Ds {

// A producer of data items inside the agent. Each collector answers for a
// fixed set of data item ids and runs only while the back end allows at least
// one of them; the collector manager decides when to start, stop or halt it.
//
// name_ and ids_ are set by the constructor and never change, so they need no
// mutex. Derived classes say which mutex guards their own state.
class Collector {
 public:
  // `ids`: the collector's data item ids as one comma-separated text.
  Collector(const std::string& name, const std::string& ids);
  virtual ~Collector();
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  // Starts the collector for `ids`, the subset of its own ids that is
  // allowed now. Called without the core mutex.
  virtual void initialize(const std::set<std::string>& ids) = 0;
  // Asks the collector's threads to stop and wakes them; does not wait.
  virtual void terminateBegin() = 0;
  // Waits for the collector's threads to end.
  virtual void terminateEnd() = 0;
  // Tells a stopped collector that none of its ids is allowed any more; what
  // that means for its next start is the collector's business.
  virtual void halt();

  const std::string& getName() const { return name_; }
  const std::set<std::string>& getIds() const { return ids_; }
  // Whether any of the collector's ids is in `ids`.
  bool intersects(const std::set<std::string>& ids) const;

 private:
  const std::string name_;
  const std::set<std::string> ids_;
};

}  // namespace Ds
}  // namespace Lum
