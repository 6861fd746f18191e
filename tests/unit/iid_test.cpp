// Interface identifiers: hand-packed bytes for a few names and the packing quirks.
#include <gtest/gtest.h>

#include "frame/ModuleInterfaces.h"

namespace {

IID Bytes(std::initializer_list<int> values) {
  IID id{};
  int i = 0;
  for (int v : values) id.bytes[i++] = static_cast<uint8_t>(v);
  return id;
}

TEST(InterfaceIdentifier, PacksFiveBitCodesLeastSignificantFirstWithoutCase) {
  // I=9, P=16, o=15, i=9, n=14, t=20 laid end to end, 5 bits each.
  EXPECT_EQ(__IIDOfc("IPoint"), Bytes({0x09, 0xBE, 0xE4, 0x28}));
  EXPECT_EQ(IID_IPoint, Bytes({0x09, 0xBE, 0xE4, 0x28}));
  EXPECT_EQ(__IIDOfc("ipoint"), IID_IPoint);
  EXPECT_EQ(__IIDOfc(""), IID{});
}

TEST(InterfaceIdentifier, DigitsAndOtherCharacters) {
  // '3' is 31 (0b11111); '5' to '9' and '_' are 27 like any other character.
  EXPECT_EQ(__IIDOfc("3"), Bytes({0x1F}));
  EXPECT_EQ(__IIDOfc("7"), __IIDOfc("_"));
  EXPECT_EQ(__IIDOfc("9"), Bytes({27}));
  // "ICamera3DTransform": the '3' is the eighth character, at bit 35 (byte 4, bit 3).
  const IID id = __IIDOfc("ICamera3DTransform");
  EXPECT_EQ((id.bytes[4] >> 3) & 0x1F, 31);
}

TEST(InterfaceIdentifier, FourOverflowsIntoTheNextField) {
  // '4' is 32, six bits: its top bit lands on the lowest bit of the next field.
  EXPECT_EQ(__IIDOfc("A4"), Bytes({0x01, 0x04}));
  EXPECT_EQ(__IIDOfc("A4B"), Bytes({0x01, 0x0C}));
  // 'A' (1) in the next field only sets the bit that '4' already set.
  EXPECT_EQ(__IIDOfc("A4A"), __IIDOfc("A4"));
}

TEST(InterfaceIdentifier, OnlyTheFirstTwentyFiveCharactersCount) {
  EXPECT_EQ(__IIDOfc("ABCDEFGHIJKLMNOPQRSTUVWXYfirst"), __IIDOfc("ABCDEFGHIJKLMNOPQRSTUVWXYsecond"));
  EXPECT_NE(__IIDOfc("ABCDEFGHIJKLMNOPQRSTUVWXfirst"), __IIDOfc("ABCDEFGHIJKLMNOPQRSTUVWXsecond"));
  // 25 codes of 5 bits fill 125 bits: the last byte holds the 25th code's top bits.
  const IID id = __IIDOfc("ZZZZZZZZZZZZZZZZZZZZZZZZZ");
  EXPECT_EQ(id.bytes[15], 26);
}

}  // namespace
