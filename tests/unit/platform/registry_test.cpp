#include "platform/registry.h"

#include <gtest/gtest.h>

#include "platform/text.h"
#include "tests/unit/support/test_registry.h"

namespace {

using platform::RegistryKey;
using platform::RegistryValue;
using Bytes = std::vector<std::uint8_t>;

constexpr wchar_t kKey[] = L"SOFTWARE\\KydPlatformTests\\Middle\\Settings";

std::optional<RegistryValue> Query(const std::wstring& key, const std::wstring& name) {
  const std::optional<RegistryKey> open =
      RegistryKey::OpenLocalMachine(key, platform::kRegistryRead);
  return open ? open->Query(name) : std::nullopt;
}

TEST(Registry, DoesNotOpenAMissingKey) {
  kyd_test::TestRegistry registry;
  EXPECT_FALSE(RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead));
  registry.MakeKey(kKey);
  EXPECT_TRUE(RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead));
  EXPECT_FALSE(
      RegistryKey::OpenLocalMachine(std::wstring(kKey) + L"\\Below", platform::kRegistryRead));
  EXPECT_FALSE(RegistryKey::OpenLocalMachine(std::wstring(kKey) + L"2", platform::kRegistryRead));
}

TEST(Registry, OpensAKeyWithEitherAccessAndInAnyCase) {
  kyd_test::TestRegistry registry;
  registry.SetDword(kKey, L"Number", 7);
  EXPECT_TRUE(RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead64));
  EXPECT_TRUE(Query(L"software\\KYDPLATFORMTESTS\\middle\\settingS", L"nUMBER"));
}

TEST(Registry, ParentOfAKeyExists) {
  kyd_test::TestRegistry registry;
  registry.MakeKey(kKey);
  EXPECT_TRUE(RegistryKey::OpenLocalMachine(L"SOFTWARE\\KydPlatformTests\\Middle",
                                            platform::kRegistryRead));
}

TEST(Registry, ReturnsADwordAsBytes) {
  kyd_test::TestRegistry registry;
  registry.SetDword(kKey, L"Number", 0x12345678);
  const std::optional<RegistryValue> value = Query(kKey, L"Number");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->type, platform::kRegistryDword);
  EXPECT_EQ(value->data, (Bytes{0x78, 0x56, 0x34, 0x12}));
  EXPECT_EQ(platform::NumberOf(*value), 0x12345678U);
}

TEST(Registry, ReturnsATextWithItsTerminator) {
  kyd_test::TestRegistry registry;
  for (const std::wstring text :
       {L"", L"C:\\logs\\\"quoted\"", L"/var/log", L"\x00E4\x20AC\U0001F600"}) {
    registry.SetText(kKey, L"Text", text);
    const std::optional<RegistryValue> value = Query(kKey, L"Text");
    ASSERT_TRUE(value);
    EXPECT_EQ(value->type, platform::kRegistryText);
    EXPECT_EQ(platform::FromUtf16Le(value->data.data(), value->data.size()), text + L'\0');
  }
}

TEST(Registry, ReturnsAllOfALongText) {
  kyd_test::TestRegistry registry;
  const std::wstring text(5000, L'x');
  registry.SetText(kKey, L"Text", text);
  const std::optional<RegistryValue> value = Query(kKey, L"Text");
  ASSERT_TRUE(value);
  EXPECT_EQ(platform::FromUtf16Le(value->data.data(), value->data.size()), text + L'\0');
}

TEST(Registry, ReportsAnotherTypeAsOther) {
  kyd_test::TestRegistry registry;
  for (const std::uint32_t type : {platform::kRegistryBinary, platform::kRegistryExpandedText}) {
    registry.SetRaw(kKey, L"Value", type, {1, 0, 0, 0});
    const std::optional<RegistryValue> value = Query(kKey, L"Value");
    ASSERT_TRUE(value) << type;
    EXPECT_NE(value->type, platform::kRegistryText);
    EXPECT_NE(value->type, platform::kRegistryDword);
  }
}

#ifdef _WIN32
// The text file that replaces the registry cannot hold malformed data.
TEST(Registry, ReturnsMalformedDataUnchanged) {
  kyd_test::TestRegistry registry;
  const struct {
    std::uint32_t type;
    Bytes data;
  } cases[] = {
      {platform::kRegistryBinary, {1, 2, 3}},
      {platform::kRegistryBinary, {}},
      {platform::kRegistryExpandedText, {'%', 0, 'x', 0, 0, 0}},
      {platform::kRegistryText, {'n', 0}},       // no terminator
      {platform::kRegistryText, {'n', 0, 'o'}},  // an odd number of bytes
      {platform::kRegistryDword, {1, 2}},        // too short for its type
      {7, {'a', 0, 0, 0, 0, 0}},
      {11, {1, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& one : cases) {
    registry.SetRaw(kKey, L"Value", one.type, one.data);
    const std::optional<RegistryValue> value = Query(kKey, L"Value");
    ASSERT_TRUE(value) << one.type;
    EXPECT_EQ(value->type, one.type);
    EXPECT_EQ(value->data, one.data) << one.type;
  }
}

#endif

TEST(Registry, ReturnsNothingForAMissingValue) {
  kyd_test::TestRegistry registry;
  registry.SetDword(kKey, L"Number", 7);
  EXPECT_FALSE(Query(kKey, L"Numbers"));
  EXPECT_FALSE(Query(kKey, L""));
  registry.Remove(kKey, L"Number");
  EXPECT_FALSE(Query(kKey, L"Number"));
  EXPECT_TRUE(RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead));
}

TEST(Registry, ReturnsTheUnnamedValue) {
  kyd_test::TestRegistry registry;
  registry.SetText(kKey, L"", L"unnamed");
  const std::optional<RegistryValue> value = Query(kKey, L"");
  ASSERT_TRUE(value);
  EXPECT_EQ(value->type, platform::kRegistryText);
}

TEST(Registry, SeparatesTheValuesOfKeys) {
  kyd_test::TestRegistry registry;
  const std::wstring below = std::wstring(kKey) + L"\\Below";
  registry.SetDword(kKey, L"Number", 1);
  registry.SetDword(below, L"Number", 2);
  EXPECT_EQ(Query(kKey, L"Number")->data.front(), 1);
  EXPECT_EQ(Query(below, L"Number")->data.front(), 2);
  registry.RemoveKey(below);
  EXPECT_FALSE(Query(below, L"Number"));
  EXPECT_TRUE(Query(kKey, L"Number"));
}

TEST(Registry, IsNotModified) {
  {
    kyd_test::TestRegistry registry;
    registry.SetDword(kKey, L"Number", 1);
  }
  EXPECT_FALSE(
      RegistryKey::OpenLocalMachine(L"SOFTWARE\\KydPlatformTests", platform::kRegistryRead));
}

TEST(Registry, KeyCanBeMoved) {
  kyd_test::TestRegistry registry;
  registry.SetDword(kKey, L"Number", 1);
  std::optional<RegistryKey> first = RegistryKey::OpenLocalMachine(kKey, platform::kRegistryRead);
  ASSERT_TRUE(first);
  RegistryKey second = std::move(*first);
  EXPECT_TRUE(second.Query(L"Number"));
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): on purpose
  EXPECT_FALSE(first->Query(L"Number"));
  *first = std::move(second);
  EXPECT_TRUE(first->Query(L"Number"));
}

}  // namespace
