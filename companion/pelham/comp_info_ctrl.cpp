// The stand-in of the user-agent function.
#include "pelham/comp_info_ctrl.h"

#include <utf8.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "platform/error.h"
#include "platform/file.h"
#include "platform/module.h"
#include "platform/text.h"

namespace pelham {
namespace {

constexpr const wchar_t* kUserAgent = L"VeltraneKeyward/1.15.0 (KydLogUploader stand-in)";
constexpr const wchar_t* kFileName = L"pelham.useragent";
constexpr std::string_view kThrowLine = "!throw";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kLongestLine = 4096;

// Returns the start of the file: enough for the byte-order mark, the line, its CR LF, and one more
// byte that shows that the line is too long. std::nullopt if there is no file.
std::optional<std::string> Beginning(const std::wstring& path) {
  platform::File file = platform::File::OpenUnobtrusive(path);
  if (!file.IsOpen() && platform::LastError() == platform::kErrorFileNotFound) {
    return std::nullopt;
  }
  std::string text(kByteOrderMark.size() + kLongestLine + 3, '\0');
  const std::optional<std::size_t> size = file.Read(text.data(), text.size());
  if (!size) {
    throw std::runtime_error("pelham.useragent is not a readable file");
  }
  text.resize(*size);
  return text;
}

std::string FirstLine(std::string text) {
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

// Returns the path of the settings file in this library's folder.
std::wstring FilePath() {
  const std::wstring folder = platform::FolderOfModule(reinterpret_cast<const void*>(&FilePath));
  if (folder.empty()) {
    throw std::runtime_error("the folder of pelham is unknown");
  }
  return platform::JoinPath(folder, kFileName);
}

}  // namespace

std::wstring CompInfoCtrl::CreateWebAPIUserAgent() {
  const std::optional<std::string> text = Beginning(FilePath());
  if (!text) {
    return kUserAgent;
  }
  const std::string line = FirstLine(*text);
  if (line == kThrowLine) {
    throw std::runtime_error("pelham.useragent asks for an exception");
  }
  if (!utf8::is_valid(line.begin(), line.end())) {
    throw std::runtime_error("pelham.useragent is not UTF-8");
  }
  return platform::FromUtf8(line);
}

}  // namespace pelham
