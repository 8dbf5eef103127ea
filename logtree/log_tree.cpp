// Joins the names.
#include "logtree/log_tree.h"

#include <cstddef>
#include <initializer_list>
#include <string_view>

#include "debuglog/format.h"
#include "platform/text.h"

namespace kyd {

namespace {

using namespace std::string_view_literals;

constexpr std::size_t kNameCapacity = 260;  // characters

// In one piece of memory: there is a path for every account and every file.
std::wstring Joined(std::initializer_list<std::wstring_view> names) {
  std::size_t size = 0;
  for (const std::wstring_view name : names) {
    size += name.size() + 1;
  }
  std::wstring path;
  path.reserve(size);
  for (const std::wstring_view name : names) {
    path.append(name) += platform::kPathSeparator;
  }
  path.pop_back();
  return path;
}

}  // namespace

std::wstring PathBelow(const std::wstring& folder, const std::wstring& name) {
  return Joined({folder, name});
}

std::wstring UploadPath(const std::wstring& log_dir) {
  return PathBelow(log_dir, L"Upload");
}

std::wstring UploadPath(const std::wstring& log_dir, const std::wstring& account) {
  return Joined({log_dir, L"Upload", account});
}

std::wstring ArchivePath(const std::wstring& log_dir, const std::wstring& account) {
  return Joined({log_dir, L"Archive", account});
}

std::wstring CredentialPath(const std::wstring& log_dir, const std::wstring& account) {
  return Joined({log_dir, L"LogWork", account, L"UserData.dat"});
}

std::wstring ResultPath(const std::wstring& log_dir, const platform::LocalTime& day) {
  return PathBelow(
      PathBelow(log_dir, L"UploadResult"),
      FormatBounded(kNameCapacity, L"UploadResult%04d%02d%02d.log", day.year, day.month, day.day));
}

bool IsAccount(const platform::FoundEntry& entry) {
  // Texts of known length, which hardly ever is the name's.
  return entry.name != L"."sv && entry.name != L".."sv && entry.name != L"NoSent_LogFiles"sv &&
         entry.is_folder;
}

}  // namespace kyd
