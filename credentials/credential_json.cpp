// Looks up a dotted path in a JSON document.
#include "credentials/credential_json.h"

#include <cstddef>
#include <string_view>

namespace kyd {

namespace {

const JsonValue* FindMember(std::wstring_view name, const JsonValue& value) {
  if (!value.IsObject()) {
    return nullptr;
  }
  for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
    if (std::wstring_view(member->name.GetString(), member->name.GetStringLength()) == name) {
      return &member->value;
    }
  }
  return nullptr;
}

}  // namespace

const JsonValue* FindJsonValueByPath(const wchar_t* path, const JsonValue& object) {
  std::wstring_view rest(path == nullptr ? L"" : path);
  const JsonValue* found = nullptr;
  const JsonValue* holder = &object;
  while (!rest.empty()) {
    const std::size_t dot = rest.find(L'.');
    const std::wstring_view piece = rest.substr(0, dot);
    rest = dot == std::wstring_view::npos ? std::wstring_view() : rest.substr(dot + 1);
    if (piece.empty()) {
      continue;
    }
    found = FindMember(piece, *holder);
    if (found == nullptr) {
      return nullptr;
    }
    holder = found;
  }
  return found;
}

}  // namespace kyd
