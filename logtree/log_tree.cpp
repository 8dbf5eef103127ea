// Builds paths, searches folders and moves files.
#include "logtree/log_tree.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "debuglog/format.h"
#include "platform/file.h"
#include "platform/text.h"

namespace kyd {

namespace {

using namespace std::string_view_literals;

constexpr std::wstring_view kUpload = L"Upload";
constexpr std::wstring_view kArchive = L"Archive";
constexpr std::wstring_view kLogWork = L"LogWork";
constexpr std::wstring_view kCredentials = L"UserData.dat";
constexpr std::wstring_view kResultFolder = L"UploadResult";  // also the start of its file names
constexpr wchar_t kLogEnding[] = L".log";
constexpr wchar_t kUnsentEnding[] = L".bak";
constexpr wchar_t kUnsentLogEnding[] = L".log.bak";
constexpr wchar_t kEveryName[] = L"";
constexpr wchar_t kResultName[] = L"UploadResult%04d%02d%02d.log";
constexpr std::size_t kResultNameSize = std::wstring_view(L"UploadResultYYYYMMDD.log").size();
constexpr std::size_t kNameCapacity = 260;  // characters

bool IsAccount(const platform::FoundEntry& entry) {
  // Literals of known length: most names already differ in length.
  return entry.name != L"."sv && entry.name != L".."sv && entry.name != L"NoSent_LogFiles"sv &&
         entry.is_folder;
}

}  // namespace

platform::FileSearch LogTree::ForEachAccount(
    const std::function<bool(const std::wstring& account)>& visit) const {
  platform::FileSearch search(UploadPath(), kEveryName);
  for (bool found = search.First(); found; found = search.Next()) {
    if (IsAccount(search.Current()) && !visit(search.Current().name)) {
      break;
    }
  }
  return search;
}

platform::FileSearch LogTree::WaitingFiles(const std::wstring& account) const {
  return {UploadPath(account), kLogEnding};
}

platform::FileSearch LogTree::ArchivedFiles(const std::wstring& account) const {
  return {ArchivePath(account), kEveryName};
}

bool LogTree::Archive(const std::wstring& account, const std::wstring& file) const {
  return platform::MoveWithoutReplacing(UploadPath(account, file), ArchivePath(account, file));
}

bool LogTree::ArchiveUnsent(const std::wstring& account, const std::wstring& file) const {
  return platform::MoveWithoutReplacing(UploadPath(account, file),
                                        ArchivePath(account, file + kUnsentEnding));
}

bool LogTree::IsSent(const std::wstring& file) {
  return platform::EndsWithIgnoringCase(file, kLogEnding);
}

bool LogTree::IsUnsent(const std::wstring& file) {
  return platform::EndsWithIgnoringCase(file, kUnsentLogEnding);
}

std::wstring LogTree::LatestResult() const {
  std::wstring latest;
  platform::FileSearch search(platform::JoinPath(log_dir_, kResultFolder), kLogEnding);
  for (bool found = search.First(); found; found = search.Next()) {
    const std::wstring& name = search.Current().name;
    // Names of the same form and length sort by date.
    if (!search.Current().is_folder && name.size() == kResultNameSize &&
        name.compare(0, kResultFolder.size(), kResultFolder) == 0) {
      latest = std::max(latest, name);
    }
  }
  return latest.empty() ? latest : platform::JoinPath(log_dir_, kResultFolder, latest);
}

std::wstring LogTree::UploadPath() const {
  return platform::JoinPath(log_dir_, kUpload);
}

std::wstring LogTree::UploadPath(const std::wstring& account) const {
  return platform::JoinPath(log_dir_, kUpload, account);
}

std::wstring LogTree::UploadPath(const std::wstring& account, const std::wstring& file) const {
  return platform::JoinPath(log_dir_, kUpload, account, file);
}

std::wstring LogTree::WaitingPattern(const std::wstring& account) const {
  return UploadPath(account, std::wstring(L"*") + kLogEnding);
}

std::wstring LogTree::ArchivePath(const std::wstring& account) const {
  return platform::JoinPath(log_dir_, kArchive, account);
}

std::wstring LogTree::ArchivePath(const std::wstring& account, const std::wstring& file) const {
  return platform::JoinPath(log_dir_, kArchive, account, file);
}

std::wstring LogTree::CredentialPath(const std::wstring& account) const {
  return platform::JoinPath(log_dir_, kLogWork, account, kCredentials);
}

std::wstring LogTree::ResultPath(const platform::LocalTime& day) const {
  return platform::JoinPath(
      log_dir_, kResultFolder,
      FormatBounded(kNameCapacity, kResultName, day.year, day.month, day.day));
}

}  // namespace kyd
