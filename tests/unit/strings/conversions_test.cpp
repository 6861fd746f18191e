// Number, variant and string conversions: the exact text written, and how text is read.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>

#include "frame/Components.h"
#include "tests/unit/strings/StringTestSupport.h"

using namespace strings_test;

namespace {

TEST(ISCreateText, PlainTextAndNull) {
  EXPECT_EQ(Take(ISCreate(L"plane")), L"plane");
  EXPECT_EQ(Take(ISCreate(static_cast<const wchar_t*>(nullptr))), L"");
}

TEST(ISCreateText, IntegersUseDecimalDigits) {
  EXPECT_EQ(Take(ISCreate(0)), L"0");
  EXPECT_EQ(Take(ISCreate(-42)), L"-42");
  EXPECT_EQ(Take(ISCreate(INT_MIN)), L"-2147483648");
}

TEST(ISCreateText, HexHasAtLeastSixUpperCaseDigits) {
  EXPECT_EQ(Take(ISCreateHex(0xFF)), L"#0000FF");
  EXPECT_EQ(Take(ISCreateHex(0)), L"#000000");
  EXPECT_EQ(Take(ISCreateHex(0xabcdef)), L"#ABCDEF");
  EXPECT_EQ(Take(ISCreateHex(0xFFFFFF)), L"#FFFFFF");
  EXPECT_EQ(Take(ISCreateHex(0x1000000)), L"#1000000");
  EXPECT_EQ(Take(ISCreateHex(0xDEADBEEF)), L"#DEADBEEF");
}

TEST(ISCreateText, LabelsPadTheNumber) {
  EXPECT_EQ(Take(ISLabel(L"Cam", 3, L'_', 3)), L"Cam_003");
  EXPECT_EQ(Take(ISLabel(L"P", 1234, L'-', 2)), L"P-1234");
  // The width counts the sign.
  EXPECT_EQ(Take(ISLabel(L"", -5, L':', 4)), L":-005");
  EXPECT_EQ(Take(ISLabel(nullptr, 7, L'#', 0)), L"#7");
  EXPECT_EQ(Take(ISLabel(L"Ω", 1, L'é', 2)), L"Ωé01");
}

TEST(ISCreateDouble, FindsTheFewestDecimals) {
  EXPECT_EQ(Take(ISCreate(0.1, -1)), L"0.1");
  EXPECT_EQ(Take(ISCreate(2.0, -1)), L"2");
  EXPECT_EQ(Take(ISCreate(-3.25, -1)), L"-3.25");
  EXPECT_EQ(Take(ISCreate(0.15, -1)), L"0.15");
  EXPECT_EQ(Take(ISCreate(1e20, -1)), L"100000000000000000000");
  // Any negative count searches, not only -1.
  EXPECT_EQ(Take(ISCreate(0.25, -7)), L"0.25");
}

TEST(ISCreateDouble, FractionsNearWholeStopAtOnce) {
  // Above 0.9999999 or below 1e-8 the search ends at d = 0.
  EXPECT_EQ(Take(ISCreate(0.99999999, -1)), L"1");
  EXPECT_EQ(Take(ISCreate(1e-9, -1)), L"0");
  EXPECT_EQ(Take(ISCreate(7.000000001, -1)), L"7");
}

TEST(ISCreateDouble, UnsettledFractionsEndWithNineDecimals) {
  EXPECT_EQ(Take(ISCreate(1.0 / 3.0, -1)), L"0.333333333");
  EXPECT_EQ(Take(ISCreate(-2.0 / 3.0, -1)), L"-0.666666667");
}

TEST(ISCreateDouble, FixedDecimalsRound) {
  EXPECT_EQ(Take(ISCreate(3.14159, 2)), L"3.14");
  EXPECT_EQ(Take(ISCreate(2.0, 0)), L"2");
  EXPECT_EQ(Take(ISCreate(0.5, 3)), L"0.500");
}

TEST(ISCreateDouble, HugeValuesKeepAllDigits) {
  const std::wstring text = Take(ISCreate(DBL_MAX, -1));
  ASSERT_EQ(text.size(), 309u);
  EXPECT_EQ(text.substr(0, 6), L"179769");
}

TEST(ISCreateVariant, SpecialFormsReadTheInteger) {
  EXPECT_EQ(Take(ISCreate(IntegerVariant(0xFF), -16)), L"#0000FF");
  EXPECT_EQ(Take(ISCreate(IntegerVariant(-1), -16)), L"#FFFFFFFF");
  const SmartPtr<IVariant> bits = IntegerVariant(0x12345678);
  EXPECT_EQ(Take(ISCreate(bits, -42)), L"00010010");
  EXPECT_EQ(Take(ISCreate(bits, -24)), L"00010010");
  EXPECT_EQ(Take(ISCreate(bits, -32)), L"00110100");
  EXPECT_EQ(Take(ISCreate(bits, -23)), L"00110100");
  EXPECT_EQ(Take(ISCreate(bits, -22)), L"01010110");
  EXPECT_EQ(Take(ISCreate(bits, -2)), L"01111000");
  EXPECT_EQ(Take(ISCreate(bits, -100)), L"01111000");
}

TEST(ISCreateVariant, NumbersByKind) {
  EXPECT_EQ(Take(ISCreate(IntegerVariant(7), -1)), L"7");
  EXPECT_EQ(Take(ISCreate(IntegerVariant(7), 0)), L"7");
  // An integer with decimals asked for goes through the double form.
  EXPECT_EQ(Take(ISCreate(IntegerVariant(7), 2)), L"7.00");
  EXPECT_EQ(Take(ISCreate(DoubleVariant(0.1), -1)), L"0.1");
  EXPECT_EQ(Take(ISCreate(DoubleVariant(2.75), 0)), L"3");
  EXPECT_EQ(Take(ISCreate(static_cast<IVariant*>(nullptr), -1)), L"<null>");
}

TEST(ISCreateVariant, NumericStringsAreReformatted) {
  EXPECT_EQ(Take(ISCreate(StringVariant(L"007"), -1)), L"7");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"1.50"), -1)), L"1.5");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"1.50"), 3)), L"1.500");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"-12"), -1)), L"-12");
}

TEST(ISCreateVariant, NineCharacterRuleForIntegerStrings) {
  EXPECT_EQ(Take(ISCreate(StringVariant(L"123456789"), -1)), L"123456789");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"0123456789"), -1)), L"0123456789");
  // White space after a digit ends the test, but the whole text counts.
  EXPECT_EQ(Take(ISCreate(StringVariant(L"12 apples"), -1)), L"12");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"12 apples!"), -1)), L"12 apples!");
  // A fraction point lifts the limit.
  EXPECT_EQ(Take(ISCreate(StringVariant(L"12345678.5"), -1)), L"12345678.5");
}

TEST(ISCreateVariant, OtherStringsComeBackAsTheyAre) {
  EXPECT_EQ(Take(ISCreate(StringVariant(L"abc"), -1)), L"abc");
  EXPECT_EQ(Take(ISCreate(StringVariant(L" 12"), -1)), L" 12");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"1.2.3"), -1)), L"1.2.3");
  EXPECT_EQ(Take(ISCreate(StringVariant(L"+5"), -1)), L"+5");
}

TEST(ISCreateVariant, WithoutDecimalsStringsStayAndNumbersSearch) {
  EXPECT_EQ(Take(ISCreate(StringVariant(L"007"))), L"007");
  EXPECT_EQ(Take(ISCreate(DoubleVariant(0.125))), L"0.125");
  EXPECT_EQ(Take(ISCreate(IntegerVariant(-3))), L"-3");
  EXPECT_EQ(Take(ISCreate(static_cast<IVariant*>(nullptr))), L"<null>");
}

// An object that has no name.
class CNameless : public CObject<CNameless> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
};

TEST(ISCreateVariant, ObjectsGiveTheirNames) {
  SmartPtr<IVariant> variant;
  variant.Attach(CREFString::CreateVariant());
  EXPECT_EQ(Take(ISCreate(variant.get())), L"");  // empty

  SmartPtr<IDblVector> buffer;
  buffer.Attach(BASEObject::CreateDBLBuffer());
  ASSERT_TRUE(buffer);
  variant->put_Object(buffer);
  EXPECT_EQ(Take(ISCreate(variant.get())), L"DblBuffer");

  CNameless* nameless = new CNameless();
  variant->put_Object(nameless);
  nameless->Release();
  EXPECT_EQ(Take(ISCreate(variant.get())), L"");
}

TEST(IS2Integer, SignsAndHexPrefix) {
  EXPECT_EQ(_IS2Integer(View(L"#1F"), 10), 31);
  EXPECT_EQ(_IS2Integer(View(L"#ff"), 2), 255);
  EXPECT_EQ(_IS2Integer(View(L"-42"), 10), -42);
  EXPECT_EQ(_IS2Integer(View(L"+7"), 10), 7);
  EXPECT_EQ(_IS2Integer(View(L"-"), 10), 0);
  EXPECT_EQ(_IS2Integer(View(L"#"), 10), 0);
  EXPECT_EQ(_IS2Integer(View(L""), 10), 0);
  EXPECT_EQ(_IS2Integer(CREFString(), 10), 0);
  // Only the first character may be a sign or '#'.
  EXPECT_EQ(_IS2Integer(View(L"-#1F"), 10), 0);
  EXPECT_EQ(_IS2Integer(View(L"--5"), 10), 0);
}

TEST(IS2Integer, StopsAtTheFirstOtherCharacter) {
  EXPECT_EQ(_IS2Integer(View(L"12x"), 10), 12);
  EXPECT_EQ(_IS2Integer(View(L"12 34"), 10), 12);
  EXPECT_EQ(_IS2Integer(View(L"FF"), 10), 0);
  // The view's length bounds the scan, not a terminator.
  EXPECT_EQ(_IS2Integer(CREFString(L"98765", 2), 10), 98);
}

TEST(IS2Integer, LetterDigitsIgnoreTheBase) {
  EXPECT_EQ(_IS2Integer(View(L"F"), 11), 15);
  EXPECT_EQ(_IS2Integer(View(L"1F"), 11), 26);  // 1 * 11 + 15
  EXPECT_EQ(_IS2Integer(View(L"ff"), 16), 255);
  EXPECT_EQ(_IS2Integer(View(L"G"), 16), 0);
  // Decimal digits are not checked against the base either.
  EXPECT_EQ(_IS2Integer(View(L"19"), 2), 11);  // 1 * 2 + 9
}

TEST(IS2Integer, WrapsInThirtyTwoBits) {
  EXPECT_EQ(_IS2Integer(View(L"4294967295"), 10), -1);
  EXPECT_EQ(_IS2Integer(View(L"4294967296"), 10), 0);
  EXPECT_EQ(_IS2Integer(View(L"4294967298"), 10), 2);
  EXPECT_EQ(_IS2Integer(View(L"-2147483648"), 10), INT_MIN);
  EXPECT_EQ(_IS2Integer(View(L"#FFFFFFFF"), 10), -1);
}

TEST(IS2Double, DecimalText) {
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"3.25")), 3.25);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"-0.5")), -0.5);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"+2.5")), 2.5);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L".5")), 0.5);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"12abc")), 12.0);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"1.2.3")), 1.2);
  EXPECT_EQ(_IS2Double(View(L"")), 0.0);
  EXPECT_EQ(_IS2Double(CREFString()), 0.0);
}

TEST(IS2Double, LoneMinusIsNegativeZero) {
  const double value = _IS2Double(View(L"-"));
  EXPECT_EQ(value, 0.0);
  EXPECT_TRUE(std::signbit(value));
  EXPECT_FALSE(std::signbit(_IS2Double(View(L"+"))));
}

TEST(IS2Double, NoExponent) {
  EXPECT_EQ(_IS2Double(View(L"1e5")), 1.0);
  EXPECT_EQ(_IS2Double(View(L"2.5E-3")), 2.5);
}

TEST(IS2Double, HexIntegers) {
  EXPECT_EQ(_IS2Double(View(L"#ff")), 255.0);
  EXPECT_EQ(_IS2Double(View(L"#1A.8")), 26.0);
  EXPECT_EQ(_IS2Double(View(L"#")), 0.0);
}

TEST(IS2Double, FractionStopsAtEighteenDigits) {
  // The 18th fraction digit still counts; the 19th does not.
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"0.000000000000000019")), 19.0 / 1e18);
  // 17 zeros, then '1' (18th) and '9' (19th): the 9 is dropped.
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"0.0000000000000000019")), 1e-18);
  EXPECT_EQ(_IS2Double(View(L"0.00000000000000000009")), 0.0);
}

struct Converted {
  short type;
  bool isString;
  int integer;
  double value;
  std::wstring text;
};

Converted Convert(CREFString& view) {
  IVariant* variant = IVCreateConvert(view);
  Converted c{};
  if (!variant) {
    ADD_FAILURE() << "no variant";
    return c;
  }
  c.type = variant->get_Type();
  c.isString = variant->IsString() != 0;
  if (c.isString) {
    IString* s = nullptr;
    variant->get_String(&s);
    c.text = Take(s);
  } else {
    c.integer = variant->get_Integer();
    c.value = variant->get_Double();
  }
  EXPECT_EQ(variant->Release(), 0);
  return c;
}

Converted Convert(const wchar_t* text) {
  CREFString view = CREFString(text, static_cast<int>(std::wcslen(text)));
  return Convert(view);
}

TEST(IVCreateConvert, IntegersUpToNineCharacters) {
  Converted c = Convert(L"123456789");
  EXPECT_EQ(c.type, VARIANT_INTEGER);
  EXPECT_EQ(c.integer, 123456789);
  c = Convert(L"1234567890");
  EXPECT_TRUE(c.isString);
  EXPECT_EQ(c.text, L"1234567890");
  c = Convert(L"-12");
  EXPECT_EQ(c.type, VARIANT_INTEGER);
  EXPECT_EQ(c.integer, -12);
  // The text behind the number counts towards the nine characters.
  c = Convert(L"1 2");
  EXPECT_EQ(c.type, VARIANT_INTEGER);
  EXPECT_EQ(c.integer, 1);
  c = Convert(L"1 23456789");
  EXPECT_TRUE(c.isString);
  EXPECT_EQ(c.text, L"1 23456789");
}

TEST(IVCreateConvert, Doubles) {
  Converted c = Convert(L"1.5 ");
  EXPECT_EQ(c.type, VARIANT_DOUBLE);
  EXPECT_EQ(c.value, 1.5);
  c = Convert(L"-1234567.25");
  EXPECT_EQ(c.type, VARIANT_DOUBLE);
  EXPECT_EQ(c.value, -1234567.25);
}

TEST(IVCreateConvert, OtherTextIsAString) {
  for (const wchar_t* text : {L"+5", L"#10", L"abc", L"1.2.3", L"12a", L"- 1"}) {
    const Converted c = Convert(text);
    EXPECT_TRUE(c.isString) << text;
    EXPECT_EQ(c.text, text);
  }
}

TEST(IVCreateConvert, StripsBlanksControlsAndByteOrderMarkRemnants) {
  std::wstring text = L"\u00FE\u00EF \t\r\n42";
  CREFString view = View(text);
  const Converted c = Convert(view);
  EXPECT_EQ(c.type, VARIANT_INTEGER);
  EXPECT_EQ(c.integer, 42);
  EXPECT_EQ(ViewText(view), L"42");

  std::wstring blank = L" \u00FE\n";
  CREFString emptied = View(blank);
  const Converted e = Convert(emptied);
  EXPECT_TRUE(e.isString);
  EXPECT_EQ(e.text, L"");
  EXPECT_EQ(emptied.m_Length, 0);

  CREFString none;
  EXPECT_TRUE(Convert(none).isString);
}

TEST(UTF8, DecodesSequencesOfEveryLength) {
  EXPECT_EQ(Take(ISCreate("plain", 5)), L"plain");
  EXPECT_EQ(Take(ISCreate("h\xC3\xA9", 3)), L"h\u00E9");
  EXPECT_EQ(Take(ISCreate("\xE2\x82\xAC", 3)), L"\u20AC");
  EXPECT_EQ(Take(ISCreate("\xF0\x9F\x98\x80", 4)), std::wstring(1, static_cast<wchar_t>(0x1F600)));
  EXPECT_EQ(Take(ISCreate("abc", 0)), L"");
  // The length counts, not a terminator.
  EXPECT_EQ(Take(ISCreate("abcdef", 2)), L"ab");
}

TEST(UTF8, StrayBytesGiveTheirLowSixBits) {
  // A continuation byte alone, and a lead byte with no byte after it.
  EXPECT_EQ(Take(ISCreate("\xA9", 1)), L")");    // 0xA9 & 0x3F = 0x29
  EXPECT_EQ(Take(ISCreate("a\xC3", 2)), L"a\x03");
}

TEST(UTF8, CutSequencesStayInsideTheBuffer) {
  int used = 0;
  const unsigned char cut[] = {0xE2, 0x82};
  UTF8Decode(cut, 2, &used);
  EXPECT_EQ(used, 2);
  const unsigned char all[] = {0xFF, 0x80, 0x80};
  UTF8Decode(all, 3, &used);
  EXPECT_EQ(used, 3);
  EXPECT_EQ(UTF8Decode(nullptr, 4, &used), 0);
  EXPECT_EQ(used, 0);
}

TEST(BoundedFormat, TerminatesAtTheReturnedIndex) {
  wchar_t buffer[8];
  EXPECT_EQ(_swprintf(buffer, 8, L"%d-%ls", 12, L"ab"), 5);
  EXPECT_EQ(std::wstring(buffer), L"12-ab");
  // Narrow text needs %s in a wide format.
  EXPECT_EQ(_swprintf(buffer, 8, L"%s", "xyz"), 3);
  EXPECT_EQ(std::wstring(buffer), L"xyz");
}

TEST(BoundedFormat, TooSmallBufferGivesEmptyTextInBounds) {
  wchar_t buffer[10];
  for (wchar_t& c : buffer) c = L'Z';
  EXPECT_EQ(_swprintf(buffer + 1, 4, L"%ls", L"abcdefgh"), -1);
  EXPECT_EQ(buffer[0], L'Z');  // nothing written before the buffer
  EXPECT_EQ(buffer[1], 0);
  EXPECT_EQ(buffer[5], L'Z');  // nor after it
  // Exactly full: the terminator needs the last place.
  EXPECT_EQ(_swprintf(buffer, 4, L"%ls", L"abcd"), -1);
  EXPECT_EQ(_swprintf(buffer, 4, L"%ls", L"abc"), 3);
  EXPECT_EQ(_swprintf(buffer, 0, L"%ls", L"a"), -1);
}

}  // namespace
