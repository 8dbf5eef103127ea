// Stand-in of the user-agent function.
#include "pelham/comp_info_ctrl.h"

#include <utf8.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "companion/common/module_folder.h"

namespace pelham {
namespace {

constexpr wchar_t kUserAgent[] = L"VeltraneKeyward/1.15.0 (KydLogUploader stand-in)";
constexpr char kFileName[] = "pelham.useragent";
constexpr std::string_view kThrowLine = "!throw";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kLongestLine = 4096;

std::string FirstLine(const std::filesystem::path& file) {
  std::error_code ignored;  // What cannot be looked at is not a regular file either.
  if (!std::filesystem::is_regular_file(file, ignored)) {
    throw std::runtime_error("pelham.useragent is not a readable file");
  }
  std::ifstream stream(file, std::ios::binary);
  // Room for the line, its CR LF and one byte more that shows a longer one.
  std::string text(kLongestLine + 3, '\0');
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!stream.is_open() || stream.bad()) {
    throw std::runtime_error("pelham.useragent cannot be read");
  }
  text.resize(static_cast<std::size_t>(stream.gcount()));
  text.resize(std::min(text.find('\n'), text.size()));
  if (!text.empty() && text.back() == '\r') {
    text.pop_back();
  }
  if (text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0) {
    text.erase(0, kByteOrderMark.size());
  }
  if (text.size() > kLongestLine) {
    throw std::runtime_error("the line in pelham.useragent is too long");
  }
  return text;
}

std::wstring WideFromUtf8(const std::string& text) {
  std::wstring wide;
  // The library's failure derives from std::exception only; callers are promised a runtime_error.
  try {
    if constexpr (sizeof(wchar_t) == 2) {
      utf8::utf8to16(text.begin(), text.end(), std::back_inserter(wide));
    } else {
      utf8::utf8to32(text.begin(), text.end(), std::back_inserter(wide));
    }
  } catch (const utf8::exception&) {
    throw std::runtime_error("pelham.useragent is not UTF-8");
  }
  return wide;
}

}  // namespace

std::wstring CompInfoCtrl::CreateWebAPIUserAgent() {
  const std::filesystem::path file = companion::ThisModuleFolder() / kFileName;
  std::error_code ignored;  // An absent file is the usual case, whatever the reason.
  if (!std::filesystem::exists(file, ignored)) {
    return kUserAgent;
  }
  const std::string line = FirstLine(file);
  if (line == kThrowLine) {
    throw std::runtime_error("pelham.useragent asks for an exception");
  }
  return WideFromUtf8(line);
}

}  // namespace pelham
