// Escapes the special characters of HTML and XML.
#include "status/page.h"

#include "status/wording.h"

namespace kyd {

std::wstring Escaped(std::wstring_view text) {
  std::wstring escaped;
  for (const wchar_t character : Printable(text)) {
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
      case L'"':
        escaped += L"&quot;";
        break;
      case L'\'':
        escaped += L"&#39;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace kyd
