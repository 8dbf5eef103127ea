// Stand-in of the user-agent function.
#include "pelham/comp_info_ctrl.h"

#include <utf8.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "companion/common/file_head.h"
#include "companion/common/module_folder.h"

namespace pelham {
namespace {

constexpr const wchar_t* kUserAgent = L"VeltraneKeyward/1.15.0 (KydLogUploader stand-in)";
constexpr const char* kFileName = "pelham.useragent";
constexpr std::string_view kThrowLine = "!throw";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kLongestLine = 4096;

// The line, or nothing when there is no file.
std::optional<std::string> FirstLine(const std::filesystem::path& file) {
  // Room for the mark, the line, its CR LF and one byte more that shows a longer one.
  std::string text(kByteOrderMark.size() + kLongestLine + 3, '\0');
  const companion::FileHead head = companion::ReadFileHead(file, text.data(), text.size());
  if (head.state == companion::FileHead::State::kAbsent) {
    return std::nullopt;
  }
  if (head.state == companion::FileHead::State::kUnreadable) {
    throw std::runtime_error("pelham.useragent is not a readable file");
  }
  text.resize(head.size);
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
  const std::optional<std::string> line = FirstLine(companion::ThisModuleFolder() / kFileName);
  if (!line) {
    return kUserAgent;
  }
  if (*line == kThrowLine) {
    throw std::runtime_error("pelham.useragent asks for an exception");
  }
  return WideFromUtf8(*line);
}

}  // namespace pelham
