// Bounded printf-style messages, and the lines of the diagnostic log.
#include <exception>
#include <string>
#include <string_view>

#include "debuglog/cdebuglog.h"
#include "debuglog/debug_log.h"
#include "debuglog/format.h"
#include "platform/text.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

namespace {

// Formats come from the program only, and none has a field of a thousand characters.
std::wstring WithShortNumbers(const std::wstring& format) {
  std::wstring shortened;
  std::size_t digits = 0;
  for (const wchar_t character : format) {
    digits = character >= L'0' && character <= L'9' ? digits + 1 : 0;
    if (digits <= 3) {
      shortened += character;
    }
  }
  return shortened;
}

// Every format yields text that fits, or a standard exception. The argument of `*` is a width.
template <class Char, class... Arguments>
void CheckAnyFormat(std::size_t capacity, const std::basic_string<Char>& format,
                    const Arguments&... arguments) {
  try {
    const auto text = kyd::FormatBounded(capacity, format.c_str(), arguments...);
    Require(text.size() < capacity, "a message fits into its buffer");
  } catch (const fmt::format_error&) {
    // The format does not match its arguments.
  }
}

template <class Char>
std::basic_string<Char> CutAt(std::size_t capacity, const std::basic_string<Char>& text) {
  return text.substr(0, capacity - 1);
}

void CheckArguments(const std::wstring& text, int number) {
  const std::wstring shown = text.c_str();
  const std::wstring wide = L"<UploadOneUser> Error [" + std::to_wstring(number) + L", " + shown;
  Require(kyd::FormatBounded(kyd::kWideMessageCapacity, L"<UploadOneUser> Error [%d, %s]", number,
                             text) == CutAt(kyd::kWideMessageCapacity, wide + L"]"),
          "a wide argument is inserted unchanged");
  const std::string narrow_text = platform::ToUtf8(text);
  const std::string narrow = std::string("exception message [") + narrow_text.c_str() + "]";
  Require(kyd::FormatBounded(kyd::kNarrowMessageCapacity, "exception message [%s]", narrow_text) ==
              CutAt(kyd::kNarrowMessageCapacity, narrow),
          "a narrow argument is inserted unchanged");
}

void CheckLine(const platform::LocalTime& time, const std::wstring& text) {
  const std::wstring line = corvid::LogLine(time, text.c_str());
  const std::wstring end = std::wstring(text.c_str()) + L",";
  Require(line.size() >= end.size() && line.compare(line.size() - end.size(), end.size(), end) == 0,
          "a line ends in the whole message");
  Require(line.substr(0, line.size() - end.size()) + L"," == corvid::LogLine(time, nullptr),
          "the message does not change the prefix");
}

void CheckLog(const std::wstring& format, const std::wstring& text, int number) {
  kyd::CDebugLog log;
  Require(log.WriteLogW(format.c_str(), number, text) == 1, "logging never fails");
  const std::string narrow_format = platform::ToUtf8(format);
  Require(log.WriteLogA(narrow_format.c_str(), platform::ToUtf8(text), number) == 1,
          "logging never fails");
  log.SetName(text.c_str());
  const std::wstring name = log.Name();
  Require(name == CutAt(kyd::CDebugLog::kNameCapacity, std::wstring(text.c_str())),
          "a name is truncated to its buffer");
}

}  // namespace

// Input: numbers, a line with a format, then the text of the arguments.
int FuzzFormat(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const Kind kind = KindOf(input.Byte());
  const std::size_t capacity = std::size_t{input.Byte()} + 1;
  const int number = static_cast<int>(input.Number());
  const int width = static_cast<int>(number % 1000);
  const platform::LocalTime time{number, width, input.Byte(), input.Byte(), -width, number, number};
  const std::wstring format = WithShortNumbers(platform::FromUtf8(input.Line()));
  const std::wstring text = WideText(kind, input.Rest());

  CheckAnyFormat(capacity, format, width, text, number);
  CheckAnyFormat(capacity, format, text, width, text);
  CheckAnyFormat(capacity, platform::ToUtf8(format), width, platform::ToUtf8(text), number);
  CheckAnyFormat(capacity, platform::ToUtf8(format), platform::ToUtf8(text), width, number);
  CheckArguments(text, number);
  CheckLine(time, text);
  CheckLog(format, text, width);
  return 0;
}

}  // namespace kyd_fuzz
