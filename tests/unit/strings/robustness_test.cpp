// Seeded random text through every view operation and parser. Each text sits in a heap
// block of exactly its length, so the sanitizer build catches any read past a view; the
// checks here are that result views stay inside the text and that walking a view ends.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

constexpr int kRounds = 400;
const wchar_t kAlphabet[] = L"ab_ -+.eE0123456789\"\r\n\t,;#()\u00FE\u00EF\x01";

struct Text {
  std::unique_ptr<wchar_t[]> chars;
  int length;
};

Text RandomText(std::mt19937& random) {
  const int length = std::uniform_int_distribution<int>(0, 24)(random);
  Text text{std::unique_ptr<wchar_t[]>(new wchar_t[length > 0 ? length : 1]), length};
  const int symbols = static_cast<int>(sizeof(kAlphabet) / sizeof(kAlphabet[0])) - 1;
  for (int i = 0; i < length; ++i) text.chars[i] = kAlphabet[std::uniform_int_distribution<int>(0, symbols - 1)(random)];
  return text;
}

// Every result view lies inside the text (an empty one may sit just past its end).
void ExpectInside(const Text& text, std::initializer_list<const CREFString*> views) {
  for (const CREFString* view : views) {
    if (view->m_Length == 0) continue;
    ASSERT_GT(view->m_Length, 0);
    EXPECT_GE(view->m_Text, text.chars.get());
    EXPECT_LE(view->m_Text + view->m_Length, text.chars.get() + text.length);
  }
}

TEST(RefStringRobustness, WalkingARandomViewEndsInsideTheText) {
  std::mt19937 random(20240611);
  for (int round = 0; round < kRounds; ++round) {
    const Text text = RandomText(random);
    CREFString whole(text.chars.get(), text.length);
    CREFString view = whole, part, rest;
    for (int step = 0; step <= text.length + 1 && view.GetFirstWord(&part, true) >= 0; ++step) ExpectInside(text, {&part});
    ExpectInside(text, {&view});
    int steps = 0;
    for (view = whole; view.GetLineCRLF(&part, false, true) == S_OK; ExpectInside(text, {&part})) ASSERT_LE(++steps, text.length);
    steps = 0;
    for (view = whole; view.GetLine(&part, true, L',', true) == S_OK;) ASSERT_LE(++steps, text.length);
    view = whole;
    view.GetWord(&part, true, RefOf(L" ;"));
    ExpectInside(text, {&part, &view});
    view = whole;
    view.Split(&part, &rest, CREFString(L",", 1), 1);
    ExpectInside(text, {&part, &rest});
    for (wchar_t ch : {L'.', L'a'}) {
      view = whole;
      view.GetReverseLine(&part, ch, true, true);
      ExpectInside(text, {&part, &view});
      view = whole;
      view.GetLineRight(&part, ch, true, false, true);
      ExpectInside(text, {&part, &view});
      view = whole;
      view.Crop(&part, ch, true, true);
      ExpectInside(text, {&part, &view});
    }
    const HRESULT at = whole.Contains(RefOf(L"ab"));
    EXPECT_TRUE(at == E_FAIL || (at >= 0 && at < text.length));
    const HRESULT first = whole.ContainsChar(RefOf(L"#;"));
    EXPECT_TRUE(first == E_FAIL || (first >= 0 && first < text.length));
    whole.CompareI(RefOf(L"AB_"), 1);
  }
}

TEST(ConversionRobustness, RandomTextAndBytesParseWithinTheirBuffers) {
  std::mt19937 random(77);
  for (int round = 0; round < kRounds; ++round) {
    const Text text = RandomText(random);
    CREFString view(text.chars.get(), text.length);
    _IS2Integer(view, 10);
    _IS2Integer(view, 16);
    _IS2Double(view);
    SmartPtr<IVariant> variant;
    variant.Attach(IVCreateConvert(view));
    ASSERT_TRUE(variant);
    ExpectInside(text, {&view});
    EXPECT_NE(Take(ISCreate(variant, static_cast<short>(-1))), L"<null>");
    const int length = std::uniform_int_distribution<int>(1, 12)(random);
    std::unique_ptr<char[]> bytes(new char[length]);
    for (int i = 0; i < length; ++i) bytes[i] = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
    const std::wstring decoded = Take(ISCreate(bytes.get(), length));
    EXPECT_TRUE(decoded.size() >= 1 && decoded.size() <= static_cast<size_t>(length));
  }
}

}  // namespace
