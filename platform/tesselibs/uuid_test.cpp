#include "tesselibs/uuid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

TEST(UuidTest, RandomIdentifiersAreVersion4InCanonicalForm) {
  const auto first = UUID_CreateRandom();
  const auto second = UUID_CreateRandom();
  ASSERT_TRUE(first && second);
  EXPECT_NE(*first, *second);
  const std::string hex4 = "[0-9a-f][0-9a-f][0-9a-f][0-9a-f]";
  const std::string hex3 = "[0-9a-f][0-9a-f][0-9a-f]";
  EXPECT_THAT(*first, testing::MatchesRegex(hex4 + hex4 + "-" + hex4 + "-4" + hex3 + "-[89ab]" +
                                            hex3 + "-" + hex4 + hex4 + hex4));
}

TEST(UuidTest, OnlyTheCanonicalTextFormIsPacked) {
  UUID_Packed packed{};
  ASSERT_EQ(UUID_PackText("00112233-4455-6677-8899-AABBccddeeff", packed), 16U);
  EXPECT_EQ(packed, (UUID_Packed{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa,
                                 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
  for (const char* text :
       {"", "00112233445566778899aabbccddeeff", "{00112233-4455-6677-8899-aabbccddeeff}",
        "00112233-4455-6677-8899-aabbccddeef", "00112233-4455-6677-8899-aabbccddeefg",
        "0011223344-55-6677-8899-aabbccddeeff"}) {
    EXPECT_EQ(UUID_PackText(text, packed), 0U) << text;
  }
}

}  // namespace
