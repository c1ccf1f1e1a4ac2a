#include "platform/defaults.h"

#include <gtest/gtest.h>

#include "testing/fakes.h"

namespace norvik {
namespace {

TEST(Defaults, StrictReadsTellAbsentFromFalseAndZero) {
  testing::MemoryDefaults d;
  d.setBool("flag", false);
  d.setInteger("count", 0);
  EXPECT_EQ(d.boolValue("flag"), false);
  EXPECT_EQ(d.integerValue("count"), 0);
  EXPECT_FALSE(d.boolValue("missing").has_value());
  EXPECT_FALSE(d.boolValue("count").has_value()) << "an integer is not a Boolean to a strict read";
  EXPECT_FALSE(d.stringValue("count").has_value());
  EXPECT_EQ(d.doubleValue("count"), 0.0) << "an integer is a number";
}

TEST(Defaults, LenientReadsConvertLikeUserDefaults) {
  testing::MemoryDefaults d;
  d.setInteger("one", 1);
  d.setDouble("pi", 3.9);
  d.setDouble("minus", -2.7);
  d.setString("digits", "42");
  d.setString("yes", "YES");
  d.setString("word", "hello");
  d.setBool("true", true);
  d.setStringArray("list", {"a"});

  EXPECT_TRUE(d.boolForKey("one"));
  EXPECT_TRUE(d.boolForKey("yes"));
  EXPECT_TRUE(d.boolForKey("digits"));
  EXPECT_FALSE(d.boolForKey("word"));
  EXPECT_FALSE(d.boolForKey("missing"));
  EXPECT_FALSE(d.boolForKey("list"));

  EXPECT_EQ(d.integerForKey("pi"), 3);
  EXPECT_EQ(d.integerForKey("minus"), -2) << "truncation toward zero";
  EXPECT_EQ(d.integerForKey("digits"), 42);
  EXPECT_EQ(d.integerForKey("true"), 1);
  EXPECT_EQ(d.integerForKey("word"), 0);
  EXPECT_DOUBLE_EQ(d.doubleForKey("digits"), 42.0);
}

}  // namespace
}  // namespace norvik
