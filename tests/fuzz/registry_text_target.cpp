// The registry export file of the Linux build.
#include <utf8.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry_text_posix.h"
#include "platform/text.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

using platform::ReadRegistryText;
using platform::RegistryValue;
using platform::RegistryValues;

constexpr wchar_t kKey[] = L"SOFTWARE\\Maker";
constexpr wchar_t kKeyInOtherCase[] = L"software\\mAKER";
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16Mark = "\xFF\xFE";

bool AreEqual(const RegistryValue& left, const RegistryValue& right) {
  return left.type == right.type && left.data == right.data;
}

bool AreEqual(const std::optional<RegistryValues>& left,
              const std::optional<RegistryValues>& right) {
  if (!left || !right) {
    return left.has_value() == right.has_value();
  }
  return std::equal(
      left->begin(), left->end(), right->begin(), right->end(), [](const auto& a, const auto& b) {
        return platform::EqualsIgnoringCase(a.first, b.first) && AreEqual(a.second, b.second);
      });
}

bool IsUtf16(std::string_view text) {
  return text.substr(0, kUtf16Mark.size()) == kUtf16Mark;
}

std::string Utf16Of(std::wstring_view text) {
  const std::vector<std::uint8_t> bytes = platform::ToUtf16Le(text);
  return {bytes.begin(), bytes.end()};
}

// Returns the text with more lines appended, in its own encoding.
std::string WithMore(std::string_view text, std::wstring_view lines) {
  std::string more(text);
  if (!IsUtf16(text)) {
    return more + "\n" + platform::ToUtf8(lines);
  }
  if (more.size() % 2 != 0) {
    more.pop_back();  // an incomplete byte pair is ignored
  }
  return more + Utf16Of(L"\n") + Utf16Of(lines);
}

void CheckWhatComesLater(std::string_view text) {
  const std::wstring section = L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Probe]\n\"n\"=dword:2a\n";
  const std::string probed = WithMore(text, section);
  const std::optional<RegistryValues> values = ReadRegistryText(probed, L"SOFTWARE\\Probe");
  Require(values.has_value(), "a key is found whatever precedes it");
  const auto number = values->find(L"N");
  Require(number != values->end() && AreEqual(number->second, {4, {0x2A, 0, 0, 0}}),
          "a value is found whatever precedes it");
  const std::string removed = WithMore(probed, L"[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Probe]");
  Require(!ReadRegistryText(removed, L"SOFTWARE\\Probe"), "a key can be removed");
}

void CheckEncodings(std::string_view text, const std::optional<RegistryValues>& values) {
  const bool is_utf8 = utf8::find_invalid(text.begin(), text.end()) == text.end();
  const bool has_mark = text.substr(0, kUtf8Mark.size()) == kUtf8Mark;
  if (!is_utf8 || has_mark) {
    return;
  }
  Require(AreEqual(values, ReadRegistryText(std::string(kUtf8Mark) + std::string(text), kKey)),
          "a byte-order mark changes nothing");
  const std::string wide = std::string(kUtf16Mark) + Utf16Of(platform::FromUtf8(text));
  Require(AreEqual(values, ReadRegistryText(wide, kKey)), "both encodings have the same values");
}

std::wstring Escaped(const std::wstring& name) {
  std::wstring text;
  for (const wchar_t character : name) {
    if (character == L'"' || character == L'\\') {
      text += L'\\';
    }
    text += character;
  }
  return text;
}

std::wstring Number(const char* format, unsigned value) {
  char text[16];
  std::snprintf(text, sizeof text, format, value);
  return platform::FromUtf8(text);
}

std::wstring Written(const RegistryValue& value) {
  if (value.type == platform::kRegistryText) {
    const std::wstring text = platform::FromUtf16Le(value.data.data(), value.data.size());
    return L"\"" + Escaped(text.substr(0, text.size() - 1)) + L"\"";
  }
  if (value.type == platform::kRegistryDword) {
    return L"dword:" + Number("%x", platform::NumberOf(value).value());
  }
  return L"hex:";
}

std::wstring Written(const RegistryValues& values) {
  std::wstring text = L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Maker]\r\n";
  for (const auto& [name, value] : values) {
    text += L"\"" + Escaped(name) + L"\"=" + Written(value) + L"\r\n";
  }
  return text;
}

}  // namespace

int FuzzRegistryText(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::optional<RegistryValues> values = ReadRegistryText(text, kKey);
  Require(AreEqual(values, ReadRegistryText(text, kKeyInOtherCase)), "case does not matter");
  CheckWhatComesLater(text);
  CheckEncodings(text, values);
  if (values) {
    // UTF-16, which preserves unpaired surrogates.
    const std::string again = std::string(kUtf16Mark) + Utf16Of(Written(*values));
    Require(AreEqual(values, ReadRegistryText(again, kKey)), "values survive a round trip");
  }
  return 0;
}

}  // namespace kyd_fuzz
