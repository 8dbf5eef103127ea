// Walks along format and text; only %s needs backtracking.
#include "status/format_match.h"

#include <cstddef>

namespace kyd {

namespace {

constexpr std::size_t kMostDigits = 18;  // always fit into 64 bits

bool IsDigit(wchar_t character) {
  return character >= L'0' && character <= L'9';
}

// Consumes a number at the start of the text.
std::optional<std::int64_t> TakeNumber(std::wstring_view& text) {
  const bool negative = !text.empty() && text.front() == L'-';
  std::size_t end = negative ? 1 : 0;
  const std::size_t begin = end;
  std::int64_t number = 0;
  while (end < text.size() && IsDigit(text[end]) && end - begin < kMostDigits) {
    number = number * 10 + (text[end] - L'0');
    ++end;
  }
  if (end == begin || (end < text.size() && IsDigit(text[end]))) {
    return std::nullopt;
  }
  text.remove_prefix(end);
  return negative ? -number : number;
}

// Consumes a conversion such as %04d at the start of the format; returns its letter, or nothing.
wchar_t TakeConversion(std::wstring_view& format) {
  const std::size_t letter = format.find_first_not_of(L"0123456789", 1);
  if (letter == std::wstring_view::npos) {
    return L'\0';
  }
  const wchar_t conversion = format[letter];
  format.remove_prefix(letter + 1);
  return conversion;
}

bool Match(std::wstring_view format, std::wstring_view text, FormatFields& fields);

// Tries %s with the longest text first: a name may contain what follows it in the format.
bool MatchText(std::wstring_view format, std::wstring_view text, FormatFields& fields) {
  const std::size_t numbers = fields.numbers.size();
  const std::size_t place = fields.texts.size();
  for (std::size_t end = text.size() + 1; end-- > 0;) {
    fields.numbers.resize(numbers);
    fields.texts.resize(place + 1);
    if (Match(format, text.substr(end), fields)) {
      fields.texts[place] = text.substr(0, end);
      return true;
    }
  }
  return false;
}

bool Match(std::wstring_view format, std::wstring_view text, FormatFields& fields) {
  while (!format.empty()) {
    if (format.front() != L'%') {
      if (text.empty() || text.front() != format.front()) {
        return false;
      }
      format.remove_prefix(1);
      text.remove_prefix(1);
      continue;
    }
    const wchar_t conversion = TakeConversion(format);
    if (conversion == L's') {
      return MatchText(format, text, fields);
    }
    const std::optional<std::int64_t> number = conversion == L'd' ? TakeNumber(text) : std::nullopt;
    if (!number) {
      return false;
    }
    fields.numbers.push_back(*number);
  }
  return text.empty();
}

}  // namespace

std::optional<FormatFields> MatchFormat(std::wstring_view format, std::wstring_view text) {
  FormatFields fields;
  if (!Match(format, text, fields)) {
    return std::nullopt;
  }
  return fields;
}

}  // namespace kyd
