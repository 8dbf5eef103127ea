// Text resources of the program.
#pragma once

#include <cstddef>
#include <string>

namespace platform {

// The process's own instance handle: HINSTANCE on Windows; on Linux the program's table, a
// StringResource array that ends with a null text.
using InstanceHandle = const void*;

struct StringResource {
  unsigned id;
  const wchar_t* text;
};

// Returns the text of a string resource, truncated to `capacity` - 1 characters; empty if there is
// none (LoadStringW).
[[nodiscard]] std::wstring LoadText(InstanceHandle instance, unsigned id, std::size_t capacity);

}  // namespace platform
