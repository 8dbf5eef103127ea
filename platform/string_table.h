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

// The text of a string resource, cut at `capacity` - 1 characters; empty when there is none
// (LoadStringW).
[[nodiscard]] std::wstring LoadText(InstanceHandle instance, unsigned id, std::size_t capacity);

}  // namespace platform
