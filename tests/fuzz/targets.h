// The targets. Each accepts any bytes and checks the properties of its part of the product.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kyd_fuzz {

// All return 0. A violated property ends in ReportBroken.
int FuzzAnswerText(const std::uint8_t* bytes, std::size_t size);
int FuzzBase64(const std::uint8_t* bytes, std::size_t size);
int FuzzCredentialJson(const std::uint8_t* bytes, std::size_t size);
int FuzzFormat(const std::uint8_t* bytes, std::size_t size);
int FuzzJsonPath(const std::uint8_t* bytes, std::size_t size);
int FuzzLibraryTables(const std::uint8_t* bytes, std::size_t size);
int FuzzPfx(const std::uint8_t* bytes, std::size_t size);
int FuzzRegistryText(const std::uint8_t* bytes, std::size_t size);  // Linux only
int FuzzSealedText(const std::uint8_t* bytes, std::size_t size);
int FuzzText(const std::uint8_t* bytes, std::size_t size);
int FuzzThumbprint(const std::uint8_t* bytes, std::size_t size);

}  // namespace kyd_fuzz
