// Formats numbers and names for people.
#include "status/wording.h"

#include <cstdint>
#include <type_traits>

#include "debuglog/format.h"
#include "platform/error.h"
#include "platform/text.h"

namespace kyd {

namespace {

constexpr std::size_t kTextCapacity = 64;  // characters
constexpr wchar_t kReplacement = L'\xFFFD';

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

bool NeedsReplacing(wchar_t character) {
  const auto value = static_cast<std::uint32_t>(std::make_unsigned_t<wchar_t>(character));
  const bool controls = value < 0x20 || (value >= 0x7F && value < 0xA0);
  const bool directs = value == 0x061C || value == 0x200E || value == 0x200F ||
                       (value >= 0x2028 && value <= 0x202E) || (value >= 0x2066 && value <= 0x2069);
  // Noncharacters, which a page must not contain.
  const bool is_none = (value & 0xFFFEU) == 0xFFFEU;
  return controls || directs || is_none;
}

// True where wide text is UTF-16.
bool BeginsPair(std::wstring_view text) {
  return sizeof(wchar_t) == 2 && text.size() >= 2 && platform::IsHighSurrogate(text[0]) &&
         platform::IsLowSurrogate(text[1]);
}

std::wstring TwoParts(std::int64_t first, const wchar_t* first_unit, std::int64_t second,
                      const wchar_t* second_unit) {
  std::wstring text = std::to_wstring(first) + first_unit;
  if (second != 0) {
    text += L' ' + std::to_wstring(second) + second_unit;
  }
  return text;
}

}  // namespace

std::wstring Printable(std::wstring_view text) {
  std::wstring printable(text);
  for (wchar_t& character : printable) {
    if (NeedsReplacing(character)) {
      character = kReplacement;
    }
  }
  return printable;
}

std::wstring PrintableAndDistinct(std::wstring_view text) {
  std::wstring printable;
  for (; !text.empty(); text.remove_prefix(1)) {
    const wchar_t character = text.front();
    if (BeginsPair(text)) {
      printable += character;
      printable += text[1];
      text.remove_prefix(1);
    } else if (character != L'\n' &&
               (NeedsReplacing(character) || character == kReplacement ||
                platform::IsHighSurrogate(character) || platform::IsLowSurrogate(character))) {
      printable += kReplacement;
      printable += FormatBounded(kTextCapacity, L"%06X", static_cast<unsigned>(character));
    } else {
      printable += character;
    }
  }
  return printable;
}

std::wstring Counted(std::uint64_t count, std::wstring_view one, std::wstring_view more) {
  std::wstring text = std::to_wstring(count);
  text += L' ';
  text += count == 1 ? one : more;
  return text;
}

std::wstring DurationText(std::int64_t seconds) {
  if (seconds >= kDay) {
    return TwoParts(seconds / kDay, L" d", seconds % kDay / kHour, L" h");
  }
  if (seconds >= kHour) {
    return TwoParts(seconds / kHour, L" h", seconds % kHour / kMinute, L" min");
  }
  if (seconds >= kMinute) {
    return std::to_wstring(seconds / kMinute) + L" min";
  }
  return std::to_wstring(seconds) + L" s";
}

std::wstring SizeText(std::uint64_t bytes) {
  if (bytes < 1024) {
    return std::to_wstring(bytes) + L" B";
  }
  double value = static_cast<double>(bytes) / 1024;
  const wchar_t* units = L"KMGTPE";
  // 1023.95 and more would be printed as 1024.0
  while (value >= 1023.95 && units[1] != L'\0') {
    value /= 1024;
    ++units;
  }
  return FormatBounded(kTextCapacity, L"%.1f %ciB", value, *units);
}

std::wstring CredentialsText(const AccountStatus& account) {
  if (!account.has_credentials) {
    return account.has_folder ? L"unknown" : L"-";
  }
  return *account.has_credentials ? L"yes" : L"no";
}

std::wstring OldestText(const WaitingFiles& waiting, std::int64_t now) {
  return waiting.oldest ? DurationText(AgeOf(*waiting.oldest, now)) : L"-";
}

std::wstring ErrorText(unsigned error) {
  switch (error) {
    case platform::kErrorFileNotFound:
    case platform::kErrorPathNotFound:
      return L"missing";
    case platform::kErrorAccessDenied:
      return L"access denied";
    case platform::kErrorSharingViolation:
      return L"in use";
    default:
      return L"error " + std::to_wstring(error);
  }
}

std::wstring SummaryText(const Survey& survey) {
  const WaitingFiles waiting = AllWaiting(survey);
  const AllDays days = SumOfDays(survey);
  std::wstring text = Counted(waiting.files, L"file waits", L"files wait");
  if (waiting.oldest) {
    text += L", the oldest for " + OldestText(waiting, survey.now);
  }
  return text + L"; " + std::to_wstring(days.sent) + L" sent and " + std::to_wstring(days.errors) +
         L" failed in " + Counted(survey.days.size(), L"day", L"days");
}

}  // namespace kyd
