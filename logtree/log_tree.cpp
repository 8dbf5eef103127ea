// Joins the names.
#include "logtree/log_tree.h"

#include <cstddef>

#include "debuglog/format.h"
#include "platform/text.h"

namespace kyd {

namespace {

constexpr std::size_t kNameCapacity = 260;  // characters

}  // namespace

std::wstring PathBelow(const std::wstring& folder, const std::wstring& name) {
  return folder + platform::kPathSeparator + name;
}

std::wstring UploadPath(const std::wstring& log_dir) {
  return PathBelow(log_dir, L"Upload");
}

std::wstring UploadPath(const std::wstring& log_dir, const std::wstring& account) {
  return PathBelow(UploadPath(log_dir), account);
}

std::wstring ArchivePath(const std::wstring& log_dir, const std::wstring& account) {
  return PathBelow(PathBelow(log_dir, L"Archive"), account);
}

std::wstring CredentialPath(const std::wstring& log_dir, const std::wstring& account) {
  return PathBelow(PathBelow(PathBelow(log_dir, L"LogWork"), account), L"UserData.dat");
}

std::wstring ResultPath(const std::wstring& log_dir, const platform::LocalTime& day) {
  return PathBelow(
      PathBelow(log_dir, L"UploadResult"),
      FormatBounded(kNameCapacity, L"UploadResult%04d%02d%02d.log", day.year, day.month, day.day));
}

bool IsAccount(const platform::FoundEntry& entry) {
  return entry.name != L"." && entry.name != L".." && entry.name != L"NoSent_LogFiles" &&
         entry.is_folder;
}

}  // namespace kyd
