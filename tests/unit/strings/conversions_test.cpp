// Number, variant and string conversions: the exact text written, and how text is read.
// The expected texts follow the documented formats; odd results of the contract say so.
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cwchar>

#include "tests/unit/TestText.h"

using namespace test_text;

namespace {

struct Made {
  IString* made;  // released by the check
  const wchar_t* text;
};

void ExpectTexts(std::initializer_list<Made> cases) {
  for (const Made& c : cases) EXPECT_EQ(Take(c.made), c.text);
}

TEST(ISCreate, WritesTextIntegersHexAndLabels) {
  ExpectTexts({
      {ISCreate(L"plane"), L"plane"}, {ISCreate(static_cast<const wchar_t*>(nullptr)), L""},
      {ISCreate(0), L"0"}, {ISCreate(-42), L"-42"}, {ISCreate(INT_MIN), L"-2147483648"},
      // At least six upper-case hex digits.
      {ISCreateHex(0xFF), L"#0000FF"}, {ISCreateHex(0xabcdef), L"#ABCDEF"},
      {ISCreateHex(0x1000000), L"#1000000"}, {ISCreateHex(0xDEADBEEF), L"#DEADBEEF"},
      // The width counts the sign.
      {ISLabel(L"Cam", 3, L'_', 3), L"Cam_003"}, {ISLabel(L"P", 1234, L'-', 2), L"P-1234"},
      {ISLabel(L"", -5, L':', 4), L":-005"}, {ISLabel(nullptr, 7, L'#', 0), L"#7"}, {ISLabel(L"Ω", 1, L'é', 2), L"Ωé01"},
  });
}

TEST(ISCreate, DoublesTakeTheFewestDecimalsUpToNine) {
  ExpectTexts({
      {ISCreate(0.1, -1), L"0.1"}, {ISCreate(2.0, -1), L"2"}, {ISCreate(-3.25, -1), L"-3.25"},
      {ISCreate(0.15, -1), L"0.15"}, {ISCreate(1e20, -1), L"100000000000000000000"},
      {ISCreate(0.25, -7), L"0.25"},  // any negative count searches, not only -1
      // Above 0.9999999 or below 1e-8 the search ends at once.
      {ISCreate(0.99999999, -1), L"1"}, {ISCreate(1e-9, -1), L"0"}, {ISCreate(7.000000001, -1), L"7"},
      // Unsettled fractions end with nine decimals.
      {ISCreate(1.0 / 3.0, -1), L"0.333333333"}, {ISCreate(-2.0 / 3.0, -1), L"-0.666666667"},
      {ISCreate(3.14159, 2), L"3.14"}, {ISCreate(2.0, 0), L"2"}, {ISCreate(0.5, 3), L"0.500"},
  });
  const std::wstring huge = Take(ISCreate(DBL_MAX, -1));
  EXPECT_EQ(huge.size(), 309u);
  EXPECT_EQ(huge.substr(0, 6), L"179769");
}

TEST(ISCreateVariant, SpecialFormsReadTheInteger) {
  const SmartPtr<IVariant> bits = Variant(0x12345678);
  ExpectTexts({
      {ISCreate(Variant(0xFF), -16), L"#0000FF"}, {ISCreate(Variant(-1), -16), L"#FFFFFFFF"},
      {ISCreate(bits, -42), L"00010010"}, {ISCreate(bits, -24), L"00010010"},
      {ISCreate(bits, -32), L"00110100"}, {ISCreate(bits, -23), L"00110100"},
      {ISCreate(bits, -22), L"01010110"}, {ISCreate(bits, -2), L"01111000"}, {ISCreate(bits, -100), L"01111000"},
  });
}

TEST(ISCreateVariant, NumbersByKindAndNumericStrings) {
  ExpectTexts({
      {ISCreate(Variant(7), -1), L"7"}, {ISCreate(Variant(7), 0), L"7"},
      {ISCreate(Variant(7), 2), L"7.00"},  // an integer with decimals goes through the double form
      {ISCreate(Variant(0.1), -1), L"0.1"}, {ISCreate(Variant(2.75), 0), L"3"},
      {ISCreate(static_cast<IVariant*>(nullptr), -1), L"<null>"},
      {ISCreate(Variant(L"007"), -1), L"7"}, {ISCreate(Variant(L"1.50"), -1), L"1.5"},
      {ISCreate(Variant(L"1.50"), 3), L"1.500"}, {ISCreate(Variant(L"-12"), -1), L"-12"},
      // Integer strings of nine characters at most; white space after a digit ends the
      // test, but the whole text counts; a fraction point lifts the limit.
      {ISCreate(Variant(L"123456789"), -1), L"123456789"}, {ISCreate(Variant(L"0123456789"), -1), L"0123456789"},
      {ISCreate(Variant(L"12 apples"), -1), L"12"}, {ISCreate(Variant(L"12 apples!"), -1), L"12 apples!"},
      {ISCreate(Variant(L"12345678.5"), -1), L"12345678.5"},
      // Other strings come back as they are.
      {ISCreate(Variant(L"abc"), -1), L"abc"}, {ISCreate(Variant(L" 12"), -1), L" 12"},
      {ISCreate(Variant(L"1.2.3"), -1), L"1.2.3"}, {ISCreate(Variant(L"+5"), -1), L"+5"},
      // Without decimals strings stay and numbers search.
      {ISCreate(Variant(L"007")), L"007"}, {ISCreate(Variant(0.125)), L"0.125"}, {ISCreate(Variant(-3)), L"-3"},
      {ISCreate(static_cast<IVariant*>(nullptr)), L"<null>"},
  });
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
  variant->put_Object(buffer);
  EXPECT_EQ(Take(ISCreate(variant.get())), L"DblBuffer");
  SmartPtr<CNameless> nameless;
  nameless.Attach(new CNameless());
  variant->put_Object(nameless);
  EXPECT_EQ(Take(ISCreate(variant.get())), L"");
}

TEST(IS2Integer, SignsHexPrefixLetterDigitsAndThirtyTwoBitWrap) {
  const struct {
    const wchar_t* text;
    int base, value;
  } cases[] = {
      {L"#1F", 10, 31}, {L"#ff", 2, 255}, {L"-42", 10, -42}, {L"+7", 10, 7}, {L"-", 10, 0}, {L"#", 10, 0}, {L"", 10, 0},
      // Only the first character may be a sign or '#'; the first other character ends the number.
      {L"-#1F", 10, 0}, {L"--5", 10, 0}, {L"12x", 10, 12}, {L"12 34", 10, 12}, {L"FF", 10, 0},
      // Odd on purpose: letters are digits for bases 11 to 16 whatever the base, and
      // decimal digits are not checked against the base.
      {L"F", 11, 15}, {L"1F", 11, 26}, {L"ff", 16, 255}, {L"G", 16, 0}, {L"19", 2, 11},
      {L"4294967295", 10, -1}, {L"4294967296", 10, 0}, {L"4294967298", 10, 2}, {L"-2147483648", 10, INT_MIN},
      {L"#FFFFFFFF", 10, -1},
  };
  for (const auto& c : cases) EXPECT_EQ(_IS2Integer(View(c.text), c.base), c.value) << c.text << " base " << c.base;
  EXPECT_EQ(_IS2Integer(CREFString(), 10), 0);
  EXPECT_EQ(_IS2Integer(CREFString(L"98765", 2), 10), 98) << "the view's length bounds the scan";
}

TEST(IS2Double, DecimalTextWithoutExponentAndHexIntegers) {
  const struct {
    const wchar_t* text;
    double value;
  } decimal[] = {{L"3.25", 3.25}, {L"-0.5", -0.5}, {L"+2.5", 2.5}, {L".5", 0.5}, {L"12abc", 12.0}, {L"1.2.3", 1.2}},
    exact[] = {{L"", 0.0}, {L"1e5", 1.0}, {L"2.5E-3", 2.5}, {L"#ff", 255.0}, {L"#1A.8", 26.0}, {L"#", 0.0}};
  for (const auto& c : decimal) EXPECT_DOUBLE_EQ(_IS2Double(View(c.text)), c.value) << c.text;
  for (const auto& c : exact) EXPECT_EQ(_IS2Double(View(c.text)), c.value) << c.text;
  EXPECT_EQ(_IS2Double(CREFString()), 0.0);
  // Odd on purpose: a lone minus is negative zero.
  EXPECT_TRUE(std::signbit(_IS2Double(View(L"-"))));
  EXPECT_FALSE(std::signbit(_IS2Double(View(L"+"))));
  // The 18th fraction digit still counts; the 19th does not.
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"0.000000000000000019")), 19.0 / 1e18);
  EXPECT_DOUBLE_EQ(_IS2Double(View(L"0.0000000000000000019")), 1e-18);
  EXPECT_EQ(_IS2Double(View(L"0.00000000000000000009")), 0.0);
}

// A converted variant as text: "integer 12", "double 1.5" or "string [text]".
std::wstring Converted(CREFString& view) {
  SmartPtr<IVariant> variant;
  variant.Attach(IVCreateConvert(view));
  if (!variant) return L"<no variant>";
  if (variant->IsString()) {
    IString* s = nullptr;
    variant->get_String(&s);
    return L"string [" + Take(s) + L"]";
  }
  if (variant->get_Type() == VARIANT_INTEGER) return L"integer " + std::to_wstring(variant->get_Integer());
  wchar_t text[64];
  std::swprintf(text, 64, L"double %.17g", variant->get_Double());  // every bit
  return text;
}

TEST(IVCreateConvert, IntegersUpToNineCharactersDoublesAndElseStrings) {
  const struct {
    const wchar_t* text;
    const wchar_t* variant;
  } cases[] = {
      {L"123456789", L"integer 123456789"}, {L"1234567890", L"string [1234567890]"}, {L"-12", L"integer -12"},
      // The text behind the number counts towards the nine characters.
      {L"1 2", L"integer 1"}, {L"1 23456789", L"string [1 23456789]"},
      {L"1.5 ", L"double 1.5"}, {L"-1234567.25", L"double -1234567.25"},
      {L"+5", L"string [+5]"}, {L"#10", L"string [#10]"}, {L"abc", L"string [abc]"}, {L"1.2.3", L"string [1.2.3]"},
      {L"12a", L"string [12a]"}, {L"- 1", L"string [- 1]"},
  };
  for (const auto& c : cases) {
    std::wstring text = c.text;
    CREFString view = View(text);
    EXPECT_EQ(Converted(view), c.variant);
  }
}

TEST(IVCreateConvert, StripsBlanksControlsAndByteOrderMarkRemnants) {
  std::wstring text = L"\u00FE\u00EF \t\r\n42", blank = L" \u00FE\n";
  CREFString view = View(text), emptied = View(blank), none;
  EXPECT_EQ(Converted(view), L"integer 42");
  EXPECT_EQ(ViewText(view), L"42");
  EXPECT_EQ(Converted(emptied), L"string []");
  EXPECT_EQ(emptied.m_Length, 0);
  EXPECT_EQ(Converted(none), L"string []");
}

TEST(UTF8, DecodesSequencesOfEveryLengthAndStrayBytes) {
  const struct {
    const char* bytes;
    int length;
    std::wstring text;
  } cases[] = {
      {"plain", 5, L"plain"}, {"h\xC3\xA9", 3, L"h\u00E9"}, {"\xE2\x82\xAC", 3, L"\u20AC"},
      {"\xF0\x9F\x98\x80", 4, std::wstring(1, static_cast<wchar_t>(0x1F600))}, {"abc", 0, L""},
      {"abcdef", 2, L"ab"},  // the length counts, not a terminator
      // A continuation byte alone, and a lead byte with no byte after it, give their low six bits.
      {"\xA9", 1, L")"}, {"a\xC3", 2, L"a\x03"},
  };
  for (const auto& c : cases) EXPECT_EQ(Take(ISCreate(c.bytes, c.length)), c.text);
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

TEST(BoundedFormat, TerminatesAtTheReturnedIndexAndDropsCutText) {
  wchar_t buffer[10];
  EXPECT_EQ(_swprintf(buffer, 8, L"%d-%ls", 12, L"ab"), 5);
  EXPECT_EQ(std::wstring(buffer), L"12-ab");
  EXPECT_EQ(_swprintf(buffer, 8, L"%s", "xyz"), 3);  // narrow text needs %s in a wide format
  EXPECT_EQ(std::wstring(buffer), L"xyz");
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
