#include "tunnel/widget_files.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace norvik {
namespace {

using namespace std::chrono;

Clock::TimePoint at(int y, unsigned mo, unsigned d, int h, int mi, int s, int ms = 0) {
  return time_point_cast<Clock::TimePoint::duration>(sys_days{year{y} / month{mo} / day{d}} + hours{h} + minutes{mi} +
                                                     seconds{s} + milliseconds{ms});
}

std::vector<std::string> keysOf(const std::string& json) {
  std::vector<std::string> keys;
  const auto parsed = nlohmann::ordered_json::parse(json);
  for (const auto& [key, value] : parsed.items()) keys.push_back(key);
  return keys;
}

TEST(WidgetFiles, TheStateKeepsItsFieldOrderAndLeavesOutWhatIsAbsent) {
  WidgetVPNState state;
  state.phase = "connected";
  state.connectedSince = at(2026, 11, 22, 10, 15, 30, 123);
  state.statusText = "Защищено";
  state.canChangeServer = true;
  state.canToggle = true;
  state.updatedAt = at(2026, 11, 22, 10, 16, 0);
  state.healthRaw = "ok";
  state.appRunning = true;
  state.trafficDown = "1,2 МБ";
  state.trafficUp = "300 КБ";
  state.tunnelAddress = "203.0.113.10";

  const std::string full = encodeWidgetState(state);
  EXPECT_EQ(keysOf(full), (std::vector<std::string>{"phase", "connectedSince", "statusText", "canChangeServer",
                                                    "canToggle", "updatedAt", "healthRaw", "appRunning", "trafficDown",
                                                    "trafficUp", "tunnelAddress"}));
  const auto json = nlohmann::json::parse(full);
  EXPECT_EQ(json["connectedSince"], "2026-11-22T10:15:30.123Z");
  EXPECT_EQ(json["updatedAt"], "2026-11-22T10:16:00.000Z");
  EXPECT_EQ(json["statusText"], "Защищено");
  EXPECT_EQ(json["canToggle"], true);

  WidgetVPNState bare;
  bare.phase = "disconnected";
  bare.statusText = "Отключено";
  EXPECT_EQ(keysOf(encodeWidgetState(bare)),
            (std::vector<std::string>{"phase", "statusText", "canChangeServer", "canToggle", "updatedAt"}));
}

TEST(WidgetFiles, StatesThatDifferOnlyInTheirWriteTimeHaveTheSameContent) {
  WidgetVPNState a{.phase = "connected", .statusText = "Защищено"};
  WidgetVPNState b = a;
  b.updatedAt += seconds(30);
  EXPECT_TRUE(a.sameContent(b));
  b.trafficDown = "1 МБ";
  EXPECT_FALSE(a.sameContent(b));
}

TEST(WidgetFiles, DatesAreWrittenInUtcWithMillisecondsAndReadInTheCommonVariants) {
  const auto moment = at(2026, 11, 22, 10, 15, 30, 123);
  EXPECT_EQ(formatWidgetDate(moment + microseconds(999)), "2026-11-22T10:15:30.123Z") << "truncated, not rounded";
  EXPECT_EQ(parseWidgetDate("2026-11-22T10:15:30.123Z"), moment);
  EXPECT_EQ(parseWidgetDate("2026-11-22T10:15:30Z"), at(2026, 11, 22, 10, 15, 30));
  EXPECT_EQ(parseWidgetDate("2026-11-22T10:15:30.1Z"), at(2026, 11, 22, 10, 15, 30, 100));
  EXPECT_EQ(parseWidgetDate("2026-11-22T10:15:30.123456Z"), moment);
  EXPECT_EQ(parseWidgetDate("2026-11-22T13:15:30.123+03:00"), moment);
  EXPECT_EQ(parseWidgetDate("2026-11-22T05:45:30.123-04:30"), moment);
  EXPECT_EQ(parseWidgetDate("2024-02-29T00:00:00Z"), at(2024, 2, 29, 0, 0, 0));

  for (const char* bad :
       {"", "2026-11-22", "2026-11-22T10:15:30", "2026-11-22 10:15:30Z", "2026-11-22T10:15:30.Z",
        "2026-02-30T00:00:00Z", "2026-11-22T24:00:00Z", "2026-11-22T10:15:60Z", "9999-01-01T00:00:00Z",
        "2026-11-22T10:15:30+0300", "2026-11-22T10:15:30.123Zjunk", "２０２６-11-22T10:15:30Z"}) {
    EXPECT_FALSE(parseWidgetDate(bad).has_value()) << bad;
  }
}

TEST(WidgetFiles, ACommandSurvivesTheRoundTrip) {
  const WidgetCommand command{WidgetCommand::Kind::changeServer, at(2026, 11, 22, 10, 15, 30, 123), "B5E1-77"};
  const std::string text = encodeWidgetCommand(command);
  EXPECT_EQ(keysOf(text), (std::vector<std::string>{"kind", "issuedAt", "id"}));
  EXPECT_EQ(decodeWidgetCommand(text), command);
  auto toggle = decodeWidgetCommand(R"({"id":"x","issuedAt":"2026-11-22T10:15:30Z","kind":"toggle","extra":[1]})");
  ASSERT_TRUE(toggle.has_value()) << toggle.error();
  EXPECT_EQ(toggle->kind, WidgetCommand::Kind::toggle);
}

TEST(WidgetFiles, AnythingElseIsNoCommandAndTheReasonQuotesTheValue) {
  const std::string date = R"("issuedAt":"2026-11-22T10:15:30.000Z")";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "not JSON"},
      {R"({"kind":"toggle",)", "not JSON"},
      {"[1,2]", "expected an object, found an array"},
      {R"({"kind":"reboot",)" + date + R"(,"id":"a"})", R"("kind" is not a known command: "reboot")"},
      {R"({"kind":1,)" + date + R"(,"id":"a"})", R"("kind" is not a known command: 1)"},
      {R"({)" + date + R"(,"id":"a"})", R"("kind" is missing)"},
      {R"({"kind":"toggle","issuedAt":1700000000,"id":"a"})", R"("issuedAt" is not a date: 1700000000)"},
      {R"({"kind":"toggle","issuedAt":"yesterday","id":"a"})", R"("issuedAt" is not a date: "yesterday")"},
      {R"({"kind":"toggle",)" + date + "}", R"("id" is missing)"},
      {R"({"kind":"toggle",)" + date + R"(,"id":""})", R"("id" is not an identifier: "")"},
      {R"({"kind":"toggle",)" + date + R"(,"id":{"a":1}})", R"("id" is not an identifier: {"a":1})"},
  };
  for (const auto& [text, reason] : cases) {
    auto decoded = decodeWidgetCommand(text);
    ASSERT_FALSE(decoded.has_value()) << text;
    EXPECT_EQ(decoded.error(), reason) << text;
  }

  const std::string longId(kWidgetCommandMaxIdBytes + 1, 'a');
  EXPECT_FALSE(decodeWidgetCommand(R"({"kind":"toggle",)" + date + R"(,"id":")" + longId + "\"}").has_value());
  const std::string huge =
      R"({"kind":"toggle",)" + date + R"(,"id":"a","pad":")" + std::string(kWidgetCommandMaxBytes, ' ') + "\"}";
  EXPECT_EQ(decodeWidgetCommand(huge).error(), fmt::format("{} bytes is too large", huge.size()));
  EXPECT_FALSE(decodeWidgetCommand(std::string(100000, '[')).has_value());
}

TEST(WidgetFiles, TrafficAmountsUseBinaryUnitsAndADecimalComma) {
  EXPECT_EQ(formatTrafficAmount(0), "0 Б");
  EXPECT_EQ(formatTrafficAmount(1023), "1023 Б");
  EXPECT_EQ(formatTrafficAmount(1024), "1 КБ");
  EXPECT_EQ(formatTrafficAmount(300 * 1024), "300 КБ");
  EXPECT_EQ(formatTrafficAmount(1258291), "1,2 МБ");
  // Just under ten rounds to a whole ten rather than "10,0".
  EXPECT_EQ(formatTrafficAmount(10234), "10 КБ");
  EXPECT_EQ(formatTrafficAmount(3650722202ULL), "3,4 ГБ");
  EXPECT_EQ(formatTrafficAmount(~0ULL), "16777216 ТБ");
}

}  // namespace
}  // namespace norvik
