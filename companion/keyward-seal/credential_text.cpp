// Conversion and syntax check of the credential text.
#include "companion/keyward-seal/credential_text.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <utf8.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace companion {
namespace {

using Utf16Text = SecretVector<char16_t>;

// A stream over the text for RapidJSON, which counts the position for its error report. A zero
// marks the end.
class Utf16Stream {
 public:
  using Ch = char16_t;

  explicit Utf16Stream(const Utf16Text& text) : text_(text) {}

  [[nodiscard]] Ch Peek() const { return position_ < text_.size() ? text_[position_] : u'\0'; }
  Ch Take() {
    const Ch unit = Peek();
    ++position_;
    return unit;
  }
  [[nodiscard]] std::size_t Tell() const { return position_; }

  // The reader calls these only when parsing in place, which is not used.
  Ch* PutBegin() { return nullptr; }
  void Put(Ch /*unit*/) {}
  std::size_t PutEnd(Ch* /*begin*/) { return 0; }

 private:
  const Utf16Text& text_;
  std::size_t position_ = 0;
};

bool IsJson(const Utf16Text& text, std::string* problem) {
  Utf16Stream stream(text);
  rapidjson::GenericReader<rapidjson::UTF16<char16_t>, rapidjson::UTF16<char16_t>> reader;
  rapidjson::BaseReaderHandler<rapidjson::UTF16<char16_t>> handler;
  // Iterative: deeply nested input must not exhaust the stack.
  const rapidjson::ParseResult result =
      reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
  if (result.IsError()) {
    *problem = std::string("the text is not JSON: ") + rapidjson::GetParseError_En(result.Code()) +
               " (at character " + std::to_string(result.Offset() + 1) + ")";
    return false;
  }
  if (stream.Tell() < text.size()) {
    *problem = "the text is not JSON: it contains a NUL character";
    return false;
  }
  return true;
}

bool Utf16FromUtf8(const SecretBytes& input, Utf16Text* text, std::string* problem) {
  auto begin = input.begin();
  if (utf8::starts_with_bom(begin, input.end())) {
    begin += 3;
  }
  text->reserve(input.size());
  try {
    utf8::utf8to16(begin, input.end(), std::back_inserter(*text));
  } catch (const utf8::exception&) {
    *problem = "the text is not UTF-8";
    return false;
  }
  return true;
}

bool Utf16FromBytes(const SecretBytes& input, Utf16Text* text, std::string* problem) {
  if (input.size() % 2 != 0) {
    *problem = "the text is not UTF-16: it has an odd number of bytes";
    return false;
  }
  text->reserve(input.size() / 2);
  for (std::size_t i = 0; i < input.size(); i += 2) {
    text->push_back(static_cast<char16_t>(input[i] | (input[i + 1] << 8U)));
  }
  return true;
}

SecretBytes BytesFromUtf16(const Utf16Text& text) {
  SecretBytes bytes;
  bytes.reserve(text.size() * 2);
  for (const char16_t unit : text) {
    bytes.push_back(static_cast<std::uint8_t>(unit & 0xFFU));
    bytes.push_back(static_cast<std::uint8_t>(unit >> 8U));
  }
  return bytes;
}

}  // namespace

bool MakePlaintext(const SecretBytes& input, InputEncoding encoding, bool check_json,
                   SecretBytes* plaintext, std::string* problem) {
  if (encoding == InputEncoding::kUtf16Le && !check_json) {
    *plaintext = input;  // byte for byte, even an odd number of bytes
    return true;
  }
  Utf16Text text;
  const bool converted = encoding == InputEncoding::kUtf8 ? Utf16FromUtf8(input, &text, problem)
                                                          : Utf16FromBytes(input, &text, problem);
  if (!converted || (check_json && !IsJson(text, problem))) {
    return false;
  }
  *plaintext = BytesFromUtf16(text);
  return true;
}

}  // namespace companion
