#include "debuglog/format.h"

namespace kyd::format_detail {

namespace {

template <class Char, class FormatArguments>
std::basic_string<Char> Bounded(std::size_t capacity, const Char* format,
                                const FormatArguments& arguments) {
  std::basic_string<Char> text = fmt::vsprintf(fmt::basic_string_view<Char>(format), arguments);
  if (text.size() >= capacity) {
    text.resize(capacity - 1);
  }
  return text;
}

}  // namespace

std::string Expand(std::size_t capacity, const char* format, fmt::printf_args arguments) {
  return Bounded(capacity, format, arguments);
}

std::wstring Expand(std::size_t capacity, const wchar_t* format, fmt::wprintf_args arguments) {
  return Bounded(capacity, format, arguments);
}

}  // namespace kyd::format_detail
