#include "backend/api_response.h"

#include <gtest/gtest.h>

#include "backend/endpoint_responses.h"
#include "backend/endpoints.h"
#include "testing/test_data.h"

namespace norvik {
namespace {

constexpr std::string_view kMinimal = R"({"main": {}, "info": {}})";

TEST(DecodeAPIResponse, ARealisticDocumentDecodesEverySection) {
  auto r = decodeAPIResponse(testing::readTestData("main_response.json"));
  ASSERT_TRUE(r.has_value()) << r.error();
  EXPECT_EQ(r->main.keyIP, "203.0.113.10");
  EXPECT_TRUE(r->main.keyData->starts_with("[Interface]"));
  EXPECT_EQ(r->main.mainDomain, "api2.norvik.app");
  EXPECT_EQ(r->main.geoipVersion, "2026-11-20.1");
  EXPECT_EQ(r->main.subExpireTs, 1797897600) << "a string of digits";
  EXPECT_EQ(r->main.telegramType, 2);
  EXPECT_EQ(r->main.migration->delayHours, 24);
  ASSERT_TRUE(r->routing.has_value()) << "found inside \"main\"";
  EXPECT_EQ(r->routing->allowedModes, (std::vector<std::int64_t>{0, 1, 2}));
  EXPECT_EQ(r->routing->services->size(), 2u);
  EXPECT_EQ(r->options->plans->at(1).modeType, "year");
  EXPECT_EQ(r->options->storePageEnabled, false);
  EXPECT_EQ(r->serviceUser->service->billingPeriod, "year");
  EXPECT_EQ(r->subPanel->paymentHistory->at(0).amountRub, 2490.0);
  EXPECT_EQ((*r->netProfile)["access"], "standard");
  EXPECT_EQ((*r->main.smartStatus)["verify_window_ms"], 5000);
  EXPECT_EQ(r->info.dialogButtons->size(), 1u);
}

TEST(DecodeAPIResponse, OnlyMainAndInfoAreRequired) {
  auto r = decodeAPIResponse(kMinimal);
  ASSERT_TRUE(r.has_value()) << r.error();
  EXPECT_FALSE(r->routing || r->options || r->serviceUser || r->subPanel || r->supportConfig || r->netProfile ||
               r->faq);
  EXPECT_FALSE(r->main.keyData.has_value());

  auto noInfo = decodeAPIResponse(R"({"main": {}})");
  ASSERT_FALSE(noInfo.has_value());
  EXPECT_EQ(noInfo.error(), "\"info\": required key is missing");
}

TEST(DecodeAPIResponse, NestedSectionsAreFoundInMainAndTheTopLevelWins) {
  auto r = decodeAPIResponse(R"({"main": {"routing": {"forced_mode": 2}, "sub_panel": {"state": "in-main"},
                                            "net_profile": {"access": "inner"}},
                                   "info": {}, "sub_panel": {"state": "top"}})");
  ASSERT_TRUE(r.has_value()) << r.error();
  EXPECT_EQ(r->routing->forcedMode, 2);
  EXPECT_EQ(r->subPanel->state, "top");
  EXPECT_EQ((*r->netProfile)["access"], "inner");
}

TEST(DecodeAPIResponse, AMalformedServiceIsDroppedAndTheOthersKept) {
  auto r = decodeAPIResponse(R"({"main": {}, "info": {}, "routing": {"services": [
      {"key": "youtube"}, {"title": "no key"}, {"key": "x", "domains": "not a list"}, 7, {"key": "telegram"}]}})");
  ASSERT_TRUE(r.has_value()) << r.error();
  ASSERT_EQ(r->routing->services->size(), 2u);
  EXPECT_EQ(r->routing->services->at(0).key, "youtube");
  EXPECT_EQ(r->routing->services->at(1).key, "telegram");
}

TEST(DecodeAPIResponse, IntegersAreLenientBothWays) {
  auto r = decodeAPIResponse(R"({"main": {"server_time": 1700000000, "sub_expire_ts": "1700000001",
                                           "cancel_type": 3.0, "tg_type": "soon", "sub_card_auto_collapse_days": 1.5},
                                   "info": {"duration_minutes": "-5"}})");
  ASSERT_TRUE(r.has_value()) << r.error();
  EXPECT_EQ(r->main.serverTime, 1700000000);
  EXPECT_EQ(r->main.subExpireTs, 1700000001);
  EXPECT_EQ(r->main.deactivateType, 3);
  EXPECT_FALSE(r->main.telegramType.has_value()) << "not a number: absent, not an error";
  EXPECT_FALSE(r->main.subCardAutoCollapseDays.has_value());
  EXPECT_EQ(r->info.durationMinutes, -5);
}

TEST(DecodeAPIResponse, AWrongTypeNamesTheFieldAndQuotesTheValue) {
  auto r = decodeAPIResponse(R"({"main": {"key_ip": 42}, "info": {}})");
  ASSERT_FALSE(r.has_value());
  EXPECT_EQ(r.error(), "\"main.key_ip\": expected a string, found a number 42");
  auto deep = decodeAPIResponse(
      R"({"main": {}, "info": {}, "sub_panel": {"state": "x", "payment_history": [{"date": 1}, {"status": false}]}})");
  EXPECT_EQ(deep.error(), "\"sub_panel.payment_history[1].status\": expected a string, found a Boolean false");
}

TEST(DecodeAPIResponse, GeopWinsOverTheLegacyName) {
  EXPECT_EQ(decodeAPIResponse(R"({"main": {"geop": false, "geo_bypass_enabled": true}, "info": {}})")->main.geoBypass(),
            false);
  EXPECT_EQ(decodeAPIResponse(R"({"main": {"geo_bypass_enabled": true}, "info": {}})")->main.geoBypass(), true);
  EXPECT_FALSE(decodeAPIResponse(kMinimal)->main.geoBypass().has_value());
}

TEST(DecodeAPIResponse, BadDocumentsFailWithoutThrowing) {
  for (std::string_view body :
       {"", "[]", "null", R"({"main": [], "info": {}})", "{\"main\": {\"main_text\": \"\xC3\x28\"}, \"info\": {}}",
        R"({"main": {}, "info": {})", R"({"main": {}, "info": {}, "sub_panel": {}})"}) {
    EXPECT_FALSE(decodeAPIResponse(body).has_value()) << body;
  }
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_FALSE(decodeAPIResponse(deep).has_value());
}

TEST(DecodeEndpointResponses, EachTypeReadsItsOwnKeys) {
  auto key =
      decodeVPNKeyResponse(R"({"result": "1", "keyData": "[Interface]", "keyIP": "198.51.100.7", "success": true})");
  ASSERT_TRUE(key.has_value());
  EXPECT_EQ(key->result, 1);
  EXPECT_EQ(key->keyIP, "198.51.100.7");
  EXPECT_FALSE(decodeVPNKeyResponse(R"({"key_data": "snake case is the main document's"})")->keyData.has_value());

  EXPECT_EQ(decodeCancelServiceResponse(R"({"title": "x"})").error(), "\"result\": required key is missing");
  EXPECT_EQ(decodeCancelServiceResponse(R"({"result": "0"})")->result, 0);

  auto transfer = decodeTransferResponse(R"({"status": false, "wait_seconds": 30, "attempts_left": 2})");
  EXPECT_EQ(transfer->wait(), 30);
  auto lists =
      decodeServiceListsResponse(R"({"version": "17", "services": {"youtube": ["1.2.3.0/24"], "telegram": []}})");
  ASSERT_TRUE(lists.has_value());
  EXPECT_EQ(lists->services->at("youtube"), (std::vector<std::string>{"1.2.3.0/24"}));
  EXPECT_FALSE(decodeServiceListsResponse(R"({"services": {"youtube": [1]}})").has_value());
  auto version = decodeAppVersionResponse(R"({"update": {"update_type": "soft_screen", "cooldown_hours": 0.5}})");
  EXPECT_EQ(version->update->cooldownHours, 0.5);
}

}  // namespace
}  // namespace norvik

namespace norvik {
namespace {

TEST(EndpointDecodeErrorTest, EveryTypedAnswerIsReadAsTheProductReadsIt) {
  EXPECT_FALSE(endpointDecodeError("getkey", R"({"result": 1, "keyData": "[Interface]"})").has_value());
  EXPECT_FALSE(endpointDecodeError("check_app_version", "{}").has_value());
  for (const Endpoint& endpoint : endpoints::kAll) {
    if (endpoint.name == endpoints::kGeoIP.name) continue;  // the GeoIP cache reads that body
    const auto error = endpointDecodeError(endpoint.name, "[1, 2");
    ASSERT_TRUE(error.has_value()) << endpoint.name;
    EXPECT_EQ(error->code, "DECODE_ERROR") << endpoint.name;
    if (endpoint.name == endpoints::kMain.name) {
      EXPECT_EQ(error->message, "Failed to decode response");
    } else {
      EXPECT_TRUE(error->message.starts_with("Decoding error: ")) << endpoint.name << ": " << error->message;
    }
  }
  EXPECT_FALSE(endpointDecodeError("geoip", "[1, 2").has_value());
}

}  // namespace
}  // namespace norvik
