#include "platform/crypto.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

TEST(Base64, RoundTripsEveryLengthAroundThePadding) {
  for (std::size_t n = 0; n < 10; ++n) {
    Bytes data(n);
    for (std::size_t i = 0; i < n; ++i) data[i] = static_cast<std::uint8_t>(0xF0 + i);
    const std::string text = base64Encode(data);
    EXPECT_EQ(text.size(), 4 * ((n + 2) / 3));
    auto back = base64Decode(text);
    ASSERT_TRUE(back.has_value()) << text;
    EXPECT_EQ(*back, data);
  }
}

TEST(Base64, DecodeIsStrict) {
  EXPECT_EQ(base64Decode("aGVsbG8="), toBytes("hello"));
  EXPECT_FALSE(base64Decode("aGVsbG8"));     // padding missing
  EXPECT_FALSE(base64Decode("aGVs bG8="));   // white space
  EXPECT_FALSE(base64Decode("aGVsbG8=\n"));  // line break
  EXPECT_FALSE(base64Decode("aG=sbG8="));    // padding inside
  EXPECT_FALSE(base64Decode("aGVsbG8-"));    // URL alphabet
  EXPECT_FALSE(base64Decode("a==="));
  EXPECT_EQ(base64Decode(""), Bytes{});
}

TEST(Hex, IsLowerCaseTwoDigitsAByte) {
  EXPECT_EQ(hexLower(Bytes{0x00, 0x0A, 0xFF, 0x7B}), "000aff7b");
  EXPECT_EQ(hexLower(Bytes{}), "");
}

}  // namespace
}  // namespace norvik
