#include "configstore/error_codes.h"

#include <gtest/gtest.h>

namespace RyxConfigStore {
namespace {

TEST(StoreErrorCodes, CodeListedTwiceKeepsItsFirstText) {
  EXPECT_STREQ(CSErrorCodes.at(1030), "Invalid type, %s");
  EXPECT_STREQ(CSErrorCodes.at(1084), "Failed to validate Default config");
  EXPECT_FALSE(CSErrorCodes.contains(1085));
  EXPECT_EQ(CSErrorCodes.size(), 67U);  // 69 entries, two of them repeated codes
}

}  // namespace
}  // namespace RyxConfigStore
