#include "platform/text.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using platform::FromUtf8;
using platform::ToUtf8;
using Bytes = std::vector<std::uint8_t>;

const struct {
  const char* utf8;
  const wchar_t* wide;
} kPairs[] = {
    {"", L""},
    {"plain", L"plain"},
    {"\xC2\x80", L"\x0080"},
    {"\xC3\xA4\xC3\x9F", L"\x00E4\x00DF"},
    {"\xDF\xBF\xE0\xA0\x80", L"\x07FF\x0800"},
    {"\xE2\x82\xAC", L"\x20AC"},
    {"\xEE\x80\x80\xEF\xBF\xBD\xEF\xBF\xBF", L"\xE000\xFFFD\xFFFF"},
    {"\xF0\x90\x80\x80", L"\U00010000"},
    {"a\xF0\x9F\x98\x80z", L"a\U0001F600z"},
    {"\xF4\x8F\xBF\xBF", L"\U0010FFFF"},
    {"\xEF\xBB\xBFmark", L"\xFEFFmark"},
};

TEST(Text, ConvertsBetweenUtf8AndWide) {
  for (const auto& one : kPairs) {
    EXPECT_EQ(FromUtf8(one.utf8), one.wide) << one.utf8;
    EXPECT_EQ(ToUtf8(one.wide), one.utf8) << one.utf8;
  }
}

TEST(Text, KeepsNulCharacters) {
  const std::string utf8("a\0b\0", 4);
  const std::wstring wide(L"a\0b\0", 4);
  EXPECT_EQ(FromUtf8(utf8), wide);
  EXPECT_EQ(ToUtf8(wide), utf8);
}

TEST(Text, InvalidUtf8BecomesReplacementCharacters) {
  const char* const cases[] = {
      "\x80",              // a lone continuation byte
      "\xBF",              //
      "\xC3",              // truncated
      "\xE2\x82",          //
      "\xF0\x9F\x98",      //
      "\xC0\x80",          // overlong
      "\xC1\xBF",          //
      "\xE0\x80\x80",      //
      "\xF0\x80\x80\x80",  //
      "\xED\xA0\x80",      // surrogates
      "\xED\xBF\xBF",      //
      "\xF4\x90\x80\x80",  // above U+10FFFF
      "\xF5\x80\x80\x80",  //
      "\xFE",              // never in UTF-8
      "\xFF",              //
  };
  for (const std::string invalid : cases) {
    SCOPED_TRACE(testing::PrintToString(invalid));
    const std::wstring text = FromUtf8("<" + invalid + ">");
    ASSERT_GE(text.size(), 3U);
    EXPECT_EQ(text.front(), L'<');
    EXPECT_EQ(text.back(), L'>');
    // How many replacement characters one sequence becomes depends on the version of Windows.
    EXPECT_EQ(text.find_first_not_of(L'\xFFFD', 1), text.size() - 1);
    const std::wstring at_the_end = FromUtf8("<" + invalid);
    ASSERT_GE(at_the_end.size(), 2U);
    EXPECT_EQ(at_the_end.find_first_not_of(L'\xFFFD', 1), std::wstring::npos);
  }
}

TEST(Text, UnpairedSurrogateBecomesAReplacementCharacter) {
  EXPECT_EQ(ToUtf8(std::wstring{L'<', wchar_t{0xD83D}, L'>'}), "<\xEF\xBF\xBD>");
  EXPECT_EQ(ToUtf8(std::wstring{L'<', wchar_t{0xDE00}, L'>'}), "<\xEF\xBF\xBD>");
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xD83D}}), "\xEF\xBF\xBD");
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xDE00}, wchar_t{0xD83D}}), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xD83D}, wchar_t{0xD83D}, wchar_t{0xDE00}}),
            "\xEF\xBF\xBD\xF0\x9F\x98\x80");
}

TEST(Text, SurrogatePairIsOneCharacter) {
  EXPECT_EQ(ToUtf8(std::wstring{wchar_t{0xD83D}, wchar_t{0xDE00}}), "\xF0\x9F\x98\x80");
}

TEST(Text, LongTextsAreConvertedCompletely) {
  // Longer than one system call converts, with a character across every such boundary.
  std::string utf8(1, 'x');
  std::wstring wide(1, L'x');
  while (utf8.size() < std::size_t{5} << 20) {
    utf8 += "\xF0\x9F\x98\x80\xE2\x82\xAC";
    wide += L"\U0001F600\x20AC";
  }
  EXPECT_TRUE(FromUtf8(utf8) == wide);
  EXPECT_TRUE(ToUtf8(wide) == utf8);
  EXPECT_TRUE(FromUtf8(utf8.substr(1)) == wide.substr(1));
  EXPECT_TRUE(ToUtf8(wide.substr(1)) == utf8.substr(1));
}

TEST(Text, TextAfterALongRunOfInvalidBytesIsKept) {
  const std::string invalid(std::size_t{3} << 20, '\x80');
  const std::wstring text = FromUtf8(invalid + "end");
  EXPECT_EQ(text.substr(text.size() - 3), L"end");
  EXPECT_EQ(text.find_first_not_of(L'\xFFFD'), text.size() - 3);
}

TEST(Text, ConvertsBetweenUtf16AndWide) {
  const Bytes bytes = {0x61, 0, 0xE4, 0, 0xAC, 0x20, 0, 0, 0x3D, 0xD8, 0x00, 0xDE};
  const std::wstring wide(L"a\x00E4\x20AC\0\U0001F600", sizeof(wchar_t) == 2 ? 6 : 5);
  EXPECT_EQ(platform::FromUtf16Le(bytes.data(), bytes.size()), wide);
  EXPECT_EQ(platform::ToUtf16Le(wide), bytes);
}

TEST(Text, Utf16OfEmptyTextIsEmpty) {
  EXPECT_EQ(platform::FromUtf16Le(nullptr, 0), L"");
  EXPECT_TRUE(platform::ToUtf16Le(L"").empty());
}

TEST(Text, TrailingOddByteIsIgnored) {
  const Bytes bytes = {0x61, 0, 0x62};
  EXPECT_EQ(platform::FromUtf16Le(bytes.data(), bytes.size()), L"a");
  EXPECT_EQ(platform::FromUtf16Le(bytes.data(), 1), L"");
}

TEST(Text, UnpairedSurrogatesSurviveUtf16) {
  const Bytes cases[] = {
      {0x3D, 0xD8},                          // high
      {0x00, 0xDE},                          // low
      {0x00, 0xDE, 0x3D, 0xD8},              // reversed order
      {0x3D, 0xD8, 0x61, 0},                 // high, then a letter
      {0x3D, 0xD8, 0x3D, 0xD8, 0x00, 0xDE},  // high, then a pair
      {0x3D, 0xD8, 0x00, 0xDE, 0x00, 0xDE},  // a pair, then low
  };
  for (const Bytes& bytes : cases) {
    EXPECT_EQ(platform::ToUtf16Le(platform::FromUtf16Le(bytes.data(), bytes.size())), bytes);
  }
}

TEST(Text, MultiByteCharacterMayStandAnywhereAmongLetters) {
  struct {
    const wchar_t* wide;
    const char* utf8;
  } const characters[] = {
      {L"\x0080", "\xC2\x80"},
      {L"\x00FF", "\xC3\xBF"},
      {L"\x0141", "\xC5\x81"},  // its low byte is a letter
      {L"\x20AC", "\xE2\x82\xAC"},
  };
  for (const auto& character : characters) {
    for (std::size_t before = 0; before <= 40; ++before) {
      for (const std::size_t after : {std::size_t{0}, std::size_t{1}, 40 - before}) {
        const std::wstring wide =
            std::wstring(before, L'a') + character.wide + std::wstring(after, L'z');
        const std::string utf8 =
            std::string(before, 'a') + character.utf8 + std::string(after, 'z');
        ASSERT_EQ(ToUtf8(wide), utf8);
        ASSERT_EQ(FromUtf8(utf8), wide);
        ASSERT_EQ(platform::FromNativePath(platform::ToNativePath(wide)), wide);
      }
    }
  }
}

TEST(Text, NativeTextIsTheSameText) {
  for (const auto& one : kPairs) {
    EXPECT_EQ(platform::FromNative(platform::ToNative(one.wide)), one.wide);
    EXPECT_EQ(platform::FromNativePath(platform::ToNativePath(one.wide)), one.wide);
  }
}

#ifdef _WIN32
TEST(Text, NativeTextIsUnchanged) {
  const std::wstring text = {L'a', wchar_t{0xD83D}, L'b', wchar_t{0xDC80}};
  EXPECT_EQ(platform::ToNative(text), text);
  EXPECT_EQ(platform::FromNative(text), text);
  EXPECT_EQ(platform::ToNativePath(text), text);
  EXPECT_EQ(platform::FromNativePath(text), text);
}
#else
TEST(Text, NativeTextIsUtf8) {
  EXPECT_EQ(platform::ToNative(L"\x00E4\xDC80"), "\xC3\xA4\xEF\xBF\xBD");
  EXPECT_EQ(platform::FromNative("\xC3\xA4\x80"), L"\x00E4\xFFFD");
}

TEST(Text, InvalidCodePointsBecomeReplacementCharacters) {
  const std::wstring text = {wchar_t{0x110000}, static_cast<wchar_t>(-1), wchar_t{0x7FFFFFFF}};
  EXPECT_EQ(ToUtf8(text), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(platform::ToUtf16Le(text), (Bytes{0xFD, 0xFF, 0xFD, 0xFF, 0xFD, 0xFF}));
}

TEST(Text, EveryFileNameRoundTrips) {
  // Every single byte, and every pair of bytes between valid characters.
  for (int first = 1; first < 256; ++first) {
    for (int second = 1; second < 256; ++second) {
      const std::string name = {
          '\xC3', '\xA4', static_cast<char>(first), static_cast<char>(second), '\xE2',
          '\x82', '\xAC'};
      ASSERT_EQ(platform::ToNativePath(platform::FromNativePath(name)), name) << first << second;
      const std::string start = name.substr(2, 3);  // ends in a truncated character
      ASSERT_EQ(platform::ToNativePath(platform::FromNativePath(start)), start) << first << second;
    }
  }
}

TEST(Text, UndecodableByteIsALowSurrogate) {
  EXPECT_EQ(platform::FromNativePath("a\x80\xFFz"), L"a\xDC80\xDCFFz");
  EXPECT_EQ(platform::FromNativePath("\xED\xB2\x80"), L"\xDCED\xDCB2\xDC80");
  EXPECT_EQ(platform::ToNativePath(L"a\xDC80\xDCFFz"), "a\x80\xFFz");
}

TEST(Text, OtherSurrogatesAreInvalidInAPath) {
  EXPECT_EQ(platform::ToNativePath(L"\xDC7F|\xDD00|\xD800"),
            "\xEF\xBF\xBD|\xEF\xBF\xBD|\xEF\xBF\xBD");
}
#endif

std::wstring WithSeparators(std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', platform::kPathSeparator);
  return path;
}

TEST(Text, PathsAreJoinedWithoutNormalising) {
  EXPECT_EQ(platform::JoinPath(L"a"), L"a");
  EXPECT_EQ(platform::JoinPath(L"a/", L"b"), L"a/" + WithSeparators(L"/b"));
  EXPECT_EQ(platform::JoinPath(L"a", std::wstring(L"b"), std::wstring_view(L""), L"c"),
            WithSeparators(L"a/b//c"));
}

TEST(Text, FolderPrefixEndsInTheLastSeparator) {
  const struct {
    const wchar_t* path;
    const wchar_t* prefix;
  } cases[] = {
      {L"", L""}, {L"a", L""}, {L"/", L"/"}, {L"/a", L"/"}, {L"a/b", L"a/"}, {L"/a/b/", L"/a/b/"},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(platform::FolderPrefixOf(WithSeparators(one.path)), WithSeparators(one.prefix));
  }
}

TEST(Text, ExtensionsAreComparedIgnoringCase) {
  EXPECT_TRUE(platform::EndsWithIgnoringCase(L"a.LOG", L".log"));
  EXPECT_TRUE(platform::EndsWithIgnoringCase(L".log", L".log"));
  EXPECT_TRUE(platform::EndsWithIgnoringCase(L"a", L""));
  EXPECT_FALSE(platform::EndsWithIgnoringCase(L"log", L".log"));
  EXPECT_FALSE(platform::EndsWithIgnoringCase(L"a.log.bak", L".log"));
}

TEST(Text, NamesAreComparedIgnoringCase) {
  const struct {
    const wchar_t* left;
    const wchar_t* right;
    bool expected;
  } cases[] = {
      {L"", L"", true},
      {L"OutputLog", L"outputLOG", true},
      {L"a.LOG", L"A.log", true},
      {L"\x00C4\x00D6", L"\x00E4\x00F6", true},  // umlauts
      {L"\x042F", L"\x044F", true},              // Cyrillic
      {L"\x0178", L"\x00FF", true},
      {L"a", L"b", false},
      {L"a", L"", false},
      {L"a", L"ab", false},
      {L"[", L"{", false},
      {L"@", L"`", false},
      {L"\x00DF", L"SS", false},  // one character only
      {L"\x00E4", L"a", false},
      {L"\x0131", L"I", false},  // no letter of another alphabet equals an ASCII letter
      {L"\x212A", L"k", false},
      {L"\x4E2D", L"\x4E2E", false},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(platform::EqualsIgnoringCase(one.left, one.right), one.expected)
        << ToUtf8(one.left) << " " << ToUtf8(one.right);
    EXPECT_EQ(platform::EqualsIgnoringCase(one.right, one.left), one.expected);
  }
}

TEST(Text, NamesAreComparedPastNulCharacters) {
  EXPECT_FALSE(
      platform::EqualsIgnoringCase(std::wstring_view(L"a\0b", 3), std::wstring_view(L"a\0c", 3)));
}

}  // namespace
