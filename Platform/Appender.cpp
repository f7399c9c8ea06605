#include "Platform/Appender.h"

#include <algorithm>
#include <atomic>

#include "Platform/LockMutex.h"
#include "Platform/LongFormat.h"
#include "Platform/MediumFormat.h"
#include "Platform/ShortFormat.h"
#include "Platform/TestFormat.h"

namespace Lum {
namespace Core {

// Never destroyed: threads may log while the host exits.
Mutex& Appender::AppenderMapMutex = *new Mutex();
Appender::AppenderMap* Appender::AllAppenders = nullptr;
std::vector<Appender*>* Appender::DisplacedAppenders = nullptr;

namespace {
constexpr int kServices = FilterProperties::SERVICE_COUNT;
constexpr int kCategories = FilterProperties::CATEGORY_COUNT;

// Maximum over the registered appenders' filter tables, plus one, kept up to
// date by every registry change so that testing a classification needs no
// lock. Stored plus one so that the zero of static storage already means "no
// appender", whatever the order of static initialisation. Written under
// AppenderMapMutex.
std::atomic<int> highestSeverityPlusOne[kServices][kCategories];

bool IsInTable(int service, int category) {
  return service >= 0 && service < kServices && category >= 0 && category < kCategories;
}

// A missing or non-string member reads as "", so a malformed element can
// neither throw nor half-configure an appender.
std::string StringMember(const LumJson::Value& object, const char* key) {
  if (!object.isObject()) {
    return std::string();
  }
  const LumJson::Value& member = object[key];
  return member.isString() ? member.asString() : std::string();
}

std::unique_ptr<Format> MakeFormat(const std::string& name) {
  if (name == "short") return std::make_unique<ShortFormat>();
  if (name == "medium") return std::make_unique<MediumFormat>();
  if (name == "long") return std::make_unique<LongFormat>();
  if (name == "test") return std::make_unique<TestFormat>();
  return nullptr;
}

}  // namespace

Appender::Appender(const LumJson::Value& config) : filter_() {
  std::string formatName = StringMember(config, "format");
  const LumJson::Value& filters = config.isObject() ? config["filters"] : LumJson::Value::null;
  if (filters.isArray()) {
    format_ = MakeFormat(formatName);
    readFilters(filters);
  }
  name_ = StringMember(config, "type") + "-" + formatName + "-" + StringMember(config, "argument");
}

void Appender::readFilters(const LumJson::Value& filters) {
  for (auto& row : filter_) {
    std::fill(std::begin(row), std::end(row), 0);
  }
  for (const LumJson::Value& entry : filters) {
    int service = FilterProperties::GetServiceValue(StringMember(entry, "service"));
    int category = FilterProperties::GetCategoryValue(StringMember(entry, "category"));
    int severity = FilterProperties::GetSeverityValue(StringMember(entry, "severity"));
    if (service != -1 && category != -1 && severity != -1) {
      filter_[service][category] = severity;
    }
  }
}

Appender::~Appender() {
  unregisterSelf();
}

bool Appender::isLogEnabled(int service, int category, int severity) const {
  return IsInTable(service, category) && filter_[service][category] >= severity;
}

Appender::AppenderMap& Appender::GetAppenderMap() {
  if (AllAppenders == nullptr) {
    AllAppenders = new AppenderMap();
  }
  return *AllAppenders;
}

void Appender::AddAppender(Appender* appender) {
  if (appender == nullptr) {
    return;
  }
  LockMutex lock(&AppenderMapMutex);
  Appender*& slot = GetAppenderMap()[appender->name_];
  if (slot != nullptr && slot != appender) {
    if (DisplacedAppenders == nullptr) {
      DisplacedAppenders = new std::vector<Appender*>();
    }
    DisplacedAppenders->push_back(slot);
  }
  slot = appender;
  RecomputeHighestSeverities();
}

void Appender::unregisterSelf() {
  LockMutex lock(&AppenderMapMutex);
  if (AllAppenders != nullptr) {
    auto found = AllAppenders->find(name_);
    if (found != AllAppenders->end() && found->second == this) {
      AllAppenders->erase(found);
    }
    if (AllAppenders->empty()) {
      delete AllAppenders;
      AllAppenders = nullptr;
    }
  }
  if (DisplacedAppenders != nullptr) {
    auto& displaced = *DisplacedAppenders;
    displaced.erase(std::remove(displaced.begin(), displaced.end(), this), displaced.end());
    if (displaced.empty()) {
      delete DisplacedAppenders;
      DisplacedAppenders = nullptr;
    }
  }
  RecomputeHighestSeverities();
}

std::vector<Appender*> Appender::GetAllAppenders() {
  LockMutex lock(&AppenderMapMutex);
  std::vector<Appender*> all;
  if (AllAppenders != nullptr) {
    for (const auto& entry : *AllAppenders) {
      all.push_back(entry.second);
    }
  }
  return all;
}

void Appender::VisitAllAppenders(const std::function<void(Appender&)>& visit) {
  LockMutex lock(&AppenderMapMutex);
  if (AllAppenders == nullptr) {
    return;
  }
  for (const auto& entry : *AllAppenders) {
    visit(*entry.second);
  }
}

void Appender::DeleteAllAppenders() {
  std::vector<Appender*> doomed;
  {
    LockMutex lock(&AppenderMapMutex);
    if (AllAppenders != nullptr) {
      for (const auto& entry : *AllAppenders) {
        doomed.push_back(entry.second);
      }
    }
    if (DisplacedAppenders != nullptr) {
      doomed.insert(doomed.end(), DisplacedAppenders->begin(), DisplacedAppenders->end());
    }
  }
  // Each destructor takes AppenderMapMutex itself to leave the registry.
  for (Appender* appender : doomed) {
    delete appender;
  }
}

int Appender::HighestEnabledSeverity(int service, int category) {
  if (!IsInTable(service, category)) {
    return -1;
  }
  return highestSeverityPlusOne[service][category].load(std::memory_order_relaxed) - 1;
}

void Appender::RecomputeHighestSeverities() {
  for (int service = 0; service < kServices; ++service) {
    for (int category = 0; category < kCategories; ++category) {
      int highest = -1;
      if (AllAppenders != nullptr) {
        for (const auto& entry : *AllAppenders) {
          highest = std::max(highest, entry.second->filter_[service][category]);
        }
      }
      highestSeverityPlusOne[service][category].store(highest + 1, std::memory_order_relaxed);
    }
  }
}

}  // namespace Core
}  // namespace Lum
