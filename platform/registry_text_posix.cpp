// Parses the registry export file.
#include "platform/registry_text_posix.h"

#include <utf8.h>

#include <algorithm>
#include <utility>

#include "platform/text.h"

namespace platform {
namespace {

constexpr std::wstring_view kBlanks = L" \t";
constexpr std::wstring_view kRoot = L"HKEY_LOCAL_MACHINE\\";

std::wstring_view Trimmed(std::wstring_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// Text that may follow a complete key or value.
bool IsBlankOrComment(std::wstring_view text) {
  const std::wstring_view rest = Trimmed(text);
  return rest.empty() || rest.front() == L';';
}

bool Skip(std::wstring_view& text, std::wstring_view prefix) {
  if (!EqualsIgnoringCase(text.substr(0, prefix.size()), prefix)) {
    return false;
  }
  text.remove_prefix(prefix.size());
  return true;
}

void SkipBlanks(std::wstring_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
}

// A number of 1 to 8 hexadecimal digits.
std::optional<std::uint32_t> TakeHex(std::wstring_view& text) {
  constexpr std::wstring_view kDigits = L"0123456789abcdefABCDEF";
  constexpr std::size_t kMostDigits = 8;
  const std::size_t count = std::min(text.find_first_not_of(kDigits), text.size());
  if (count == 0 || count > kMostDigits) {
    return std::nullopt;
  }
  std::uint32_t number = 0;
  for (const wchar_t character : text.substr(0, count)) {
    const std::size_t place = kDigits.find(character);
    number = number << 4U | static_cast<std::uint32_t>(place < 16 ? place : place - 6);
  }
  text.remove_prefix(count);
  return number;
}

// A quoted text from its opening to its closing quote.
std::optional<std::wstring> TakeQuoted(std::wstring_view& text) {
  if (!Skip(text, L"\"")) {
    return std::nullopt;
  }
  std::wstring content;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == L'"') {
      text.remove_prefix(i + 1);
      return content;
    }
    if (text[i] == L'\\') {
      ++i;
      if (i == text.size() || (text[i] != L'\\' && text[i] != L'"')) {
        return std::nullopt;
      }
    }
    content += text[i];
  }
  return std::nullopt;
}

// The lines of the text. A line that is not valid UTF-8 becomes a single unreadable character: a
// bracket for a key, so that it still ends the key before it.
class Lines {
 public:
  explicit Lines(std::string_view text) {
    if (text.substr(0, 2) == "\xFF\xFE") {
      text.remove_prefix(2);
      wide_ = FromUtf16Le(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
      rest_wide_ = wide_;
      is_wide_ = true;
      return;
    }
    if (text.substr(0, 3) == "\xEF\xBB\xBF") {
      text.remove_prefix(3);
    }
    rest_ = text;
  }

  std::optional<std::wstring> Next() {
    if (is_wide_ ? rest_wide_.empty() : rest_.empty()) {
      return std::nullopt;
    }
    std::wstring line = is_wide_ ? std::wstring(Cut(rest_wide_, L'\n')) : Decoded(Cut(rest_, '\n'));
    if (!line.empty() && line.back() == L'\r') {
      line.pop_back();
    }
    return line;
  }

 private:
  template <class View>
  static View Cut(View& rest, typename View::value_type end_of_line) {
    const std::size_t end = std::min(rest.find(end_of_line), rest.size());
    const View line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return line;
  }

  static std::wstring Decoded(std::string_view line) {
    if (utf8::find_invalid(line.begin(), line.end()) == line.end()) {
      return FromUtf8(line);
    }
    const std::size_t begin = line.find_first_not_of(" \t");
    return begin != std::string_view::npos && line[begin] == '[' ? L"[" : L"?";
  }

  std::wstring wide_;
  std::wstring_view rest_wide_;
  std::string_view rest_;
  bool is_wide_ = false;
};

// Reads the text line by line and keeps the values of one key.
class Reader {
 public:
  Reader(std::string_view text, std::wstring_view key) : lines_(text), key_(key) {}

  std::optional<RegistryValues> Read() {
    while (const std::optional<std::wstring> line = lines_.Next()) {
      const std::wstring_view content = Trimmed(*line);
      if (content.substr(0, 1) == L"[") {
        TakeKey(content.substr(1));
      } else if (in_key_) {
        TakeValue(content);
      }
    }
    if (!exists_) {
      return std::nullopt;
    }
    return std::move(values_);
  }

 private:
  // Returns whether `inner` is `outer` or lies below it.
  static bool IsAtOrBelow(std::wstring_view inner, std::wstring_view outer) {
    return EqualsIgnoringCase(inner.substr(0, outer.size()), outer) &&
           (inner.size() == outer.size() || inner[outer.size()] == L'\\');
  }

  void TakeKey(std::wstring_view line) {
    in_key_ = false;
    // The name of a key may contain brackets, so the last one closes it.
    const std::size_t end = line.rfind(L']');
    if (end == std::wstring_view::npos || !IsBlankOrComment(line.substr(end + 1))) {
      return;
    }
    line = line.substr(0, end);
    const bool removes = Skip(line, L"-");
    if (!Skip(line, kRoot) || line.empty()) {
      return;
    }
    if (removes) {
      if (IsAtOrBelow(key_, line)) {
        exists_ = false;
        values_.clear();
      }
      return;
    }
    exists_ = exists_ || IsAtOrBelow(line, key_);
    in_key_ = EqualsIgnoringCase(line, key_);
  }

  void TakeValue(std::wstring_view line) {
    std::wstring name;
    if (!Skip(line, L"@")) {
      std::optional<std::wstring> quoted = TakeQuoted(line);
      if (!quoted) {
        return;
      }
      name = std::move(*quoted);
    }
    SkipBlanks(line);
    if (!Skip(line, L"=")) {
      return;
    }
    SkipBlanks(line);
    if (Skip(line, L"-")) {
      if (IsBlankOrComment(line)) {
        values_.erase(name);
      }
      return;
    }
    if (std::optional<RegistryValue> value = TakeData(line)) {
      values_.insert_or_assign(std::move(name), std::move(*value));
    }
  }

  static std::optional<RegistryValue> TakeData(std::wstring_view line) {
    if (line.substr(0, 1) == L"\"") {
      return TakeText(line);
    }
    if (Skip(line, L"dword:")) {
      return TakeDword(line);
    }
    if (Skip(line, L"hex:") || Skip(line, L"hex(3):")) {
      return TakeBytes(line);
    }
    // Other types only need to be recognised.
    if (Skip(line, L"hex(")) {
      return RegistryValue{kRegistryBinary, {}};
    }
    return std::nullopt;
  }

  static std::optional<RegistryValue> TakeText(std::wstring_view line) {
    const std::optional<std::wstring> text = TakeQuoted(line);
    if (!text || !IsBlankOrComment(line)) {
      return std::nullopt;
    }
    RegistryValue value{kRegistryText, ToUtf16Le(*text)};
    value.data.insert(value.data.end(), {0, 0});
    return value;
  }

  static std::optional<RegistryValue> TakeDword(std::wstring_view line) {
    SkipBlanks(line);
    const std::optional<std::uint32_t> number = TakeHex(line);
    if (!number || !IsBlankOrComment(line)) {
      return std::nullopt;
    }
    RegistryValue value{kRegistryDword, {}};
    for (int shift = 0; shift < 32; shift += 8) {
      value.data.push_back(static_cast<std::uint8_t>(*number >> shift));
    }
    return value;
  }

  // Bytes separated by commas. Only OutputLogDebug, 4 bytes of any type, is read from them, and it
  // fits on one line: a list that continues on further lines has no data here. Those lines do not
  // parse as values and are skipped.
  static std::optional<RegistryValue> TakeBytes(std::wstring_view line) {
    RegistryValue value{kRegistryBinary, {}};
    for (SkipBlanks(line); !IsBlankOrComment(line); SkipBlanks(line)) {
      if (line.front() == L'\\') {
        return RegistryValue{kRegistryBinary, {}};
      }
      const std::optional<std::uint32_t> byte = TakeHex(line);
      SkipBlanks(line);
      if (!byte || *byte > 0xFF || !(IsBlankOrComment(line) || Skip(line, L","))) {
        return std::nullopt;
      }
      value.data.push_back(static_cast<std::uint8_t>(*byte));
    }
    return value;
  }

  Lines lines_;
  std::wstring_view key_;
  RegistryValues values_;
  bool exists_ = false;
  bool in_key_ = false;
};

}  // namespace

bool CaseInsensitiveLess::operator()(const std::wstring& left,
                                     const std::wstring& right) const noexcept {
  return std::lexicographical_compare(
      left.begin(), left.end(), right.begin(), right.end(),
      [](wchar_t a, wchar_t b) { return FoldCase(a) < FoldCase(b); });
}

std::optional<RegistryValues> ReadRegistryText(std::string_view text, std::wstring_view key) {
  return Reader(text, key).Read();
}

}  // namespace platform
