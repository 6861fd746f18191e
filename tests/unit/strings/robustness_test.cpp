// Seeded random text through every view operation and parser. Each text sits in a heap
// block of exactly its length, so the sanitizer build catches any read past a view; the
// checks here are that result views stay inside the text and that walking a view ends.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "tests/unit/strings/StringTestSupport.h"

using namespace strings_test;

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

// A result view lies inside the text (an empty one may sit just past its end).
void ExpectInside(const Text& text, const CREFString& view) {
  if (view.m_Length == 0) return;
  ASSERT_GT(view.m_Length, 0);
  EXPECT_GE(view.m_Text, text.chars.get());
  EXPECT_LE(view.m_Text + view.m_Length, text.chars.get() + text.length);
}

TEST(RefStringRobustness, WalkingARandomViewEndsInsideTheText) {
  std::mt19937 random(20240611);
  for (int round = 0; round < kRounds; ++round) {
    const Text text = RandomText(random);
    CREFString whole(text.chars.get(), text.length);
    CREFString view = whole, part, rest;
    for (int step = 0; step <= text.length + 1 && view.GetFirstWord(&part, true) >= 0; ++step) ExpectInside(text, part);
    ExpectInside(text, view);
    view = whole;
    int steps = 0;
    while (view.GetLineCRLF(&part, false, true) == S_OK) {
      ExpectInside(text, part);
      ASSERT_LE(++steps, text.length);
    }
    view = whole;
    steps = 0;
    while (view.GetLine(&part, true, L',', true) == S_OK) ASSERT_LE(++steps, text.length);
    view = whole;
    view.GetWord(&part, true, RefOf(L" ;"));
    ExpectInside(text, part);
    ExpectInside(text, view);
    view = whole;
    view.Split(&part, &rest, CREFString(L",", 1), 1);
    ExpectInside(text, part);
    ExpectInside(text, rest);
    for (wchar_t ch : {L'.', L'a'}) {
      view = whole;
      view.GetReverseLine(&part, ch, true, true);
      ExpectInside(text, part);
      view = whole;
      view.GetLineRight(&part, ch, true, false, true);
      ExpectInside(text, part);
      ExpectInside(text, view);
      view = whole;
      view.Crop(&part, ch, true, true);
      ExpectInside(text, part);
      ExpectInside(text, view);
    }
    const HRESULT at = whole.Contains(RefOf(L"ab"));
    EXPECT_TRUE(at == E_FAIL || (at >= 0 && at < text.length));
    const HRESULT first = whole.ContainsChar(RefOf(L"#;"));
    EXPECT_TRUE(first == E_FAIL || (first >= 0 && first < text.length));
    whole.CompareI(RefOf(L"AB_"), 1);
  }
}

TEST(ConversionRobustness, RandomTextParsesWithinTheView) {
  std::mt19937 random(77);
  for (int round = 0; round < kRounds; ++round) {
    const Text text = RandomText(random);
    CREFString view(text.chars.get(), text.length);
    _IS2Integer(view, 10);
    _IS2Integer(view, 16);
    _IS2Double(view);
    IVariant* variant = IVCreateConvert(view);
    ASSERT_TRUE(variant);
    ExpectInside(text, view);
    IString* formatted = ISCreate(variant, static_cast<short>(-1));
    EXPECT_NE(Take(formatted), L"<null>");
    EXPECT_EQ(variant->Release(), 0);
  }
}

TEST(ConversionRobustness, RandomBytesDecodeWithinTheBuffer) {
  std::mt19937 random(5);
  for (int round = 0; round < kRounds; ++round) {
    const int length = std::uniform_int_distribution<int>(1, 12)(random);
    std::unique_ptr<char[]> bytes(new char[length]);
    for (int i = 0; i < length; ++i) bytes[i] = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
    const std::wstring text = Take(ISCreate(bytes.get(), length));
    EXPECT_GE(text.size(), 1u);
    EXPECT_LE(text.size(), static_cast<size_t>(length));
  }
}

}  // namespace
