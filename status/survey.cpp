// Walks the folders like the uploader, and reads the result files of the days.
#include "status/survey.h"

#include <algorithm>
#include <array>
#include <map>

#include "logtree/log_tree.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/file_search.h"
#include "platform/text.h"
#include "status/calendar.h"

namespace kyd {

namespace {

constexpr std::size_t kReadSize = std::size_t{64} * 1024;  // bytes

class Surveyor {
 public:
  Surveyor(Survey& survey, Progress& progress)
      : survey_(survey), progress_(progress), tree_(survey.log_dir) {}

  void LookAtAccounts() {
    // A missing upload folder is reported: the product provides it.
    const platform::FileSearch search = tree_.ForEachAccount([this](const std::wstring& account) {
      progress_.Count();
      survey_.accounts.push_back(LookAtAccount(account));
      return true;
    });
    Note(tree_.UploadPath(), search.Failure());
    std::sort(survey_.accounts.begin(), survey_.accounts.end(),
              [](const AccountStatus& left, const AccountStatus& right) {
                return left.name < right.name;
              });
  }

  void LookAtDays(unsigned count) {
    std::map<std::wstring, AccountStatus> strangers;
    for (const platform::LocalTime& day : LatestDays(survey_.time, count)) {
      survey_.days.push_back({day, ReadDay(tree_.ResultPath(day))});
      for (const auto& [name, errors] : survey_.days.back().result.errors_by_account) {
        AccountStatus& account = AccountNamed(name, strangers);
        account.errors += errors;
        if (!account.last_error_day) {  // the latest day comes first
          account.last_error_day = day;
        }
      }
    }
    for (auto& [name, account] : strangers) {
      survey_.accounts.push_back(std::move(account));
    }
  }

 private:
  // Calls a function for every entry. Returns 0, or the error that ended the search early.
  template <class Function>
  unsigned ForEachEntry(platform::FileSearch search, const Function& function) {
    for (bool found = search.First(); found; found = search.Next()) {
      progress_.Count();
      function(search);
    }
    return search.Failure();
  }

  void Note(const std::wstring& path, unsigned error) {
    if (error != 0) {
      survey_.unreadable.push_back({path, error});
    }
  }

  AccountStatus LookAtAccount(const std::wstring& name) {
    AccountStatus account;
    account.name = name;
    LookAtWaiting(name, account.waiting);
    LookAtArchive(name, account.archived);
    const std::wstring credentials = tree_.CredentialPath(name);
    account.has_credentials = platform::FileExists(credentials);
    if (!account.has_credentials) {
      const unsigned error = platform::LastError();
      survey_.unreadable.push_back({credentials, error});
    }
    return account;
  }

  void LookAtWaiting(const std::wstring& name, WaitingFiles& waiting) {
    unsigned unknown = 0;  // the error of a file without details
    const auto count = [&](const platform::FileSearch& search) {
      if (search.Current().is_folder) {
        return;
      }
      const std::optional<platform::EntryDetails> details = search.Details();
      if (details) {
        ++waiting.files;
        waiting.bytes += details->size;
        // A time before 1970 is invalid; treat the file as old.
        const std::int64_t modified = std::max<std::int64_t>(details->modified, 0);
        waiting.oldest = std::min(waiting.oldest.value_or(modified), modified);
        return;
      }
      const unsigned failure = platform::LastError();
      if (!platform::IsMissing(failure)) {  // sent meanwhile
        ++waiting.files;
        unknown = failure;
      }
    };
    Note(tree_.UploadPath(name), ForEachEntry(tree_.WaitingFiles(name), count));
    Note(tree_.WaitingPattern(name), unknown);
  }

  void LookAtArchive(const std::wstring& name, ArchivedFiles& archived) {
    const auto count = [&](const platform::FileSearch& search) {
      const platform::FoundEntry& entry = search.Current();
      const bool not_sent = LogTree::IsUnsent(entry.name);
      if (!entry.is_folder && (not_sent || LogTree::IsSent(entry.name))) {
        ++archived.files;
        archived.not_sent += not_sent ? 1 : 0;
      }
    };
    const unsigned error = ForEachEntry(tree_.ArchivedFiles(name), count);
    archived.has_folder = error != platform::kErrorPathNotFound;
    Note(tree_.ArchivePath(name), archived.has_folder ? error : 0);
  }

  // A day without a result file is a day on which nothing was sent.
  DayResult ReadDay(const std::wstring& path) {
    ResultReader reader;
    platform::File file = platform::File::OpenUnobtrusive(path);
    if (!file.IsOpen()) {
      const unsigned error = platform::LastError();
      if (!platform::IsMissing(error)) {
        survey_.unreadable.push_back({path, error});
      }
      return reader.Finish();
    }
    std::array<std::uint8_t, kReadSize> buffer;
    for (;;) {
      const std::optional<std::size_t> count = file.Read(buffer.data(), buffer.size());
      if (!count) {
        const unsigned error = platform::LastError();
        survey_.unreadable.push_back({path, error});
        break;
      }
      if (*count == 0) {
        break;
      }
      progress_.Count();
      reader.Take(buffer.data(), *count);
    }
    return reader.Finish();
  }

  // Finds an account by name; one without a folder is kept separately. The name is untrusted and
  // never becomes part of a path.
  AccountStatus& AccountNamed(const std::wstring& name,
                              std::map<std::wstring, AccountStatus>& strangers) {
    const auto place =
        std::lower_bound(survey_.accounts.begin(), survey_.accounts.end(), name,
                         [](const AccountStatus& account, const std::wstring& wanted) {
                           return account.name < wanted;
                         });
    if (place != survey_.accounts.end() && place->name == name) {
      return *place;
    }
    AccountStatus& stranger = strangers[name];
    stranger.name = name;
    stranger.has_folder = false;
    return stranger;
  }

  Survey& survey_;
  Progress& progress_;
  const LogTree tree_;
};

}  // namespace

WaitingFiles AllWaiting(const Survey& survey) {
  WaitingFiles all;
  for (const AccountStatus& account : survey.accounts) {
    all.files += account.waiting.files;
    all.bytes += account.waiting.bytes;
    if (account.waiting.oldest) {
      all.oldest = std::min(all.oldest.value_or(*account.waiting.oldest), *account.waiting.oldest);
    }
  }
  return all;
}

ArchivedFiles AllArchived(const Survey& survey) {
  ArchivedFiles all;
  all.has_folder = true;
  for (const AccountStatus& account : survey.accounts) {
    all.files += account.archived.files;
    all.not_sent += account.archived.not_sent;
  }
  return all;
}

AllDays SumOfDays(const Survey& survey) {
  AllDays all;
  for (const DayStatus& day : survey.days) {
    all.runs += day.result.runs;
    all.sent += day.result.sent;
    all.errors += day.result.errors;
  }
  return all;
}

std::int64_t AgeOf(std::int64_t moment, std::int64_t now) noexcept {
  return moment >= now ? 0 : now - moment;
}

Survey TakeSurvey(const std::wstring& log_dir, unsigned days, const platform::Clock& clock,
                  Progress& progress) {
  Survey survey;
  survey.log_dir = log_dir;
  survey.time = clock.Local();
  survey.now = clock.Seconds();
  Surveyor surveyor(survey, progress);
  surveyor.LookAtAccounts();
  surveyor.LookAtDays(days);
  return survey;
}

}  // namespace kyd
