// Shared by the targets: consuming an input from its front, and reporting violated properties.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/text.h"

namespace kyd_fuzz {

// Reports a violated property of the product. Aborts under a fuzzer; in the replay it throws
// std::logic_error, so it is called only where no code of the product could catch that.
[[noreturn]] void ReportBroken(const char* property);

inline void Require(bool holds, const char* property) {
  if (!holds) {
    ReportBroken(property);
  }
}

// Consumes an input from its front. Missing data is 0 or empty.
class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size)
      : rest_(reinterpret_cast<const char*>(bytes), size) {}

  std::uint8_t Byte() {
    const std::uint8_t byte = rest_.empty() ? 0 : static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(std::min<std::size_t>(1, rest_.size()));
    return byte;
  }

  // Little-endian, four bytes.
  std::uint32_t Number() {
    std::uint32_t number = 0;
    for (unsigned shift = 0; shift < 32; shift += 8) {
      number |= static_cast<std::uint32_t>(Byte()) << shift;
    }
    return number;
  }

  // Returns the text up to the next line feed and consumes both.
  std::string_view Line() {
    const std::size_t end = std::min(rest_.find('\n'), rest_.size());
    const std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return line;
  }

  // Returns everything that is left.
  std::string_view Rest() {
    const std::string_view rest = rest_;
    rest_ = {};
    return rest;
  }

 private:
  std::string_view rest_;
};

// Returns a piece of input as wide text: UTF-8, or UTF-16LE with any surrogates.
enum class Kind { kUtf8, kUtf16Le };

// An even first byte (such as '8') selects UTF-8, an odd one (such as '1') UTF-16LE.
inline Kind KindOf(std::uint8_t byte) {
  return byte % 2 == 0 ? Kind::kUtf8 : Kind::kUtf16Le;
}

inline const std::uint8_t* BytesOf(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

inline std::wstring WideText(Kind kind, std::string_view bytes) {
  return kind == Kind::kUtf8 ? platform::FromUtf8(bytes)
                             : platform::FromUtf16Le(BytesOf(bytes), bytes.size());
}

}  // namespace kyd_fuzz
