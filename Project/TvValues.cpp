#include "Project/TvValues.h"

#include <map>

#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

LumJson::Value TvValues::List(ListWrapper wrapper) {
  std::vector<std::string> entries;
  const int code = wrapper(entries);
  LumJson::Value values(LumJson::arrayValue);
  for (const std::string& entry : entries) {
    values.append(entry);
  }
  if (code == 0) {
    return values;
  }
  LumJson::Value failed(LumJson::objectValue);
  failed["TV_RESULT"] = code;
  failed["VALUES"] = std::move(values);
  return failed;
}

std::vector<std::string> TvValues::Strings(ListWrapper wrapper) {
  std::vector<std::string> entries;
  wrapper(entries);
  return entries;
}

LumJson::Value TvValues::Pairs(ListWrapper wrapper) {
  const std::vector<std::string> entries = Strings(wrapper);
  LumJson::Value pairs(LumJson::objectValue);
  for (size_t i = 0; i + 1 < entries.size(); i += 2) {
    pairs[entries[i]] = entries[i + 1];
  }
  return pairs;
}

namespace {

constexpr char kTunerSource[] = "TV";

// Source and alias alternate. A list of odd length starts with the alias of
// the tuner, which has no entry of its own: the platform's test list is
// "TV_ALIAS_NAME", "HDMI1", "HDMI1_ALIAS_NAME", ...
std::vector<std::pair<std::string, std::string>> SourcePairs() {
  const std::vector<std::string> entries = TvValues::Strings(&NkGetVStrSourceList);
  std::vector<std::pair<std::string, std::string>> pairs;
  size_t next = 0;
  if (entries.size() % 2 == 1) {
    pairs.emplace_back(kTunerSource, entries[0]);
    next = 1;
  }
  for (; next + 1 < entries.size(); next += 2) {
    pairs.emplace_back(entries[next], entries[next + 1]);
  }
  return pairs;
}

}  // namespace

std::vector<std::string> TvValues::Sources() {
  std::vector<std::string> sources;
  for (const auto& pair : SourcePairs()) {
    sources.push_back(pair.first);
  }
  return sources;
}

LumJson::Value TvValues::SourceAliases() {
  LumJson::Value aliases(LumJson::objectValue);
  for (const auto& pair : SourcePairs()) {
    aliases[pair.first] = pair.second;
  }
  return aliases;
}

std::vector<std::string> TvValues::Keys() {
  std::vector<std::string> keys;
  for (const auto& entry : LumNorvikKeyMap()) {
    keys.push_back(entry.first);
  }
  return keys;
}

void Report(const std::vector<TvItem>& items, LumJson::Value& data) {
  for (const TvItem& item : items) {
    data[item.id] = item.read();
  }
}

}  // namespace Sv
}  // namespace Lum
