// Lookup of JSON values by dotted paths.
#pragma once

#include <rapidjson/document.h>

#include <type_traits>

#include "platform/secret_memory.h"

namespace kyd {

// The encoding of wide text on this platform.
using JsonEncoding =
    std::conditional_t<sizeof(wchar_t) == 2, rapidjson::UTF16<wchar_t>, rapidjson::UTF32<wchar_t>>;
// Wipes a document's contents when the document is destroyed.
using JsonAllocator = rapidjson::MemoryPoolAllocator<platform::WipingAllocator>;
using JsonDocument =
    rapidjson::GenericDocument<JsonEncoding, JsonAllocator, platform::WipingAllocator>;
using JsonValue = rapidjson::GenericValue<JsonEncoding, JsonAllocator>;

// Returns the value that a path such as "cert.hash" names, member by member from `object`, or null.
// The first of several members with the same name is used; empty components are skipped. Null if
// the path is null or empty, a component is missing, or a value on the way is not an object.
[[nodiscard]] const JsonValue* FindJsonValueByPath(const wchar_t* path, const JsonValue& object);

}  // namespace kyd
