#include <gtest/gtest.h>

#include "platform/file.h"
#include "platform/text.h"
#include "tests/unit/support/temp_folder.h"

namespace {

using kyd_test::ReadFileBytes;
using kyd_test::WriteFileBytes;
using platform::Utf8AppendFile;

std::string Mark() {
  return "\xEF\xBB\xBF";
}

class Utf8AppendFileTest : public testing::Test {
 protected:
  void Append(const std::wstring& text) const {
    Utf8AppendFile file(path_);
    ASSERT_TRUE(file.IsOpen());
    file.Write(text);
  }

  kyd_test::TempFolder folder_;
  std::wstring path_ = folder_ / L"\x00E4.log";
};

TEST_F(Utf8AppendFileTest, NewFileStartsWithAByteOrderMark) {
  Append(L"line\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "line\r\n");
}

TEST_F(Utf8AppendFileTest, EmptyFileGetsAByteOrderMark) {
  WriteFileBytes(path_, "");
  Append(L"line\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "line\r\n");
}

TEST_F(Utf8AppendFileTest, OpeningAFileWritesTheByteOrderMark) {
  { const Utf8AppendFile file(path_); }
  EXPECT_EQ(ReadFileBytes(path_), Mark());
}

TEST_F(Utf8AppendFileTest, LaterLinesHaveNoByteOrderMark) {
  Append(L"first\n");
  Append(L"second\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "first\r\nsecond\r\n");
}

TEST_F(Utf8AppendFileTest, ExistingFileGetsNoByteOrderMark) {
  WriteFileBytes(path_, "first\r\n");
  Append(L"second \x00E4\n");
  EXPECT_EQ(ReadFileBytes(path_), "first\r\nsecond \xC3\xA4\r\n");
}

TEST_F(Utf8AppendFileTest, EveryLineFeedBecomesCrLf) {
  Append(L"\n\na\nb");
  Append(L"\r\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "\r\n\r\na\r\nb\r\r\n");
}

TEST_F(Utf8AppendFileTest, TextEndsAtItsFirstNul) {
  Append(std::wstring(L"seen\0unseen", 11));
  Append(L"");
  Append(std::wstring(1, L'\0'));
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "seen");
}

TEST_F(Utf8AppendFileTest, CharactersOfAllSizesAreUtf8) {
  Append(L"a\x00E4\x20AC\U0001F600\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\r\n");
}

TEST_F(Utf8AppendFileTest, UnpairedSurrogateDoesNotLoseTheLine) {
  Append(std::wstring{L'<', wchar_t{0xD83D}, L'>', wchar_t{0xDE00}, L'\n'});
  Append(L"next\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "<\xEF\xBF\xBD>\xEF\xBF\xBD\r\nnext\r\n");
}

TEST_F(Utf8AppendFileTest, PercentSignsAreText) {
  Append(L"100 %s %n %%\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "100 %s %n %%\r\n");
}

TEST_F(Utf8AppendFileTest, LongTextsAreWrittenCompletelyWithSurrogatePairsAnywhere) {
  // A surrogate pair at every position of a text that is longer than any buffer.
  std::wstring text;
  std::string expected = Mark();
  for (int shift = 0; shift < 2; ++shift) {
    text += L'x';
    expected += 'x';
    for (int i = 0; i < 5000; ++i) {
      text += L"\U0001F600";
      expected += "\xF0\x9F\x98\x80";
    }
    text += L"\n\n";
    expected += "\r\n\r\n";
  }
  Append(text);
  EXPECT_TRUE(ReadFileBytes(path_) == expected);
}

TEST_F(Utf8AppendFileTest, ManyLineFeedsAreWrittenCompletely) {
  Append(std::wstring(3000, L'\n'));
  EXPECT_EQ(ReadFileBytes(path_).size(), Mark().size() + 6000);
}

TEST_F(Utf8AppendFileTest, TwoWritersAppendInTurn) {
  Utf8AppendFile first(path_);
  Utf8AppendFile second(path_);
  ASSERT_TRUE(first.IsOpen());
  ASSERT_TRUE(second.IsOpen());
  first.Write(L"1\n");
  second.Write(L"2\n");
  first.Write(L"3\n");
  const std::string content = ReadFileBytes(path_);
  EXPECT_EQ(content.substr(content.size() - 9), "1\r\n2\r\n3\r\n");
}

TEST_F(Utf8AppendFileTest, CanBeReadWhileOpen) {
  Utf8AppendFile file(path_);
  file.Write(L"line\n");
  EXPECT_EQ(ReadFileBytes(path_), Mark() + "line\r\n");
}

TEST_F(Utf8AppendFileTest, IsNotOpenIfTheFileCannotBeOpened) {
  Utf8AppendFile folder(folder_.Path());
  EXPECT_FALSE(folder.IsOpen());
  folder.Write(L"ignored");
  EXPECT_FALSE(
      Utf8AppendFile((folder_ / L"missing") + platform::kPathSeparator + L"file").IsOpen());
  EXPECT_FALSE(Utf8AppendFile(L"").IsOpen());
}

}  // namespace
