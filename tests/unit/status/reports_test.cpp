#include "status/reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "status/page.h"

namespace {

using kyd::State;
using kyd::Survey;
using kyd::Verdict;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

Survey Example() {
  Survey survey;
  survey.log_dir = L"C:\\Kyd<Log>";
  survey.time = {2024, 5, 1, 9, 3, 7, 42};
  survey.now = 1'709'647'629;
  survey.accounts.resize(3);
  survey.accounts[0].name = L"alice";
  survey.accounts[0].waiting = {12, std::uint64_t{3} * 1024 * 1024, survey.now - 3660};
  survey.accounts[0].archived = {true, 240, 2};
  survey.accounts[0].has_credentials = true;
  survey.accounts[1].name = L"b\x1B<script>alert(1)</script>&\"'";
  survey.accounts[1].errors = 3;
  survey.accounts[1].last_error_day = platform::LocalTime{2024, 4, 30, 0, 0, 0, 0};
  survey.accounts[2].name = L"gone";
  survey.accounts[2].has_folder = false;
  survey.days.resize(2);
  survey.days[0].day = {2024, 5, 1, 0, 0, 0, 0};
  survey.days[1].day = {2024, 4, 30, 0, 0, 0, 0};
  survey.days[1].result.runs = 2;
  survey.days[1].result.folders = 3;
  survey.days[1].result.sent = 40;
  survey.days[1].result.errors = 3;
  survey.days[1].result.errors_by_account = {{L"b", 3}};
  survey.days[1].result.unfinished_blocks = 1;
  survey.days[1].result.last_run = L"23:00:01";
  survey.unreadable.push_back({L"C:\\x", 5});
  return survey;
}

Verdict Warning() {
  return {State::kWarning, {L"something <is> late"}};
}

TEST(TextReport, StartsWithTheStateAndHasAlignedColumns) {
  EXPECT_EQ(
      kyd::TextReport(Example(), Warning()),
      L"WARNING: something <is> late; 12 files wait, the oldest for 1 h 1 min; 40 sent and 3 "
      L"failed "
      L"in 2 days\n"
      L"\n"
      L"C:\\Kyd<Log> on 2024-05-01 at 09:03\n"
      L"\n"
      L"Waiting     Size     Oldest  Archived  Not sent  Credentials  Failed  Account\n"
      L"     12  3.0 MiB  1 h 1 min       240         2          yes       0  alice\n"
      L"      0      0 B          -         0         0      unknown       3  "
      L"b\xFFFD<script>alert(1)</script>&\"' (no archive folder)\n"
      L"      0      0 B          -         0         0            -       0  gone (no folder)\n"
      L"\n"
      L"       Day  Runs  Folders  Sent  Failed  Accounts with errors\n"
      L"2024-05-01     0        0     0       0  0\n"
      L"2024-04-30     2        3    40       3  1 (1 unfinished block)\n"
      L"\n"
      L"Could not be read: C:\\x (access denied)\n");
}

TEST(TextReport, ReportsAnEmptyTree) {
  const std::wstring text = kyd::TextReport({}, {});
  EXPECT_THAT(text, testing::StartsWith(L"OK: 0 files wait; 0 sent and 0 failed in 0 days\n"));
  EXPECT_THAT(text, HasSubstr(L"No accounts\n"));
}

// Returns the texts of a member in all objects of a list.
std::vector<std::string> TextsOf(const char* member, const rapidjson::Value& list) {
  std::vector<std::string> texts;
  for (const rapidjson::Value& object : list.GetArray()) {
    texts.emplace_back(object[member].GetString());
  }
  return texts;
}

// Returns the object of a list whose member has this text; null if there is none.
const rapidjson::Value& ObjectWith(const char* member, const char* text,
                                   const rapidjson::Value& list) {
  static const rapidjson::Value none;
  for (const rapidjson::Value& object : list.GetArray()) {
    if (object[member] == text) {
      return object;
    }
  }
  return none;
}

TEST(JsonReport, ContainsEveryNumber) {
  const std::string text = kyd::JsonReport(Example(), Warning());
  rapidjson::Document report;
  ASSERT_FALSE(report.Parse(text.c_str()).HasParseError());
  EXPECT_STREQ(report["state"].GetString(), "warning");
  EXPECT_STREQ(report["time"].GetString(), "2024-05-01T09:03:07");
  EXPECT_STREQ(report["logDir"].GetString(), "C:\\Kyd<Log>");
  EXPECT_EQ(report["reasons"].Size(), 1U);
  const rapidjson::Value& accounts = report["accounts"];
  const char* const strange_name = "b\x1B<script>alert(1)</script>&\"'";
  EXPECT_THAT(TextsOf("name", accounts), ElementsAre("alice", strange_name, "gone"));
  const rapidjson::Value& alice = ObjectWith("name", "alice", accounts);
  ASSERT_TRUE(alice.IsObject());
  EXPECT_STREQ(alice["waiting"]["oldest"].GetString(), "2024-03-05T13:06:09Z");
  EXPECT_EQ(alice["waiting"]["oldestAgeSeconds"].GetUint64(), 3660U);
  EXPECT_EQ(alice["archive"]["notSent"].GetUint64(), 2U);
  EXPECT_TRUE(alice["credentials"].IsTrue());
  EXPECT_TRUE(alice["lastErrorDay"].IsNull());
  const rapidjson::Value& other = ObjectWith("name", strange_name, accounts);
  ASSERT_TRUE(other.IsObject());
  EXPECT_TRUE(other["credentials"].IsNull());
  EXPECT_TRUE(other["waiting"]["oldest"].IsNull());
  EXPECT_STREQ(other["lastErrorDay"].GetString(), "2024-04-30");
  const rapidjson::Value& gone = ObjectWith("name", "gone", accounts);
  ASSERT_TRUE(gone.IsObject());
  EXPECT_TRUE(gone["folder"].IsFalse());
  const rapidjson::Value& days = report["days"];
  EXPECT_THAT(TextsOf("date", days), ElementsAre("2024-05-01", "2024-04-30"));
  const rapidjson::Value& day = ObjectWith("date", "2024-04-30", days);
  ASSERT_TRUE(day.IsObject());
  EXPECT_EQ(day["sent"].GetUint64(), 40U);
  const rapidjson::Value& failed = ObjectWith("name", "b", day["accountsWithErrors"]);
  ASSERT_TRUE(failed.IsObject());
  EXPECT_EQ(failed["errors"].GetUint64(), 3U);
  EXPECT_EQ(day["unfinishedBlocks"].GetUint64(), 1U);
  const rapidjson::Value& today = ObjectWith("date", "2024-05-01", days);
  ASSERT_TRUE(today.IsObject());
  EXPECT_TRUE(today["lastRun"].IsNull());
  EXPECT_EQ(report["totals"]["errors"].GetUint64(), 3U);
  const rapidjson::Value& unreadable = ObjectWith("path", "C:\\x", report["unreadable"]);
  ASSERT_TRUE(unreadable.IsObject());
  EXPECT_EQ(unreadable["error"].GetUint(), 5U);
}

TEST(HtmlReport, EscapesUntrustedText) {
  const std::string page = kyd::HtmlReport(Example(), Warning());
  EXPECT_THAT(page,
              HasSubstr("b\xEF\xBF\xBD&lt;script&gt;alert(1)&lt;/script&gt;&amp;&quot;&#39;"));
  EXPECT_THAT(page, HasSubstr("C:\\Kyd&lt;Log&gt;"));
  EXPECT_THAT(page, HasSubstr("something &lt;is&gt; late"));
  EXPECT_THAT(page, Not(HasSubstr("<script>alert")));
  EXPECT_THAT(page, Not(HasSubstr("\x1B")));
}

TEST(HtmlReport, ShowsTheStateInWords) {
  EXPECT_THAT(kyd::HtmlReport({}, {State::kOk, {}}), HasSubstr("<title>OK: "));
  EXPECT_THAT(kyd::HtmlReport({}, {State::kCritical, {}}), HasSubstr("<title>CRITICAL: "));
  EXPECT_THAT(kyd::HtmlReport({}, {State::kUnknown, {}}), HasSubstr("<title>UNKNOWN: "));
}

TEST(Escaped, ReplacesFiveCharacters) {
  EXPECT_EQ(kyd::Escaped(L"a&b<c>d\"e'f"), L"a&amp;b&lt;c&gt;d&quot;e&#39;f");
}

}  // namespace
