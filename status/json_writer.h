// JSON for the reports, through RapidJSON.
#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/text.h"

namespace kyd {

class JsonWriter {
 public:
  explicit JsonWriter(rapidjson::StringBuffer& buffer) : writer_(buffer) {
    writer_.SetIndent(' ', 2);
  }

  template <class Function>
  void Object(const Function& members) {
    writer_.StartObject();
    members();
    writer_.EndObject();
  }
  template <class Function>
  void ObjectIn(const char* name, const Function& members) {
    writer_.Key(name);
    Object(members);
  }
  template <class Items, class Function>
  void ArrayIn(const char* name, const Items& items, const Function& write) {
    writer_.Key(name);
    writer_.StartArray();
    for (const auto& item : items) {
      write(item);
    }
    writer_.EndArray();
  }
  void Text(std::wstring_view text) {
    const std::string utf8 = platform::ToUtf8(text);
    writer_.String(utf8.data(), static_cast<rapidjson::SizeType>(utf8.size()));
  }
  void TextIn(const char* name, std::wstring_view text) {
    writer_.Key(name);
    Text(text);
  }
  // Null for an empty text.
  void TextOrNullIn(const char* name, std::wstring_view text) {
    writer_.Key(name);
    if (text.empty()) {
      writer_.Null();
    } else {
      Text(text);
    }
  }
  void NumberIn(const char* name, std::uint64_t number) {
    writer_.Key(name);
    writer_.Uint64(number);
  }
  void BoolIn(const char* name, std::optional<bool> value) {
    writer_.Key(name);
    if (value) {
      writer_.Bool(*value);
    } else {
      writer_.Null();
    }
  }
  void NullIn(const char* name) {
    writer_.Key(name);
    writer_.Null();
  }

 private:
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer_;
};

// Returns the text of one object, whose members the function writes.
template <class Function>
std::string JsonText(const Function& members) {
  rapidjson::StringBuffer buffer;
  JsonWriter json(buffer);
  json.Object([&] { members(json); });
  return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
}

}  // namespace kyd
