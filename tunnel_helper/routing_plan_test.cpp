#include "tunnel_helper/routing_plan.h"

#include <gtest/gtest.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "testing/temp_dir.h"
#include "tunnel_helper/netlink_configurator.h"
#include "tunnel_helper/tunnel_settings.h"

namespace norvik::tunnel_helper {
namespace {

using Json = nlohmann::json;

std::string keyText(std::string_view addresses = "10.66.1.2/32", std::string_view allowed = "0.0.0.0/0, ::/0",
                    std::string_view interfaceExtra = "") {
  return fmt::format(
      "[Interface]\nPrivateKey = jBA55xcLAlLrUOQji5V5t0IDhYd+C6Rxk/cqp3msWuo=\nAddress = {}\n{}\n[Peer]\n"
      "PublicKey = v/7M2+2OWnKiY1bBBRCZdonA03KacdWGweHDlBqeHIk=\nAllowedIPs = {}\nEndpoint = 10.200.0.1:51820\n",
      addresses, interfaceExtra, allowed);
}

TunnelSettings settingsFor(const Json& configuration) {
  auto settings = readTunnelSettings(configuration);
  EXPECT_TRUE(settings.has_value()) << (settings ? "" : settings.error().message);
  return settings ? *settings : TunnelSettings{};
}

IpPrefix prefix(std::string_view text) { return *IpPrefix::parse(text); }

std::vector<std::string> routesOf(const RoutingPlan& plan, bool bypass) {
  std::vector<std::string> out;
  for (const PlannedRoute& route : plan.routes) {
    if (route.bypass == bypass) out.push_back(route.prefix.toString());
  }
  return out;
}

using Strings = std::vector<std::string>;

TEST(TunnelSettingsTest, ReadsTheExtrasAndLeavesBadEntriesOutWithANote) {
  const TunnelSettings settings = settingsFor(Json{
      {"wgQuickConfig", keyText()},
      {"routing.goMode", "1"},
      {"routing.serviceCIDRs", "8.8.8.0/24\n\n  1.1.1.1  \nnot-a-cidr\n8.8.8.9/24\n10.0.0.0/33\n"},
      {"routing.watchDomains", "YouTube.com\nexample.org\nyoutube.com\nno_dot\nbad domain.com\n"},
      {"routing.geoBypassAllowed", "0"},
      {"geodata.geoip_cache.path", "/var/cache/geoip.txt"},
      {"iosFixes.tunMTU", "20000"},
      {"iosFixes.disableIPv6", "1"},
  });
  EXPECT_EQ(settings.mode, TunnelRoutingMode::services);
  ASSERT_EQ(settings.serviceCIDRs.size(), 2u) << "the duplicate after masking is dropped";
  EXPECT_EQ(settings.serviceCIDRs[0].toString(), "8.8.8.0/24");
  EXPECT_EQ(settings.serviceCIDRs[1].toString(), "1.1.1.1/32");
  EXPECT_EQ(settings.watchDomains, (Strings{"youtube.com", "example.org"}));
  EXPECT_FALSE(settings.geoBypassAllowed);
  EXPECT_EQ(settings.geoipPath, std::filesystem::path("/var/cache/geoip.txt"));
  EXPECT_FALSE(settings.tunMTU.has_value());
  EXPECT_TRUE(settings.disableIPv6);
  EXPECT_EQ(
      settings.notes,
      (Strings{"routing.serviceCIDRs: пропущена строка «not-a-cidr»", "routing.serviceCIDRs: всего пропущено строк: 2",
               "routing.watchDomains: пропущен «no_dot»", "routing.watchDomains: пропущен «bad domain.com»",
               "iosFixes.tunMTU=20000 вне 576…9000 — не используется"}));
}

TEST(TunnelSettingsTest, ModeCodesOutsideTheKnownOnesMeanSmart) {
  for (const Json& code : {Json("2"), Json(2), Json("0")}) {
    EXPECT_EQ(settingsFor(Json{{"wgQuickConfig", keyText()}, {"routing.goMode", code}}).mode,
              code == Json("0") ? TunnelRoutingMode::smart : TunnelRoutingMode::full);
  }
  for (const Json& code : {Json("3"), Json("-1"), Json("full"), Json(nullptr), Json::array()}) {
    EXPECT_EQ(settingsFor(Json{{"wgQuickConfig", keyText()}, {"routing.goMode", code}}).mode, TunnelRoutingMode::smart)
        << code.dump();
  }
  EXPECT_EQ(settingsFor(Json{{"wgQuickConfig", keyText()}}).mode, TunnelRoutingMode::smart);
}

TEST(TunnelSettingsTest, OnlyAMissingOrBadKeyTextRefusesTheConfiguration) {
  EXPECT_EQ(readTunnelSettings(Json::array()).error().message, "конфигурация туннеля — не словарь");
  EXPECT_EQ(readTunnelSettings(Json{{"routing.goMode", "2"}}).error().message,
            "в конфигурации туннеля нет текста ключа (wgQuickConfig)");
  EXPECT_EQ(readTunnelSettings(Json{{"wgQuickConfig", 42}}).error().message,
            "в конфигурации туннеля нет текста ключа (wgQuickConfig)");
  auto bad = readTunnelSettings(Json{{"wgQuickConfig", keyText("10.66.1.2/40")}});
  ASSERT_FALSE(bad.has_value());
  EXPECT_EQ(bad.error().line, 3);
}

TEST(TunnelSettingsTest, TheGeoIPListSkipsWhatWouldSwallowEverything) {
  testing::TempDir dir;
  ASSERT_TRUE(writeFileAtomically(dir / "geoip.txt",
                                  "# ru\n5.8.10.0/24\n5.8.10.7/24\n0.0.0.0/0\n::/0\n2a00::/16\r\nrubbish\n"));
  auto ranges = readGeoIPRanges(dir / "geoip.txt");
  ASSERT_TRUE(ranges.has_value());
  ASSERT_EQ(ranges->ranges.size(), 2u);
  EXPECT_EQ(ranges->ranges[0].toString(), "5.8.10.0/24");
  EXPECT_EQ(ranges->ranges[1].toString(), "2a00::/16");
  EXPECT_EQ(ranges->skippedLines, 3u);
  EXPECT_EQ(ranges->firstSkipped, "0.0.0.0/0");
  EXPECT_FALSE(readGeoIPRanges(dir / "missing.txt").has_value());
}

TEST(TunnelSettingsTest, RepeatsGoAndTheOrderStaysWhateverTheListsOrder) {
  auto texts = [](const std::vector<IpPrefix>& prefixes) {
    Strings out;
    for (const auto& p : prefixes) out.push_back(p.toString());
    return out;
  };
  std::vector<IpPrefix> sorted{prefix("5.8.0.0/16"), prefix("5.8.0.0/24"), prefix("9.0.0.0/8"), prefix("2a00::/16")};
  removeRepeats(sorted);
  EXPECT_EQ(texts(sorted), (Strings{"5.8.0.0/16", "5.8.0.0/24", "9.0.0.0/8", "2a00::/16"}));
  std::vector<IpPrefix> unsorted{prefix("9.0.0.0/8"), prefix("2a00::/16"), prefix("5.8.0.0/16")};
  removeRepeats(unsorted);
  EXPECT_EQ(texts(unsorted), (Strings{"9.0.0.0/8", "2a00::/16", "5.8.0.0/16"}));
  std::vector<IpPrefix> repeated{prefix("9.0.0.0/8"), prefix("2a00::/16"), prefix("9.0.0.0/8"), prefix("1.0.0.0/8"),
                                 prefix("2a00::/16")};
  removeRepeats(repeated);
  EXPECT_EQ(texts(repeated), (Strings{"9.0.0.0/8", "2a00::/16", "1.0.0.0/8"}));
}

TEST(RoutingPlanTest, FullModeSendsEverythingThroughTheTunnelBesideTheLocalNetwork) {
  const auto settings =
      settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32, fd00:66::2/128")}, {"routing.goMode", "2"}});
  const RoutingPlan plan = planRouting(settings, {prefix("5.8.10.0/24")}, {});
  EXPECT_EQ(routesOf(plan, false), (Strings{"0.0.0.0/0", "::/0"}));
  EXPECT_TRUE(routesOf(plan, true).empty()) << "the GeoIP list is for the smart mode only";
  EXPECT_TRUE(plan.mainTableKeepsNarrowerRoutes);
  EXPECT_TRUE(plan.ipv4 && plan.ipv6);
  EXPECT_EQ(plan.mtu, routing_constants::kDefaultMtu);
  EXPECT_EQ(plan.addresses.size(), 2u);

  // Rules: the main table's narrower routes first, then the tunnel for all but the marked packets.
  const auto rules = rulesFor(plan);
  ASSERT_EQ(rules.size(), 4u);
  EXPECT_EQ(rules[0], (RoutingRule{AF_INET, 28276, 254, std::nullopt, false, 0, std::nullopt}));
  EXPECT_EQ(rules[1], (RoutingRule{AF_INET, 28277, routing_constants::kTable, routing_constants::kFirewallMark, true,
                                   std::nullopt, std::nullopt}));
  EXPECT_EQ(rules[3].family, AF_INET6);
}

TEST(RoutingPlanTest, WithoutIPv6InTheTunnelIPv6IsStillKeptFromLeakingInFullMode) {
  // No IPv6 address in the key at all.
  auto plan = planRouting(
      settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32", "0.0.0.0/0")}, {"routing.goMode", "2"}}), {}, {});
  EXPECT_EQ(routesOf(plan, false), (Strings{"0.0.0.0/0", "::/0"}));
  EXPECT_TRUE(plan.ipv6);

  // The backend switches IPv6 off: the address is not set, IPv6 still ends in the tunnel.
  plan = planRouting(settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32, fd00:66::2/128")},
                                      {"routing.goMode", "2"},
                                      {"iosFixes.disableIPv6", "1"}}),
                     {}, {});
  EXPECT_EQ(plan.addresses.size(), 1u);
  EXPECT_EQ(routesOf(plan, false), (Strings{"0.0.0.0/0", "::/0"}));
  EXPECT_NE(std::ranges::find(plan.notes, "IPv6 выключен бэкендом (iosFixes.disableIPv6)"), plan.notes.end());

  // The backend's small MTU, when the key has none, decides too.
  plan = planRouting(settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32, fd00:66::2/128")},
                                      {"routing.goMode", "2"},
                                      {"iosFixes.tunMTU", 1200}}),
                     {}, {});
  EXPECT_EQ(plan.mtu, 1200);
  EXPECT_EQ(plan.addresses.size(), 1u);
  EXPECT_NE(std::ranges::find(plan.notes, "IPv6 не поднимается: MTU 1200 меньше 1280"), plan.notes.end());
}

TEST(RoutingPlanTest, SmartModeSendsTheGeoIPRangesBackToTheMainTable) {
  const auto geoip = std::vector{prefix("5.8.10.0/24"), prefix("2a00::/16"), prefix("5.8.10.0/24")};
  auto plan = planRouting(settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32, fd00:66::2/128")}}), geoip, {});
  EXPECT_EQ(routesOf(plan, false), (Strings{"0.0.0.0/0", "::/0"}));
  EXPECT_EQ(routesOf(plan, true), (Strings{"5.8.10.0/24", "2a00::/16"}));
  EXPECT_TRUE(plan.mainTableKeepsNarrowerRoutes);

  // A key that only carries part of IPv4 gets no IPv6 bypass entries either: nothing to bypass.
  plan = planRouting(settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32", "10.0.0.0/8")}}), geoip, {});
  EXPECT_EQ(routesOf(plan, false), (Strings{"10.0.0.0/8"}));
  EXPECT_EQ(routesOf(plan, true), (Strings{"5.8.10.0/24"}));
  EXPECT_FALSE(plan.ipv6);

  // The backend may forbid the bypass: then smart is full.
  plan = planRouting(settingsFor(Json{{"wgQuickConfig", keyText()}, {"routing.geoBypassAllowed", "0"}}), geoip, {});
  EXPECT_TRUE(routesOf(plan, true).empty());
}

TEST(RoutingPlanTest, ServicesModeRoutesOnlyTheServicesAndTheWatchedAddresses) {
  const auto settings = settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32")},
                                         {"routing.goMode", "1"},
                                         {"routing.serviceCIDRs", "8.8.8.0/24\n2001:4860::/32\n"}});
  const RoutingPlan plan = planRouting(settings, {prefix("5.8.10.0/24")},
                                       {*IpAddress::parse("142.250.74.14"), *IpAddress::parse("8.8.8.8")});
  // No IPv6 in the tunnel: the IPv6 service stays on the physical network rather than vanish.
  EXPECT_EQ(routesOf(plan, false), (Strings{"8.8.8.0/24", "142.250.74.14/32", "8.8.8.8/32"}));
  EXPECT_TRUE(routesOf(plan, true).empty());
  EXPECT_FALSE(plan.mainTableKeepsNarrowerRoutes) << "the main table's default route must stay in use";
  EXPECT_TRUE(plan.ipv4);
  EXPECT_FALSE(plan.ipv6);
  const auto rules = rulesFor(plan);
  ASSERT_EQ(rules.size(), 1u);
  EXPECT_EQ(rules[0].table, routing_constants::kTable);
}

TEST(RoutingPlanTest, TheKeysResolversServeFullAndSmartThroughTheTunnelAndServicesKeepsTheSystems) {
  const std::string key = keyText("10.66.1.2/32", "0.0.0.0/0", "DNS = 10.64.0.1, fd00::53, corp.example");
  for (const char* mode : {"2", "0"}) {
    const auto plan = planRouting(settingsFor(Json{{"wgQuickConfig", key}, {"routing.goMode", mode}}), {}, {});
    ASSERT_TRUE(plan.dns.has_value()) << mode;
    // No IPv6 in the tunnel: an IPv6 resolver could not be reached, so it is not used.
    EXPECT_EQ(plan.dns->servers, (std::vector{*IpAddress::parse("10.64.0.1")})) << mode;
    EXPECT_EQ(plan.dns->searchDomains, (Strings{"corp.example"}));
    EXPECT_NE(std::ranges::find(plan.notes, "DNS fd00::53 не идёт через туннель — не используется"), plan.notes.end());
    // The resolver's own rule comes first, so a local network covering 10.64.0.1 cannot take it;
    // before it, the tunnel's own marked packets go to the main table, whatever their address.
    const auto rules = rulesFor(plan);
    ASSERT_GE(rules.size(), 2u);
    EXPECT_EQ(rules[0],
              (RoutingRule{AF_INET, 28274, 254, routing_constants::kFirewallMark, false, std::nullopt, std::nullopt}));
    EXPECT_EQ(rules[1], (RoutingRule{AF_INET, 28275, routing_constants::kTable, std::nullopt, false, std::nullopt,
                                     prefix("10.64.0.1/32")}));
    EXPECT_TRUE(std::ranges::none_of(rules, [](const RoutingRule& r) { return r.invert && r.destination; }))
        << "an inverted rule with a destination would also catch the tunnel's own packets";
  }
  const auto services = planRouting(
      settingsFor(Json{{"wgQuickConfig", key}, {"routing.goMode", "1"}, {"routing.serviceCIDRs", "8.8.8.0/24"}}), {},
      {});
  EXPECT_FALSE(services.dns.has_value());
  EXPECT_EQ(rulesFor(services).size(), 1u) << "no resolver rules: the system's resolvers stay";

  // A key whose resolvers lie outside what it carries leaves the system's resolvers alone.
  const auto partial =
      planRouting(settingsFor(Json{{"wgQuickConfig", keyText("10.66.1.2/32", "10.0.0.0/8", "DNS = 1.1.1.1")},
                                   {"routing.goMode", "2"}}),
                  {}, {});
  EXPECT_FALSE(partial.dns.has_value());
}

TEST(RoutingPlanTest, TheKeysOwnMtuWinsOverTheBackendsHint) {
  const auto settings = settingsFor(
      Json{{"wgQuickConfig", keyText("10.66.1.2/32", "0.0.0.0/0", "MTU = 1380")}, {"iosFixes.tunMTU", "1280"}});
  EXPECT_EQ(planRouting(settings, {}, {}).mtu, 1380);
  EXPECT_EQ(settings.tunMTU, 1280);
}

}  // namespace
}  // namespace norvik::tunnel_helper
