// Lookup of dotted paths in JSON documents.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "credentials/credential_json.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

std::vector<std::wstring> PiecesOf(const std::wstring& path) {
  std::vector<std::wstring> pieces(1);
  for (const wchar_t character : path) {
    if (character == L'.') {
      pieces.emplace_back();
    } else {
      pieces.back() += character;
    }
  }
  pieces.erase(std::remove(pieces.begin(), pieces.end(), std::wstring()), pieces.end());
  return pieces;
}

// An independent implementation of the contract: component by component, with copies.
const kyd::JsonValue* Expected(const std::vector<std::wstring>& pieces,
                               const kyd::JsonValue& document) {
  const kyd::JsonValue* value = &document;
  for (const std::wstring& piece : pieces) {
    if (!value->IsObject()) {
      return nullptr;
    }
    const kyd::JsonValue* found = nullptr;
    for (const auto& member : value->GetObject()) {
      const std::wstring name(member.name.GetString(), member.name.GetStringLength());
      if (found == nullptr && name == piece) {
        found = &member.value;
      }
    }
    if (found == nullptr) {
      return nullptr;
    }
    value = found;
  }
  return pieces.empty() ? nullptr : value;
}

std::wstring WithMoreDots(const std::vector<std::wstring>& pieces) {
  std::wstring path = L"..";
  for (const std::wstring& piece : pieces) {
    path += piece + L"...";
  }
  return path;
}

}  // namespace

// Input: a line with the path, then the document.
int FuzzJsonPath(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Kind kind = KindOf(input.Byte());
  // For the function, a path ends at its first NUL.
  const std::wstring path = platform::FromUtf8(input.Line()).c_str();
  const std::wstring text = WideText(kind, input.Rest());
  kyd::JsonDocument document;
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (document.HasParseError()) {
    return 0;
  }
  const std::vector<std::wstring> pieces = PiecesOf(path);
  const kyd::JsonValue* const found = kyd::FindJsonValueByPath(path.c_str(), document);
  Require(found == Expected(pieces, document), "the value is that of the last component");
  Require(found == kyd::FindJsonValueByPath(WithMoreDots(pieces).c_str(), document),
          "empty components are skipped");
  return 0;
}

}  // namespace kyd_fuzz
