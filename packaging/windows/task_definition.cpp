// Builds the arguments of the task and the XML element that holds them.
#include "packaging/windows/task_definition.h"

#include <algorithm>
#include <cstddef>

namespace kyd::setup {
namespace {

constexpr wchar_t kBegin[] = L"<Arguments>";
constexpr wchar_t kEnd[] = L"</Arguments>";

bool IsLetter(wchar_t character) {
  return (character >= L'A' && character <= L'Z') || (character >= L'a' && character <= L'z');
}

bool IsSeparator(wchar_t character) {
  return character == L'\\' || character == L'/';
}

std::wstring AsXmlText(const std::wstring& text) {
  std::wstring escaped;
  for (const wchar_t character : text) {
    switch (character) {
      case L'&':
        escaped += L"&amp;";
        break;
      case L'<':
        escaped += L"&lt;";
        break;
      case L'>':
        escaped += L"&gt;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace

bool IsTenant(const std::wstring& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](wchar_t character) {
    return IsLetter(character) || (character >= L'0' && character <= L'9') ||
           std::wstring(L".:_-[]").find(character) != std::wstring::npos;
  });
}

bool IsLogDir(const std::wstring& text) {
  const bool on_drive =
      text.size() >= 3 && IsLetter(text[0]) && text[1] == L':' && IsSeparator(text[2]);
  const bool on_share =
      text.size() >= 3 && IsSeparator(text[0]) && IsSeparator(text[1]) && !IsSeparator(text[2]);
  const std::wstring rest = text.substr(std::min<std::size_t>(2, text.size()));
  return (on_drive || on_share) && std::none_of(rest.begin(), rest.end(), [](wchar_t character) {
           return character < L' ' ||
                  std::wstring(L"\"<>|:*?").find(character) != std::wstring::npos;
         });
}

std::wstring WithoutTrailingSeparators(std::wstring path) {
  while (path.size() > 3 && IsSeparator(path.back())) {
    path.pop_back();
  }
  return path;
}

std::wstring AsArgument(const std::wstring& text) {
  std::wstring argument = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t character : text) {
    if (character == L'"') {
      argument.append(backslashes + 1, L'\\');  // doubles the preceding ones and escapes the quote
    }
    backslashes = character == L'\\' ? backslashes + 1 : 0;
    argument += character;
  }
  argument.append(backslashes, L'\\');
  return argument + L'"';
}

std::wstring WithArguments(const std::wstring& definition, const std::wstring& tenant,
                           const std::wstring& log_dir) {
  const std::size_t begin = definition.find(kBegin);
  const std::size_t end = definition.find(kEnd);
  if (begin == std::wstring::npos || end == std::wstring::npos || end < begin) {
    return {};
  }
  const std::size_t place = begin + std::wstring(kBegin).size();
  return definition.substr(0, place) + AsXmlText(AsArgument(tenant) + L' ' + AsArgument(log_dir)) +
         definition.substr(end);
}

}  // namespace kyd::setup
