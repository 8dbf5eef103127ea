// Text resources from the program's table.
#include "platform/string_table.h"

namespace platform {

std::wstring LoadText(InstanceHandle instance, unsigned id, std::size_t capacity) {
  if (instance == nullptr || capacity == 0) {
    return {};
  }
  for (auto entry = static_cast<const StringResource*>(instance); entry->text != nullptr; ++entry) {
    if (entry->id == id) {
      return std::wstring(entry->text).substr(0, capacity - 1);
    }
  }
  return {};
}

}  // namespace platform
