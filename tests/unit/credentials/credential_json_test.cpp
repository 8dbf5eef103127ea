// Lookup of dotted paths in JSON.
#include "credentials/credential_json.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Returns the integer at the path, or -1 if there is none.
int Look(const wchar_t* path, const wchar_t* json) {
  kyd::JsonDocument document;
  document.Parse(json);
  const kyd::JsonValue* value = kyd::FindJsonValueByPath(path, document);
  return value == nullptr ? -1 : value->GetInt();
}

TEST(FindJsonValueByPath, FindsMembersAndNestedMembers) {
  EXPECT_EQ(Look(L"a", LR"({"a":1})"), 1);
  EXPECT_EQ(Look(L"a.b.c", LR"({"a":{"b":{"c":3}}})"), 3);
}

TEST(FindJsonValueByPath, ReturnsTheFirstOfSeveralMembersWithTheSameName) {
  EXPECT_EQ(Look(L"a", LR"({"a":1,"a":2})"), 1);
}

TEST(FindJsonValueByPath, SkipsEmptyComponents) {
  const wchar_t* const json = LR"({"a":{"b":2}})";
  EXPECT_EQ(Look(L"a..b", json), 2);
  EXPECT_EQ(Look(L".a.b.", json), 2);
}

TEST(FindJsonValueByPath, FindsNothingForPathsWithoutComponents) {
  const wchar_t* const json = LR"({"":1,".":2})";
  EXPECT_EQ(Look(nullptr, json), -1);
  EXPECT_EQ(Look(L"", json), -1);
  EXPECT_EQ(Look(L".", json), -1);
  EXPECT_EQ(Look(L"..", json), -1);
}

TEST(FindJsonValueByPath, FindsNothingForAMissingComponent) {
  EXPECT_EQ(Look(L"b", LR"({"a":1})"), -1);
  EXPECT_EQ(Look(L"a.c", LR"({"a":{"b":2}})"), -1);
  EXPECT_EQ(Look(L"x.b", LR"({"a":{"b":2}})"), -1);
}

TEST(FindJsonValueByPath, ComparesWholeNamesCaseSensitively) {
  EXPECT_EQ(Look(L"a", LR"({"A":1,"ab":2})"), -1);
}

TEST(FindJsonValueByPath, DoesNotMatchAMemberNamedLikeAPath) {
  EXPECT_EQ(Look(L"a.b", LR"({"a.b":1})"), -1);
}

TEST(FindJsonValueByPath, FindsNothingInValuesOtherThanObjects) {
  EXPECT_EQ(Look(L"a", L"[1]"), -1);
  EXPECT_EQ(Look(L"a", L"5"), -1);
  EXPECT_EQ(Look(L"a.b", LR"({"a":[{"b":1}]})"), -1);
  EXPECT_EQ(Look(L"a.b", LR"({"a":"b"})"), -1);
  EXPECT_EQ(Look(L"a.b", LR"({"a":null})"), -1);
}

}  // namespace
