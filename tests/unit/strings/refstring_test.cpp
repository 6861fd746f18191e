// CREFString: cutting lines, the tokeniser, searching and comparing views.
#include <gtest/gtest.h>

#include "tests/unit/strings/StringTestSupport.h"

using namespace strings_test;

namespace {

const tagREFString kNoText{0, nullptr};

TEST(RefStringConstruct, FromStringsAndNothing) {
  CREFString empty;
  EXPECT_EQ(empty.m_Length, 0);
  EXPECT_EQ(empty.m_Text, nullptr);
  EXPECT_EQ(CREFString(static_cast<IDataStream*>(nullptr)).m_Length, 0);
  EXPECT_EQ(CREFString(static_cast<IString*>(nullptr)).m_Length, 0);

  IString* text = ISCreate(L"abc");
  CREFString view(text);
  EXPECT_EQ(ViewText(view), L"abc");
  text->Release();
}

TEST(RefStringGetLine, CutsAtTheSeparator) {
  std::wstring text = L"ab,cd";
  CREFString view = View(text);
  CREFString line;
  EXPECT_EQ(view.GetLine(&line, true, L',', true), S_OK);
  EXPECT_EQ(ViewText(line), L"ab");
  EXPECT_EQ(ViewText(view), L"cd");
  EXPECT_EQ(view.GetLine(&line, true, L',', true), S_FALSE);  // nothing left
  EXPECT_EQ(ViewText(line), L"cd");
  EXPECT_EQ(view.m_Length, 0);
  EXPECT_EQ(view.GetLine(&line, true, L',', true), E_FAIL);
  EXPECT_EQ(line.m_Length, 0);
}

TEST(RefStringGetLine, WithoutAdvanceTellsWhetherMoreFollows) {
  std::wstring more = L"ab,cd";
  CREFString view = View(more);
  CREFString line;
  EXPECT_EQ(view.GetLine(&line, false, L',', false), S_OK);
  EXPECT_EQ(ViewText(line), L"ab,");
  EXPECT_EQ(ViewText(view), L"ab,cd");
  std::wstring last = L"ab,";
  CREFString end = View(last);
  EXPECT_EQ(end.GetLine(&line, false, L',', true), E_FAIL);
  EXPECT_EQ(ViewText(line), L"ab");
  EXPECT_EQ(end.GetLine(nullptr, true, L',', true), S_FALSE);
}

TEST(RefStringGetLineCRLF, PairsOfDifferentEndsAreOneEnd) {
  std::wstring text = L"a\r\nb\n\nc\n\rd";
  CREFString view = View(text);
  CREFString line;
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), S_OK);
  EXPECT_EQ(ViewText(line), L"a");
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), S_OK);
  EXPECT_EQ(ViewText(line), L"b");
  // "\n\n" is two ends: an empty line follows.
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), S_OK);
  EXPECT_EQ(ViewText(line), L"");
  EXPECT_EQ(view.GetLineCRLF(&line, false, true), S_OK);
  EXPECT_EQ(ViewText(line), L"c\n\r");
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), S_FALSE);
  EXPECT_EQ(ViewText(line), L"d");
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), E_FAIL);
}

TEST(RefStringGetLineCRLF, EndAtTheVeryEnd) {
  std::wstring text = L"x\r";
  CREFString view = View(text);
  CREFString line;
  EXPECT_EQ(view.GetLineCRLF(&line, false, false), E_FAIL);  // nothing after the end
  EXPECT_EQ(ViewText(line), L"x\r");
  EXPECT_EQ(view.GetLineCRLF(&line, true, true), S_FALSE);
  EXPECT_EQ(ViewText(line), L"x");
}

TEST(RefStringGetReverseLine, TextBeforeTheLastCharacter) {
  std::wstring text = L"dir/sub/file";
  CREFString line;
  CREFString view = View(text);
  EXPECT_EQ(view.GetReverseLine(&line, L'/', false, false), S_OK);
  EXPECT_EQ(ViewText(line), L"dir/sub");
  EXPECT_EQ(ViewText(view), text);
  EXPECT_EQ(view.GetReverseLine(&line, L'/', true, false), S_OK);
  EXPECT_EQ(ViewText(view), L"/file");
  view = View(text);
  EXPECT_EQ(view.GetReverseLine(&line, L'/', true, true), S_OK);
  EXPECT_EQ(ViewText(view), L"file");
}

TEST(RefStringGetReverseLine, FailsAtIndexZeroOrWhenMissing) {
  std::wstring lead = L"/abc";
  CREFString view = View(lead);
  CREFString line;
  EXPECT_EQ(view.GetReverseLine(&line, L'/', true, true), E_FAIL);
  EXPECT_EQ(line.m_Length, 0);
  EXPECT_EQ(ViewText(view), lead);
  EXPECT_EQ(view.GetReverseLine(&line, L'\\', true, true), E_FAIL);
  CREFString empty;
  EXPECT_EQ(empty.GetReverseLine(&line, L'/', true, true), E_FAIL);
}

TEST(RefStringGetLineRight, TailAndCut) {
  std::wstring text = L"a.b.c";
  CREFString tail;
  CREFString view = View(text);
  EXPECT_EQ(view.GetLineRight(&tail, L'.', true, true, false), S_OK);
  EXPECT_EQ(ViewText(tail), L"c");
  EXPECT_EQ(ViewText(view), L"a.b");
  view = View(text);
  EXPECT_EQ(view.GetLineRight(&tail, L'.', true, false, false), S_OK);
  EXPECT_EQ(ViewText(tail), L".c");
  EXPECT_EQ(ViewText(view), L"a.b.");
}

TEST(RefStringGetLineRight, MissingCharacter) {
  std::wstring text = L"abc";
  CREFString tail;
  CREFString view = View(text);
  EXPECT_EQ(view.GetLineRight(&tail, L'.', true, true, false), E_FAIL);
  EXPECT_EQ(tail.m_Length, 0);
  EXPECT_EQ(ViewText(view), L"abc");
  EXPECT_EQ(view.GetLineRight(&tail, L'.', true, true, true), S_OK);
  EXPECT_EQ(ViewText(tail), L"abc");
  EXPECT_EQ(view.m_Length, 0);
  // An empty view leaves the tail alone.
  EXPECT_EQ(view.GetLineRight(&tail, L'.', true, true, true), E_FAIL);
  EXPECT_EQ(ViewText(tail), L"abc");
}

TEST(RefStringCrop, LikeGetLineRightWithoutTheWholeForm) {
  std::wstring text = L"name.ext";
  CREFString tail;
  CREFString view = View(text);
  EXPECT_EQ(view.Crop(&tail, L'.', true, false), S_OK);
  EXPECT_EQ(ViewText(tail), L".ext");
  EXPECT_EQ(ViewText(view), L"name.");
  view = View(text);
  EXPECT_EQ(view.Crop(&tail, L'.', true, true), S_OK);
  EXPECT_EQ(ViewText(tail), L"ext");
  EXPECT_EQ(ViewText(view), L"name");
  EXPECT_EQ(view.Crop(&tail, L'.', true, true), E_FAIL);
  EXPECT_EQ(tail.m_Length, 0);
  CREFString empty;
  EXPECT_EQ(empty.Crop(&tail, L'.', true, true), E_FAIL);
  CREFString negative(L"x", -3);
  EXPECT_EQ(negative.Crop(nullptr, L'x', true, true), E_FAIL);
}

TEST(RefStringSplit, AtSeparatorOrControlCharacter) {
  std::wstring text = L"key=value";
  CREFString left, right;
  CREFString view = View(text);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L"=:", 2), 0), S_OK);
  EXPECT_EQ(ViewText(left), L"key");
  EXPECT_EQ(ViewText(right), L"=value");

  std::wstring tabbed = L"ab\tc=d";
  view = View(tabbed);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L"=", 1), 1), S_OK);
  EXPECT_EQ(ViewText(left), L"ab");
  EXPECT_EQ(ViewText(right), L"\tc=d");
  EXPECT_EQ(view.Split(&left, &right, CREFString(L"=", 1), 0), S_OK);
  EXPECT_EQ(ViewText(left), L"ab\tc");
}

TEST(RefStringSplit, ControlStopTakesEveryValueBelowThirtyTwo) {
  // wchar_t is signed here: a negative value is below 32 and stops the scan too.
  std::wstring text = L"ab";
  text.push_back(static_cast<wchar_t>(-5));
  text += L"c";
  CREFString left, right;
  CREFString view = View(text);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L";", 1), 1), S_OK);
  EXPECT_EQ(ViewText(left), L"ab");
  EXPECT_EQ(right.m_Length, 2);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L";", 1), 0), E_FAIL);
  EXPECT_EQ(left.m_Length, 4);
  // 31, the unit separator, is the last value that stops it.
  for (wchar_t control : {L'\x1F', L'\x01'}) {
    const std::wstring separated = std::wstring(L"ab") + control + L"c";
    view = View(separated);
    EXPECT_EQ(view.Split(&left, &right, CREFString(L";", 1), 1), S_OK) << int(control);
    EXPECT_EQ(ViewText(left), L"ab");
  }
  const std::wstring space = L"ab c";
  view = View(space);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L";", 1), 1), E_FAIL) << "32 does not stop it";
}

TEST(RefStringSplit, NotFound) {
  std::wstring text = L"ab\tc";
  CREFString left, right;
  CREFString view = View(text);
  EXPECT_EQ(view.Split(&left, &right, CREFString(L";", 1), 0), E_FAIL);
  EXPECT_EQ(ViewText(left), text);
  EXPECT_EQ(right.m_Length, 0);
  // Empty separators fail even where a control character would stop the scan.
  EXPECT_EQ(view.Split(&left, &right, CREFString(), 1), E_FAIL);
  EXPECT_EQ(ViewText(left), text);
  CREFString empty;
  EXPECT_EQ(empty.Split(&left, &right, CREFString(L";", 1), 1), E_FAIL);
  EXPECT_EQ(left.m_Length, 0);
}

// All tokens of a text, with advance; stops at the first failure.
std::vector<std::wstring> Tokens(const std::wstring& text, HRESULT* last = nullptr) {
  std::vector<std::wstring> tokens;
  CREFString view = View(text);
  CREFString word;
  HRESULT hr;
  while ((hr = view.GetFirstWord(&word, true)) >= 0) tokens.push_back(ViewText(word));
  if (last) *last = hr;
  return tokens;
}

TEST(RefStringGetFirstWord, WordsKeepUnderscoresAndStopAtPunctuation) {
  std::wstring text = L"a_b c";
  CREFString view = View(text);
  CREFString word;
  EXPECT_EQ(view.GetFirstWord(&word, true), S_OK);
  EXPECT_EQ(ViewText(word), L"a_b");
  EXPECT_EQ(ViewText(view), L" c");
  // No white space is skipped.
  EXPECT_EQ(view.GetFirstWord(&word, true), E_FAIL);
  EXPECT_EQ(word.m_Length, 0);
  EXPECT_EQ(Tokens(L"abc,def"), (std::vector<std::wstring>{L"abc", L",", L"def"}));
  EXPECT_EQ(Tokens(L"x-y"), (std::vector<std::wstring>{L"x"}));
  // '_' at the start is punctuation of its own.
  EXPECT_EQ(Tokens(L"_x"), (std::vector<std::wstring>{L"_", L"x"}));
}

TEST(RefStringGetFirstWord, Numbers) {
  EXPECT_EQ(Tokens(L"-12.5e-3x"), (std::vector<std::wstring>{L"-12.5e-3", L"x"}));
  EXPECT_EQ(Tokens(L"1.5e3"), (std::vector<std::wstring>{L"1.5e3"}));
  EXPECT_EQ(Tokens(L"1.5E+3"), (std::vector<std::wstring>{L"1.5E+3"}));
  // The exponent needs a fraction before it and a digit after it.
  EXPECT_EQ(Tokens(L"1e5"), (std::vector<std::wstring>{L"1", L"e5"}));
  EXPECT_EQ(Tokens(L"1.5e"), (std::vector<std::wstring>{L"1.5", L"e"}));
  EXPECT_EQ(Tokens(L"1.5e-"), (std::vector<std::wstring>{L"1.5", L"e"}));
  EXPECT_EQ(Tokens(L"1.x"), (std::vector<std::wstring>{L"1", L".", L"x"}));
  EXPECT_EQ(Tokens(L"3;-4"), (std::vector<std::wstring>{L"3", L";", L"-4"}));
}

TEST(RefStringGetFirstWord, MinusBeforeANonDigitFails) {
  HRESULT last = S_OK;
  EXPECT_TRUE(Tokens(L"-a", &last).empty());
  EXPECT_EQ(last, E_FAIL);
  EXPECT_TRUE(Tokens(L"-", &last).empty());
  EXPECT_EQ(last, E_FAIL);
  EXPECT_EQ(Tokens(L"(-"), (std::vector<std::wstring>{L"("}));
}

TEST(RefStringGetFirstWord, QuotedText) {
  std::wstring text = L"\"hello world\" x";
  CREFString view = View(text);
  CREFString word;
  EXPECT_EQ(view.GetFirstWord(&word, true), S_OK);
  EXPECT_EQ(ViewText(word), L"hello world");
  EXPECT_EQ(ViewText(view), L" x");
  // An unclosed quote runs to the end.
  EXPECT_EQ(Tokens(L"\"open"), (std::vector<std::wstring>{L"open"}));
}

TEST(RefStringGetFirstWord, EmptyQuotesAreATokenOfOneCharacter) {
  std::wstring text = L"\"\"x";
  CREFString view = View(text);
  CREFString word;
  EXPECT_EQ(view.GetFirstWord(&word, true), S_OK);
  EXPECT_EQ(word.m_Length, 0);
  EXPECT_EQ(ViewText(view), L"\"x");
  std::wstring lone = L"\"";
  view = View(lone);
  EXPECT_EQ(view.GetFirstWord(&word, true), S_OK);
  EXPECT_EQ(word.m_Length, 0);
  EXPECT_EQ(view.m_Length, 0);
  EXPECT_EQ(view.GetFirstWord(&word, true), E_FAIL);
}

TEST(RefStringGetWord, IndexOfTheStopPlusOne) {
  std::wstring text = L"abc def";
  CREFString view = View(text);
  CREFString word;
  EXPECT_EQ(view.GetWord(&word, true, RefOf(L" ,")), 4);
  EXPECT_EQ(ViewText(word), L"abc");
  EXPECT_EQ(ViewText(view), L" def");  // the stop stays in the view
  EXPECT_EQ(view.GetWord(&word, false, RefOf(L" ")), 1);
  EXPECT_EQ(word.m_Length, 0);
}

TEST(RefStringGetWord, NoStopGivesTheWholeView) {
  std::wstring text = L"abc";
  CREFString view = View(text);
  CREFString word;
  EXPECT_EQ(view.GetWord(&word, false, RefOf(L";")), 0);
  EXPECT_EQ(ViewText(word), L"abc");
  EXPECT_EQ(view.GetWord(&word, false, kNoText), 0);
  EXPECT_EQ(ViewText(word), L"abc");
  CREFString empty;
  EXPECT_EQ(empty.GetWord(&word, true, RefOf(L";")), E_FAIL);
  EXPECT_EQ(word.m_Length, 0);
}

HRESULT Find(const wchar_t* text, const wchar_t* wanted) {
  CREFString view(text, static_cast<int>(std::wcslen(text)));
  return view.Contains(RefOf(wanted));
}

TEST(RefStringContains, SimpleScanDoesNotGoBack) {
  EXPECT_EQ(Find(L"xxab", L"ab"), 2);
  EXPECT_EQ(Find(L"cab", L"ab"), 1);
  // After a partial match the mismatching character is not tried again.
  EXPECT_EQ(Find(L"aaab", L"aab"), E_FAIL);
  EXPECT_EQ(Find(L"aab", L"ab"), E_FAIL);
  EXPECT_EQ(Find(L"abc", L"abcd"), E_FAIL);
}

TEST(RefStringContains, MatchAtTheStart) {
  EXPECT_EQ(Find(L"abc", L"a"), 0);
  // Two or more characters matched at index 0 report 1.
  EXPECT_EQ(Find(L"abc", L"ab"), 1);
  EXPECT_EQ(Find(L"abc", L"abc"), 1);
}

TEST(RefStringContains, EmptyTextsFail) {
  EXPECT_EQ(Find(L"abc", L""), E_FAIL);
  EXPECT_EQ(Find(L"", L"a"), E_FAIL);
  CREFString empty;
  EXPECT_EQ(empty.Contains(kNoText), E_FAIL);
}

TEST(RefStringContainsChar, FirstCharacterOfTheSet) {
  std::wstring text = L"a,b;c";
  CREFString view = View(text);
  EXPECT_EQ(view.ContainsChar(RefOf(L";,")), 1);
  EXPECT_EQ(view.ContainsChar(RefOf(L"a")), 0);
  EXPECT_EQ(view.ContainsChar(RefOf(L"xyz")), E_FAIL);
  EXPECT_EQ(view.ContainsChar(kNoText), E_FAIL);
  EXPECT_EQ(CREFString().ContainsChar(RefOf(L"a")), E_FAIL);
}

HRESULT Compare(const wchar_t* a, const wchar_t* b, short prefix) {
  CREFString view(a, static_cast<int>(std::wcslen(a)));
  return view.CompareI(RefOf(b), prefix);
}

TEST(RefStringCompareI, ExactAndPrefixMatches) {
  EXPECT_EQ(Compare(L"abc", L"ABC", 0), S_OK);
  EXPECT_EQ(Compare(L"abc", L"AB", 0), S_FALSE);
  EXPECT_EQ(Compare(L"ab", L"ABC", 0), S_FALSE);
  EXPECT_EQ(Compare(L"abcd", L"ABC", 1), S_FALSE);
  EXPECT_EQ(Compare(L"Xy_1", L"xY_1", 0), S_OK);
}

TEST(RefStringCompareI, Failures) {
  EXPECT_EQ(Compare(L"ab", L"abc", 1), E_FAIL);  // view shorter than the prefix
  EXPECT_EQ(Compare(L"abd", L"abc", 0), E_FAIL);
  EXPECT_EQ(Compare(L"abc", L"", 0), E_FAIL);
  EXPECT_EQ(Compare(L"abc", L"", 1), E_FAIL);
  EXPECT_EQ(Compare(L"", L"abc", 0), E_FAIL);
}

}  // namespace
