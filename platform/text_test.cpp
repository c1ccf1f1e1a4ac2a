#include "platform/text.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

TEST(Utf8, ValidatesWellFormedTextOnly) {
  EXPECT_TRUE(isValidUtf8("Получаем ключ…"));
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_FALSE(isValidUtf8("\xC0\xAF"));          // overlong "/"
  EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(isValidUtf8("\xF4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(isValidUtf8("abc\xD0"));           // truncated
}

TEST(Utf8, PrefixCountsCharactersNotBytes) {
  EXPECT_EQ(utf8Prefix("ABCDEFGH-1234", 8), "ABCDEFGH");
  EXPECT_EQ(utf8Prefix("идентификатор", 4), "иден");
  EXPECT_EQ(utf8Prefix("abc", 8), "abc");
}

TEST(Utf8, RepairReplacesEachBadByte) {
  EXPECT_EQ(repairUtf8("a\xFF"
                       "b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(repairUtf8("ok"), "ok");
}

TEST(Trim, RemovesSpacesAndLineEndsAtBothEnds) {
  EXPECT_EQ(trimWhitespace("  \tkey = value\r\n"), "key = value");
  EXPECT_EQ(trimWhitespace(" \n "), "");
}

}  // namespace
}  // namespace norvik
