#include "status/survey.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "logtree/log_tree.h"
#include "platform/error.h"
#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/fake_clock.h"
#include "tests/unit/support/program_texts.h"
#include "tests/unit/support/temp_folder.h"
#include "uploader/result_file.h"
#ifndef _WIN32
#include <sys/syscall.h>

#include "tests/unit/support/failing_calls_posix.h"
#endif

namespace {

using kyd::AccountStatus;
using kyd::Survey;
using kyd::Unreadable;
using testing::ElementsAre;

std::vector<std::wstring> AccountNames(const Survey& survey) {
  std::vector<std::wstring> names;
  for (const AccountStatus& account : survey.accounts) {
    names.push_back(account.name);
  }
  return names;
}

// Returns the account with this name, which must exist.
AccountStatus AccountNamed(const std::wstring& name, const Survey& survey) {
  const auto found =
      std::find_if(survey.accounts.begin(), survey.accounts.end(),
                   [&name](const AccountStatus& account) { return account.name == name; });
  if (found == survey.accounts.end()) {
    ADD_FAILURE() << "no account " << platform::ToUtf8(name);
    return {};
  }
  return *found;
}

testing::Matcher<Unreadable> IsUnreadable(const std::wstring& path, unsigned error) {
  return testing::AllOf(testing::Field("path", &Unreadable::path, path),
                        testing::Field("error", &Unreadable::error, error));
}

class SurveyTest : public testing::Test {
 protected:
  SurveyTest() {
    clock_.seconds = platform::SystemClock().Seconds() + 1000;
    report_.instance = kyd_test::ProgramTexts();
    MakeFolder(tree_.UploadPath());
    MakeFolder(platform::FolderOf(tree_.ResultPath(clock_.local)));
  }

  static void MakeFolder(const std::wstring& path) {
    std::filesystem::create_directories(platform::ToNativePath(path));
  }
  static void MakeFile(const std::wstring& folder, const std::wstring& name,
                       const std::string& content = "") {
    MakeFolder(folder);
    kyd_test::WriteFileBytes(platform::JoinPath(folder, name), content);
  }
  void MakeOlder(const std::wstring& path, std::int64_t age) const {
    const std::filesystem::path file = platform::ToNativePath(path);
    const auto since = platform::SystemClock().Seconds() - (clock_.seconds - age);
    std::filesystem::last_write_time(
        file, std::filesystem::file_time_type::clock::now() - std::chrono::seconds(since));
  }
  // Writes a block for a day with the uploader's own code.
  void WriteResult(const platform::LocalTime& day, std::uint32_t sent, std::uint32_t failed,
                   const std::vector<kyd::UploadErrInfo>& errors = {}) {
    kyd_test::FakeClock then;
    then.local = day;
    report_.errors = errors;
    kyd::OutputResult(report_, log_dir_, 3, 2, 1, sent, failed, then);
  }
  Survey Look(unsigned days = 7) {
    kyd::Progress unseen;
    return kyd::TakeSurvey(log_dir_, days, clock_, unseen);
  }

  kyd_test::TempFolder folder_;
  kyd_test::FakeClock clock_;
  const std::wstring log_dir_ = folder_.Path();
  kyd::LogTree tree_{log_dir_};
  kyd::UploadResultReport report_;
};

TEST_F(SurveyTest, FindsNothingInAnEmptyTree) {
  const Survey survey = Look();
  EXPECT_TRUE(survey.accounts.empty());
  EXPECT_TRUE(survey.unreadable.empty());
  ASSERT_EQ(survey.days.size(), 7U);
  EXPECT_EQ(survey.days.back().day.day, 25);  // six days before 1 May
  EXPECT_EQ(kyd::AllWaiting(survey).files, 0U);
  EXPECT_FALSE(kyd::AllWaiting(survey).oldest);
}

TEST_F(SurveyTest, CountsWhatTheUploaderWouldSend) {
  const std::wstring alice = tree_.UploadPath(L"alice");
  MakeFile(alice, L"a.log", "12345");
  MakeFile(alice, L"B.LOG", "123");
  MakeFile(alice, L"c.txt", "1");
  MakeFolder(platform::JoinPath(alice, L"folder.log"));
  MakeFolder(tree_.UploadPath(L"bob"));
  MakeFile(tree_.UploadPath(L"NoSent_LogFiles"), L"x.log", "1");
  MakeFile(tree_.UploadPath(), L"y.log", "1");
  MakeOlder(platform::JoinPath(alice, L"B.LOG"), 7200);
  const Survey survey = Look();
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice", L"bob"));
  const kyd::WaitingFiles waiting = AccountNamed(L"alice", survey).waiting;
  EXPECT_EQ(waiting.files, 2U);
  EXPECT_EQ(waiting.bytes, 8U);
  ASSERT_TRUE(waiting.oldest);
  EXPECT_NEAR(static_cast<double>(kyd::AgeOf(*waiting.oldest, survey.now)), 7200, 5);
  EXPECT_EQ(AccountNamed(L"bob", survey).waiting.files, 0U);
  EXPECT_EQ(kyd::AllWaiting(survey).bytes, 8U);
}

TEST_F(SurveyTest, DistinguishesSentFromFlushedFiles) {
  MakeFolder(tree_.UploadPath(L"alice"));
  MakeFolder(tree_.UploadPath(L"bob"));
  const std::wstring archive = tree_.ArchivePath(L"alice");
  MakeFile(archive, L"a.log");
  MakeFile(archive, L"B.LOG");
  MakeFile(archive, L"c.log.bak");
  MakeFile(archive, L"d.txt");
  MakeFile(archive, L"e.bak");
  MakeFolder(platform::JoinPath(archive, L"folder.log"));
  const Survey survey = Look();
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice", L"bob"));
  const kyd::ArchivedFiles archived = AccountNamed(L"alice", survey).archived;
  EXPECT_TRUE(archived.has_folder);
  EXPECT_EQ(archived.files, 3U);
  EXPECT_EQ(archived.not_sent, 1U);
  EXPECT_FALSE(AccountNamed(L"bob", survey).archived.has_folder);
  EXPECT_TRUE(survey.unreadable.empty());
}

TEST_F(SurveyTest, DetectsCredentialFiles) {
  for (const wchar_t* const name : {L"alice", L"bob", L"carol"}) {
    MakeFolder(tree_.UploadPath(name));
  }
  MakeFile(platform::FolderOf(tree_.CredentialPath(L"alice")), L"UserData.dat");
  MakeFolder(tree_.CredentialPath(L"carol"));
  const Survey survey = Look();
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice", L"bob", L"carol"));
  EXPECT_EQ(AccountNamed(L"alice", survey).has_credentials, true);
  EXPECT_EQ(AccountNamed(L"bob", survey).has_credentials, false);
  // A folder does not count.
  EXPECT_EQ(AccountNamed(L"carol", survey).has_credentials, false);
}

TEST_F(SurveyTest, AddsTheFiguresOfTheResultFiles) {
  MakeFolder(tree_.UploadPath(L"alice"));
  WriteResult({2024, 5, 1, 8, 0, 0, 0}, 5, 0);
  WriteResult({2024, 4, 30, 8, 0, 0, 0}, 1, 2, {{L"alice", 2}});
  WriteResult({2024, 4, 29, 8, 0, 0, 0}, 1, 3, {{L"alice", 1}, {L"..", 2}});
  WriteResult({2024, 4, 28, 8, 0, 0, 0}, 100, 0);
  const Survey survey = Look(3);
  EXPECT_EQ(kyd::SumOfDays(survey).runs, 3U);
  EXPECT_EQ(kyd::SumOfDays(survey).sent, 7U);
  EXPECT_EQ(kyd::SumOfDays(survey).errors, 5U);
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice", L".."));
  const AccountStatus alice = AccountNamed(L"alice", survey);
  EXPECT_EQ(alice.errors, 3U);
  ASSERT_TRUE(alice.last_error_day);
  EXPECT_EQ(alice.last_error_day->day, 30);
  // A name that occurs only in a result file is not looked up.
  const AccountStatus stranger = AccountNamed(L"..", survey);
  EXPECT_EQ(stranger.errors, 2U);
  EXPECT_FALSE(stranger.has_folder);
  EXPECT_FALSE(stranger.has_credentials);
}

TEST_F(SurveyTest, ReportsAMissingUploadFolder) {
  const std::wstring nowhere = folder_ / L"nowhere";
  kyd::Progress unseen;
  const Survey survey = kyd::TakeSurvey(nowhere, /*days=*/7, clock_, unseen);
  EXPECT_THAT(survey.unreadable, ElementsAre(IsUnreadable(kyd::LogTree(nowhere).UploadPath(),
                                                          platform::kErrorPathNotFound)));
}

TEST_F(SurveyTest, ReportsAFolderInsteadOfAResultFile) {
  MakeFolder(tree_.ResultPath(clock_.local));
  const Survey survey = Look();
  EXPECT_THAT(survey.unreadable, ElementsAre(IsUnreadable(tree_.ResultPath(clock_.local),
                                                          platform::kErrorAccessDenied)));
}

TEST_F(SurveyTest, ReadsAResultFileThatTheUploaderHasOpen) {
  WriteResult(clock_.local, 5, 0);
  const platform::CFileAccessSecurity security(platform::CFileAccessSecurity::kDefault);
  const platform::File writer =
      platform::File::OpenForWriting(tree_.ResultPath(clock_.local), security);
  ASSERT_TRUE(writer.IsOpen());
  EXPECT_EQ(kyd::SumOfDays(Look()).sent, 5U);
}

TEST_F(SurveyTest, DoesNotBlockWritersOfTheResultFile) {
  WriteResult(clock_.local, 5, 0);
  const std::wstring path = tree_.ResultPath(clock_.local);
  const platform::File reader = platform::File::OpenUnobtrusive(path);
  ASSERT_TRUE(reader.IsOpen());
  WriteResult(clock_.local, 6, 0);
  EXPECT_EQ(kyd::SumOfDays(Look()).sent, 11U);
}

#ifndef _WIN32
TEST_F(SurveyTest, ReportsWhatIsUnreadable) {
  MakeFile(tree_.UploadPath(L"alice"), L"a.log", "1");
  WriteResult(clock_.local, 5, 0);
  Survey survey;
  kyd_test::RunWithout({{SYS_openat, EACCES, {}}}, [&] {
    survey = Look(1);
    return true;
  });
  EXPECT_THAT(
      survey.unreadable,
      ElementsAre(IsUnreadable(tree_.UploadPath(), platform::kErrorAccessDenied),
                  IsUnreadable(tree_.ResultPath(clock_.local), platform::kErrorAccessDenied)));
}

// stat and fstatat by name have no flags; those of an open folder do.
constexpr kyd_test::CallArgument kOfAPath{3, 0};

TEST_F(SurveyTest, CountsFilesWithoutDetails) {
  MakeFile(tree_.UploadPath(L"alice"), L"a.log", "1");
  MakeFile(tree_.UploadPath(L"alice"), L"b.log", "1");
  Survey survey;
  // The credential file cannot be looked up either.
  kyd_test::RunWithout({{SYS_newfstatat, EACCES, kOfAPath}}, [&] {
    survey = Look(1);
    return true;
  });
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice"));
  const AccountStatus alice = AccountNamed(L"alice", survey);
  EXPECT_EQ(alice.waiting.files, 2U);
  EXPECT_FALSE(alice.waiting.oldest);
  EXPECT_FALSE(alice.has_credentials);
  EXPECT_FALSE(survey.unreadable.empty());
}

TEST_F(SurveyTest, DoesNotCountAFileThatDisappears) {
  MakeFile(tree_.UploadPath(L"alice"), L"a.log", "1");
  Survey survey;
  kyd_test::RunWithout({{SYS_newfstatat, ENOENT, kOfAPath}}, [&] {
    survey = Look(1);
    return true;
  });
  EXPECT_THAT(AccountNames(survey), ElementsAre(L"alice"));
  EXPECT_EQ(AccountNamed(L"alice", survey).waiting.files, 0U);
  EXPECT_TRUE(survey.unreadable.empty());
}
#endif

}  // namespace
