#include "Platform/JsonUtil.h"

#include <exception>
#include <memory>

#include "Platform/StringUtil.h"

namespace Lum {
namespace Core {

namespace {

// The builders are made once: building one fills a settings document of
// its own, which cost more than parsing or writing a short text. They are
// only read afterwards (thread-safe), and never destroyed, like everything
// the agent's threads reach while the host exits.
const LumJson::CharReaderBuilder& StrictBuilder() {
  static const LumJson::CharReaderBuilder* const builder = [] {
    LumJson::CharReaderBuilder* strict = new LumJson::CharReaderBuilder();
    LumJson::CharReaderBuilder::strictMode(&strict->settings_);
    return strict;
  }();
  return *builder;
}

const LumJson::StreamWriterBuilder& CompactBuilder() {
  static const LumJson::StreamWriterBuilder* const builder = [] {
    LumJson::StreamWriterBuilder* compact = new LumJson::StreamWriterBuilder();
    (*compact)["indentation"] = "";
    return compact;
  }();
  return *builder;
}

// One reader a thread, made at its first parse: making a reader reads every
// setting of the builder again, which costs as much as parsing a short text.
// A reader starts each parse afresh, also after one that threw.
LumJson::CharReader& StrictReader() {
  thread_local const std::unique_ptr<LumJson::CharReader> reader(StrictBuilder().newCharReader());
  return *reader;
}

const LumJson::Value* Member(const LumJson::Value& object, const char* key) {
  return object.isObject() ? object.find(key, key + std::char_traits<char>::length(key)) : nullptr;
}

}  // namespace

bool JsonUtil::ParseStrict(const std::string& text, LumJson::Value& out) {
  std::string errors;
  // The reader throws instead of failing when nesting exceeds its depth
  // limit; such a text is just as malformed as any other, and it may come
  // from the host or the network, so it must not escape as an exception.
  // Running out of memory is not the text's fault: it goes on to the caller's
  // barrier, or a start would go on with the defaults of a text it never read
  // (and store its files in the working directory).
  if (!StringUtil::IsUtf8(text.data(), text.data() + text.size())) {
    return false;
  }
  try {
    return StrictReader().parse(text.data(), text.data() + text.size(), &out, &errors);
  } catch (const LumJson::Exception&) {
    return false;
  }
}

bool JsonUtil::ParseObject(const char* text, LumJson::Value& out) {
  return text != nullptr && ParseStrict(text, out) && out.isObject();
}

bool JsonUtil::ParseObject(const std::string& text, LumJson::Value& out) {
  return ParseStrict(text, out) && out.isObject();
}

std::string JsonUtil::WriteCompact(const LumJson::Value& value) {
  return LumJson::writeString(CompactBuilder(), value);
}

std::string JsonUtil::ReadText(const LumJson::Value& object, const char* key,
                               const std::string& fallback) {
  const LumJson::Value* member = Member(object, key);
  return member != nullptr && member->isString() ? member->asString() : fallback;
}

bool JsonUtil::ReadBool(const LumJson::Value& object, const char* key, bool fallback) {
  const LumJson::Value* member = Member(object, key);
  return member != nullptr && member->isBool() ? member->asBool() : fallback;
}

uint32_t JsonUtil::ReadUnsigned(const LumJson::Value& object, const char* key, uint32_t fallback) {
  const LumJson::Value* member = Member(object, key);
  return member != nullptr && member->isUInt() ? member->asUInt() : fallback;
}

}  // namespace Core
}  // namespace Lum
