#pragma once

#include <string>
#include <vector>

#include "Platform/LumJson.h"
#include "lum_platform.h"

namespace Lum {
namespace Sv {

// How the commands turn what the television answers into the values of
// their answers, the same way for every command.
class TvValues {
 public:
  using ListWrapper = int (*)(std::vector<std::string>& entries);

  // The entries of a list; an array, or {"TV_RESULT": r, "VALUES": [...]}
  // when the television answered r != 0, so a failure is never shown as an
  // empty list.
  static LumJson::Value List(ListWrapper wrapper);
  // The entries only, for the choices of an input.
  static std::vector<std::string> Strings(ListWrapper wrapper);
  // Pairs of a list of alternating keys and values ({"HDCP1.4 key": ...}).
  static LumJson::Value Pairs(ListWrapper wrapper);
  // The sources a television can switch to, and each one's alias name, from
  // its source list.
  static std::vector<std::string> Sources();
  static LumJson::Value SourceAliases();
  // The back-end key names of the remote control.
  static std::vector<std::string> Keys();
};

// One figure of a report: its ID in the answer and how to read it.
struct TvItem {
  const char* id;
  LumJson::Value (*read)();
};

// Readers and writers over the platform wrappers, for the tables of the
// commands: TvItem{"VOLUME", &NumberOf<NkGetVolume>}.
template <std::string (*Get)()>
LumJson::Value TextOf() {
  return LumJson::Value(Get());
}
template <int (*Get)()>
LumJson::Value NumberOf() {
  return LumJson::Value(Get());
}
template <bool (*Get)()>
LumJson::Value FlagOf() {
  return LumJson::Value(Get());
}
template <int (*Get)(std::vector<std::string>&)>
LumJson::Value ListOf() {
  return TvValues::List(Get);
}
template <int (*Set)(const std::string&)>
int WriteText(const LumJson::Value& value) {
  return Set(value.asString());
}
template <int (*Set)(int)>
int WriteNumber(const LumJson::Value& value) {
  return Set(value.asInt());
}
template <int (*Set)(bool)>
int WriteFlag(const LumJson::Value& value) {
  return Set(value.asBool());
}
template <int (*Get)(std::vector<std::string>&)>
std::vector<std::string> ChoicesOf() {
  return TvValues::Strings(Get);
}

// Writes every item of `items` into `data`.
void Report(const std::vector<TvItem>& items, LumJson::Value& data);

}  // namespace Sv
}  // namespace Lum
