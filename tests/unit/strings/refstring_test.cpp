// CREFString: cutting lines, the tokeniser, searching and comparing views. Many results
// are odd on purpose (the contract keeps them); the cases say which.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

typedef std::vector<std::wstring> Outcomes;
typedef std::function<HRESULT(CREFString& view, CREFString* part)> Operation;

// One call as text: the result, the part it gave and what is left of the view, as
// "ok [part] [view]" ("false" for S_FALSE, "fail" for E_FAIL).
std::wstring Outcome(HRESULT hr, const CREFString& part, const CREFString& view) {
  const std::wstring code = hr == S_OK ? L"ok" : hr == S_FALSE ? L"false" : hr == E_FAIL ? L"fail" : std::to_wstring(hr);
  return code + L" [" + ViewText(part) + L"] [" + ViewText(view) + L"]";
}

// Up to `calls` calls of `op` on one view of `text`, with one part kept between them;
// stops after the first failure.
Outcomes Calls(const std::wstring& text, const Operation& op, int calls = 1) {
  CREFString view = View(text), part;
  Outcomes outcomes;
  for (int i = 0; i < calls; ++i) {
    const HRESULT hr = op(view, &part);
    outcomes.push_back(Outcome(hr, part, view));
    if (hr < 0) break;
  }
  return outcomes;
}

std::wstring Once(const std::wstring& text, const Operation& op) { return Calls(text, op, 1)[0]; }

TEST(RefString, ViewsAStringsTextAndNothingOfANullObject) {
  SmartPtr<IString> text = Str(L"abc");
  EXPECT_EQ(ViewText(CREFString(text.get())), L"abc");
  EXPECT_EQ(CREFString(static_cast<IDataStream*>(nullptr)).m_Length, 0);
  EXPECT_EQ(CREFString(static_cast<IString*>(nullptr)).m_Length, 0);
}

TEST(RefStringGetLine, CutsAtTheSeparatorAndTellsWhetherMoreFollows) {
  const Operation advance = [](CREFString& v, CREFString* p) { return v.GetLine(p, true, L',', true); };
  EXPECT_EQ(Calls(L"ab,cd", advance, 3), (Outcomes{L"ok [ab] [cd]", L"false [cd] []", L"fail [] []"}));
  const auto stay = [](bool drop) {
    return [drop](CREFString& v, CREFString* p) { return v.GetLine(p, false, L',', drop); };
  };
  EXPECT_EQ(Once(L"ab,cd", stay(false)), L"ok [ab,] [ab,cd]");
  EXPECT_EQ(Once(L"ab,", stay(true)), L"fail [ab] [ab,]");
  EXPECT_EQ(Once(L"ab,", [](CREFString& v, CREFString*) { return v.GetLine(nullptr, true, L',', true); }), L"false [] []");
}

TEST(RefStringGetLineCRLF, PairsOfDifferentEndsAreOneEnd) {
  const auto cut = [](bool dropEnd, bool advance) {
    return [=](CREFString& v, CREFString* p) { return v.GetLineCRLF(p, dropEnd, advance); };
  };
  // "\n\n" is two ends: an empty line follows.
  EXPECT_EQ(Calls(L"a\r\nb\n\nc\n\rd", cut(true, true), 6),
            (Outcomes{L"ok [a] [b\n\nc\n\rd]", L"ok [b] [\nc\n\rd]", L"ok [] [c\n\rd]", L"ok [c] [d]", L"false [d] []",
                      L"fail [] []"}));
  EXPECT_EQ(Once(L"c\n\rd", cut(false, true)), L"ok [c\n\r] [d]");
  EXPECT_EQ(Once(L"x\r", cut(false, false)), L"fail [x\r] [x\r]");  // nothing after the end
  EXPECT_EQ(Once(L"x\r", cut(true, true)), L"false [x] []");
}

TEST(RefStringGetReverseLine, TextBeforeTheLastCharacter) {
  const auto before = [](wchar_t ch, bool advance, bool skip) {
    return [=](CREFString& v, CREFString* p) { return v.GetReverseLine(p, ch, advance, skip); };
  };
  EXPECT_EQ(Once(L"dir/sub/file", before(L'/', false, false)), L"ok [dir/sub] [dir/sub/file]");
  EXPECT_EQ(Once(L"dir/sub/file", before(L'/', true, false)), L"ok [dir/sub] [/file]");
  EXPECT_EQ(Once(L"dir/sub/file", before(L'/', true, true)), L"ok [dir/sub] [file]");
  // Odd on purpose: found at index 0 is a failure.
  EXPECT_EQ(Once(L"/abc", before(L'/', true, true)), L"fail [] [/abc]");
  EXPECT_EQ(Once(L"/abc", before(L'\\', true, true)), L"fail [] [/abc]");
  EXPECT_EQ(Once(L"", before(L'/', true, true)), L"fail [] []");
}

TEST(RefStringGetLineRight, TailFromTheLastCharacterAndTheWholeForm) {
  const auto right = [](bool skip, bool wholeIfNone) {
    return [=](CREFString& v, CREFString* p) { return v.GetLineRight(p, L'.', true, skip, wholeIfNone); };
  };
  EXPECT_EQ(Once(L"a.b.c", right(true, false)), L"ok [c] [a.b]");
  EXPECT_EQ(Once(L"a.b.c", right(false, false)), L"ok [.c] [a.b.]");
  EXPECT_EQ(Once(L"abc", right(true, false)), L"fail [] [abc]");
  // The whole form empties the view; an empty view then fails and leaves the tail alone.
  EXPECT_EQ(Calls(L"abc", right(true, true), 2), (Outcomes{L"ok [abc] []", L"fail [abc] []"}));
}

TEST(RefStringCrop, LikeGetLineRightWithoutTheWholeForm) {
  const auto crop = [](bool skip) { return [=](CREFString& v, CREFString* p) { return v.Crop(p, L'.', true, skip); }; };
  EXPECT_EQ(Once(L"name.ext", crop(false)), L"ok [.ext] [name.]");
  EXPECT_EQ(Calls(L"name.ext", crop(true), 2), (Outcomes{L"ok [ext] [name]", L"fail [] [name]"}));
  EXPECT_EQ(Once(L"", crop(true)), L"fail [] []");
  CREFString negative(L"x", -3);
  EXPECT_EQ(negative.Crop(nullptr, L'x', true, true), E_FAIL);
}

// Split gives "result [left] [right]".
std::wstring SplitOf(const std::wstring& text, const std::wstring& separators, int stopAtControl) {
  CREFString view = View(text), left, right;
  return Outcome(view.Split(&left, &right, View(separators), stopAtControl), left, right);
}

TEST(RefStringSplit, AtASeparatorOrAnyValueBelowThirtyTwo) {
  EXPECT_EQ(SplitOf(L"key=value", L"=:", 0), L"ok [key] [=value]");
  EXPECT_EQ(SplitOf(L"ab\tc=d", L"=", 1), L"ok [ab] [\tc=d]");
  EXPECT_EQ(SplitOf(L"ab\tc=d", L"=", 0), L"ok [ab\tc] [=d]");
  // 31, the unit separator, is the last value that stops the scan; 32 does not.
  EXPECT_EQ(SplitOf(L"ab\x1F" L"c", L";", 1), L"ok [ab] [\x1F" L"c]");
  EXPECT_EQ(SplitOf(L"ab\x01" L"c", L";", 1), L"ok [ab] [\x01" L"c]");
  EXPECT_EQ(SplitOf(L"ab c", L";", 1), L"fail [ab c] []");
  // wchar_t is signed here: a negative value is below 32 and stops the scan too.
  const std::wstring negative = std::wstring(L"ab") + static_cast<wchar_t>(-5) + L"c";
  EXPECT_EQ(SplitOf(negative, L";", 1), L"ok [ab] [" + negative.substr(2) + L"]");
  EXPECT_EQ(SplitOf(negative, L";", 0), L"fail [" + negative + L"] []");
  // Empty separators fail even where a control character would stop the scan.
  EXPECT_EQ(SplitOf(L"ab\tc", L"", 1), L"fail [ab\tc] []");
  EXPECT_EQ(SplitOf(L"", L";", 1), L"fail [] []");
}

// All tokens of a text, joined by '|', up to the first failure.
std::wstring Tokens(const std::wstring& text) {
  std::wstring tokens;
  CREFString view = View(text), word;
  while (view.GetFirstWord(&word, true) >= 0) tokens += (tokens.empty() ? L"" : L"|") + ViewText(word);
  return tokens;
}

TEST(RefStringGetFirstWord, TokensOfEachForm) {
  const struct {
    const wchar_t* text;
    const wchar_t* tokens;
  } cases[] = {
      {L"abc,def", L"abc|,|def"},
      {L"_x", L"_|x"},  // '_' at the start is punctuation of its own
      {L"x-y", L"x"},   // '-' before a non-digit fails
      {L"-a", L""},
      {L"-", L""},
      {L"(-", L"("},
      {L"-12.5e-3x", L"-12.5e-3|x"},
      {L"1.5e3", L"1.5e3"},
      {L"1.5E+3", L"1.5E+3"},
      // The exponent needs a fraction before it and a digit after it.
      {L"1e5", L"1|e5"},
      {L"1.5e", L"1.5|e"},
      {L"1.5e-", L"1.5|e"},
      {L"1.x", L"1|.|x"},
      {L"3;-4", L"3|;|-4"},
      {L"\"open", L"open"},  // an unclosed quote runs to the end
  };
  for (const auto& c : cases) EXPECT_EQ(Tokens(c.text), c.tokens) << c.text;
}

TEST(RefStringGetFirstWord, SkipsNoWhiteSpaceAndTakesQuotedText) {
  const Operation first = [](CREFString& v, CREFString* p) { return v.GetFirstWord(p, true); };
  EXPECT_EQ(Calls(L"a_b c", first, 2), (Outcomes{L"ok [a_b] [ c]", L"fail [] [ c]"}));
  EXPECT_EQ(Once(L"\"hello world\" x", first), L"ok [hello world] [ x]");
  // Odd on purpose: empty quotes, or a lone quote, are a token of one character.
  EXPECT_EQ(Once(L"\"\"x", first), L"ok [] [\"x]");
  EXPECT_EQ(Calls(L"\"", first, 2), (Outcomes{L"ok [] []", L"fail [] []"}));
}

// GetWord gives "index+1 [word] [view]", or "0 ..." without a stop.
std::wstring WordOf(const std::wstring& text, const wchar_t* stops, bool advance) {
  CREFString view = View(text), word;
  const int at = view.GetWord(&word, advance, stops ? RefOf(stops) : tagREFString{0, nullptr});
  return (at == E_FAIL ? L"fail" : std::to_wstring(at)) + L" [" + ViewText(word) + L"] [" + ViewText(view) + L"]";
}

TEST(RefStringGetWord, ReturnsTheIndexOfTheStopPlusOne) {
  EXPECT_EQ(WordOf(L"abc def", L" ,", true), L"4 [abc] [ def]");  // the stop stays in the view
  EXPECT_EQ(WordOf(L" def", L" ", false), L"1 [] [ def]");
  EXPECT_EQ(WordOf(L"abc", L";", false), L"0 [abc] [abc]");
  EXPECT_EQ(WordOf(L"abc", nullptr, false), L"0 [abc] [abc]");
  EXPECT_EQ(WordOf(L"", L";", true), L"fail [] []");
}

HRESULT Find(const wchar_t* text, const wchar_t* wanted) {
  CREFString view(text, static_cast<int>(std::wcslen(text)));
  return view.Contains(RefOf(wanted));
}

TEST(RefStringContains, SimpleScanThatDoesNotGoBack) {
  EXPECT_EQ(Find(L"xxab", L"ab"), 2);
  EXPECT_EQ(Find(L"cab", L"ab"), 1);
  EXPECT_EQ(Find(L"abc", L"a"), 0);
  // Odd on purpose: two or more characters matched at index 0 report 1.
  EXPECT_EQ(Find(L"abc", L"ab"), 1);
  EXPECT_EQ(Find(L"abc", L"abc"), 1);
  // Odd on purpose: after a partial match the mismatching character is not tried again.
  EXPECT_EQ(Find(L"aaab", L"aab"), E_FAIL);
  EXPECT_EQ(Find(L"aab", L"ab"), E_FAIL);
  EXPECT_EQ(Find(L"abc", L"abcd"), E_FAIL);
  EXPECT_EQ(Find(L"abc", L""), E_FAIL);
  EXPECT_EQ(Find(L"", L"a"), E_FAIL);
}

TEST(RefStringContainsChar, FirstCharacterOfTheSet) {
  std::wstring text = L"a,b;c";
  CREFString view = View(text);
  EXPECT_EQ(view.ContainsChar(RefOf(L";,")), 1);
  EXPECT_EQ(view.ContainsChar(RefOf(L"a")), 0);
  EXPECT_EQ(view.ContainsChar(RefOf(L"xyz")), E_FAIL);
  EXPECT_EQ(view.ContainsChar(tagREFString{0, nullptr}), E_FAIL);
  EXPECT_EQ(CREFString().ContainsChar(RefOf(L"a")), E_FAIL);
}

HRESULT Compare(const wchar_t* a, const wchar_t* b, short prefix) {
  CREFString view(a, static_cast<int>(std::wcslen(a)));
  return view.CompareI(RefOf(b), prefix);
}

TEST(RefStringCompareI, ExactIsOkAndPrefixIsFalse) {
  EXPECT_EQ(Compare(L"abc", L"ABC", 0), S_OK);
  EXPECT_EQ(Compare(L"Xy_1", L"xY_1", 0), S_OK);
  EXPECT_EQ(Compare(L"abc", L"ABC", 1), S_OK);
  EXPECT_EQ(Compare(L"abc", L"AB", 0), S_FALSE);
  EXPECT_EQ(Compare(L"ab", L"ABC", 0), S_FALSE);
  EXPECT_EQ(Compare(L"abcd", L"ABC", 1), S_FALSE);
  EXPECT_EQ(Compare(L"ab", L"abc", 1), E_FAIL);  // view shorter than the prefix
  EXPECT_EQ(Compare(L"abd", L"abc", 0), E_FAIL);
  EXPECT_EQ(Compare(L"abc", L"", 0), E_FAIL);
  EXPECT_EQ(Compare(L"abc", L"", 1), E_FAIL);
  EXPECT_EQ(Compare(L"", L"abc", 0), E_FAIL);
}

}  // namespace
