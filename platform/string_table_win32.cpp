// Text resources from the program's string table.
#include "platform/string_table.h"

#include <windows.h>

#include <limits>
#include <vector>

namespace platform {

std::wstring LoadText(InstanceHandle instance, unsigned id, std::size_t capacity) {
  // With a capacity of 0, LoadStringW would return the address of the resource instead of a text.
  if (capacity == 0 || capacity > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    return {};
  }
  std::vector<wchar_t> text(capacity);
  const auto module = static_cast<HINSTANCE>(const_cast<void*>(instance));
  const int length = LoadStringW(module, id, text.data(), static_cast<int>(capacity));
  return length > 0 ? std::wstring(text.data(), static_cast<std::size_t>(length)) : std::wstring();
}

}  // namespace platform
