#include "app/main_summary.h"

#include <gtest/gtest.h>

#include "testing/test_data.h"

namespace norvik::cli {
namespace {

TEST(MainSummary, NamesSectionsWhereTheyCameFromAndTheKeyFacts) {
  const std::string body = testing::readTestData("main_response.json");
  const std::string summary = summarizeMainResponse(decodeAPIResponse(body).value(), body);
  EXPECT_NE(summary.find("routing (in main)"), std::string::npos) << summary;
  EXPECT_NE(summary.find("key:          present, server 203.0.113.10"), std::string::npos);
  EXPECT_NE(summary.find("allowed [0, 1, 2], forced none, default 0, kill switch off, 2 services, lists 17"),
            std::string::npos)
      << summary;
  EXPECT_NE(summary.find("geoip:        version 2026-11-20.1, bypass on"), std::string::npos);
  EXPECT_EQ(summary.find("PrivateKey"), std::string::npos);

  const std::string minimal = R"({"main": {}, "info": {}})";
  const std::string bare = summarizeMainResponse(decodeAPIResponse(minimal).value(), minimal);
  EXPECT_NE(bare.find("sections:     main, info\n"), std::string::npos) << bare;
  EXPECT_NE(bare.find("key:          none"), std::string::npos);
}

}  // namespace
}  // namespace norvik::cli
