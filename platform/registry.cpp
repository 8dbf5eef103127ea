// Interpretation of registry data on both platforms.
#include "platform/registry.h"

namespace platform {

std::optional<std::uint32_t> NumberOf(const RegistryValue& value) noexcept {
  std::uint32_t number = 0;
  if (value.data.size() > sizeof number) {
    return std::nullopt;
  }
  for (std::size_t i = value.data.size(); i > 0; --i) {
    number = number << 8U | value.data[i - 1];
  }
  return number;
}

}  // namespace platform
