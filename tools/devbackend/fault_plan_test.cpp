#include "tools/devbackend/fault_plan.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace norvik::devbackend {
namespace {

using namespace std::chrono_literals;
using Kind = FaultPlan::Kind;

TEST(FaultPlanTest, AStatusWithACountAnswersThatManyAttemptsThenStops) {
  FaultPlan plan;
  ASSERT_TRUE(plan.add(Kind::status, "main:503:2").has_value());
  EXPECT_EQ(plan.takeBeforeServing("main").status, 503);
  EXPECT_EQ(plan.takeBeforeServing("getkey").status, std::nullopt) << "other endpoints are untouched";
  EXPECT_EQ(plan.takeBeforeServing("main").status, 503);
  EXPECT_EQ(plan.takeBeforeServing("main").status, std::nullopt);
  EXPECT_TRUE(plan.empty());
}

TEST(FaultPlanTest, FaultsWithoutACountStayUntilCleared) {
  FaultPlan plan;
  ASSERT_TRUE(plan.add(Kind::delay, "getkey:20000").has_value());
  ASSERT_TRUE(plan.add(Kind::status, "getkey:429").has_value());
  for (int i = 0; i < 5; ++i) {
    const auto attempt = plan.takeBeforeServing("getkey");
    EXPECT_EQ(attempt.delay, 20000ms);
    EXPECT_EQ(attempt.status, 429);
  }
  plan.clear();
  EXPECT_EQ(plan.takeBeforeServing("getkey").delay, 0ms);
}

TEST(FaultPlanTest, MalformedIsUsedUpOnlyBySuccessfulAnswers) {
  FaultPlan plan;
  ASSERT_TRUE(plan.add(Kind::malformed, "appcast:1").has_value());
  (void)plan.takeBeforeServing("appcast");
  EXPECT_FALSE(plan.empty()) << "checking before serving does not touch the malformed fault";
  EXPECT_TRUE(plan.takeMalformed("appcast"));
  EXPECT_FALSE(plan.takeMalformed("appcast"));
}

TEST(FaultPlanTest, ANewFaultOfTheSameKindReplacesTheOldOne) {
  FaultPlan plan;
  ASSERT_TRUE(plan.add(Kind::status, "main:503:10").has_value());
  ASSERT_TRUE(plan.add(Kind::status, "main:500:1").has_value());
  EXPECT_EQ(plan.describe()["status"]["main"], (nlohmann::json{{"value", 500}, {"remaining", 1}}));
}

TEST(FaultPlanTest, BadFaultTextsAreRefusedAndQuoted) {
  FaultPlan plan;
  const std::pair<Kind, const char*> bad[] = {
      {Kind::status, "main"},         {Kind::status, "main:99"},     {Kind::status, "main:503:0"},
      {Kind::status, "main:503:x"},   {Kind::status, "mian:503"},    {Kind::delay, "getkey:-1"},
      {Kind::delay, "getkey:600001"}, {Kind::malformed, "main:1:2"}, {Kind::status, "main:503:1:1"},
      {Kind::malformed, ""},
  };
  for (const auto& [kind, text] : bad) {
    auto added = plan.add(kind, text);
    ASSERT_FALSE(added.has_value()) << text;
    EXPECT_NE(added.error().find(std::string("\"") + text + "\""), std::string::npos) << added.error();
  }
  EXPECT_TRUE(plan.empty());
  EXPECT_TRUE(plan.add(Kind::malformed, "appcast").has_value()) << "the update feed takes faults too";
}

}  // namespace
}  // namespace norvik::devbackend
