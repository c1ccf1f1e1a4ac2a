#include "routing/service_catalog_store.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "routing/routing_test_environment.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;

RoutingServiceConfig service(std::string key, OptBool defaultOn = std::nullopt) {
  RoutingServiceConfig s;
  s.key = std::move(key);
  s.defaultOn = defaultOn;
  return s;
}

class ServiceCatalogStoreTest : public ::testing::Test, protected testing::RoutingEnvironment {
 protected:
  std::unique_ptr<ServiceCatalogStore> makeStore() {
    return std::make_unique<ServiceCatalogStore>(loop, group, network, modes, geodata(), log, analytics);
  }
  std::string watchDomains() { return group.stringValue(ServiceCatalogStore::kWatchDomains).value_or("<absent>"); }
  std::string serviceCIDRs() { return group.stringValue(ServiceCatalogStore::kServiceCIDRs).value_or("<absent>"); }
  static bool hasLine(const std::string& list, std::string_view line) {
    std::string_view rest = list;
    while (!rest.empty()) {
      const auto end = rest.find('\n');
      if (rest.substr(0, end) == line) return true;
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
    return false;
  }
  void servicesModeAllowed() {
    RoutingConfig routing;
    routing.allowedModes = std::vector<std::int64_t>{0, 1, 2};
    publish(responseWith(routing));
  }

  ModesStore modes{loop, group, network.currentResponse(), log};
  testing::CapturingAnalytics analytics;
};

TEST_F(ServiceCatalogStoreTest, AFirstStartRoutesTheFourDefaultServices) {
  auto store = makeStore();
  EXPECT_EQ(store->selectedServices().get(), (std::set<std::string>{"instagram", "telegram", "whatsapp", "youtube"}));
  const auto domains = watchDomains();
  for (auto domain : {"youtube.com", "instagram.com", "whatsapp.com", "t.me"})
    EXPECT_TRUE(hasLine(domains, domain)) << domain;
  EXPECT_FALSE(hasLine(domains, "discord.com"));
  EXPECT_EQ(store->catalog().size(), 8u);
  EXPECT_EQ(store->catalog()[1].group, "meta");
}

TEST_F(ServiceCatalogStoreTest, AStoredEmptySelectionIsKeptEmpty) {
  group.setStringArray(ServiceCatalogStore::kSelectedServices, {});
  auto store = makeStore();
  EXPECT_TRUE(store->selectedServices().get().empty());
  EXPECT_EQ(watchDomains(), "");
}

TEST_F(ServiceCatalogStoreTest, ADefaultOnServiceIsSelectedOnceAndStaysOffAfterTheUserSwitchesItOff) {
  auto store = makeStore();
  RoutingConfig routing;
  routing.services = {service("youtube"), service("twitch", true)};
  routing.services->back().domains = std::vector<std::string>{"Twitch.TV", "not a domain"};
  publish(responseWith(routing));
  EXPECT_TRUE(store->selectedServices().get().contains("twitch"));
  EXPECT_TRUE(log.hasLine("[Routing] default_on включил новые сервисы: twitch"));
  EXPECT_TRUE(hasLine(watchDomains(), "twitch.tv"));
  EXPECT_EQ(group.stringArrayValue(ServiceCatalogStore::kSeenServiceKeys),
            (std::vector<std::string>{"youtube", "twitch"}));

  store->toggle("twitch", false);
  routing.listsVersion = "changed";  // a different section, with the same service still default_on
  publish(responseWith(routing));
  EXPECT_FALSE(store->selectedServices().get().contains("twitch"));
  EXPECT_EQ(log.count("default_on"), 1u);

  // A restart does not bring it back either.
  store.reset();
  store = makeStore();
  EXPECT_FALSE(store->selectedServices().get().contains("twitch"));
}

TEST_F(ServiceCatalogStoreTest, CustomDomainsAreValidatedLimitedAndHandedOverInASCII) {
  auto store = makeStore();
  EXPECT_EQ(store->addCustomDomain("  Пример.РФ. "), "пример.рф");
  store->apply();
  EXPECT_TRUE(hasLine(watchDomains(), "xn--e1afmkfd.xn--p1ai"));
  EXPECT_EQ(store->customDomains().get(), std::vector<std::string>{"пример.рф"});
  EXPECT_EQ(group.stringArrayValue(ServiceCatalogStore::kCustomDomains), std::vector<std::string>{"пример.рф"});

  auto refused = store->addCustomDomain("https://twitch.tv/videos");
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error(), "Введите корректный домен, например twitch.tv");
  EXPECT_TRUE(log.contains("\"https://twitch.tv/videos\""));

  EXPECT_EQ(store->addCustomDomain("xn--e1afmkfd.xn--p1ai"), "пример.рф");  // the same name: listed once
  EXPECT_EQ(store->customDomains().get().size(), 1u);

  for (int i = 2; i <= 30; ++i) ASSERT_TRUE(store->addCustomDomain(fmt::format("site{}.example", i))) << i;
  EXPECT_FALSE(store->canAddCustomDomain());
  auto full = store->addCustomDomain("site31.example");
  ASSERT_FALSE(full.has_value());
  EXPECT_EQ(full.error(), "Можно добавить максимум 30 сайтов");
  EXPECT_EQ(store->customDomains().get().size(), 30u);
}

// A full disk: every user action fails with the reason the user can act on, and the lists, the
// selection and what the tunnel reads all stay as they were.
TEST_F(ServiceCatalogStoreTest, ActionsThatCannotBeSavedChangeNothingAndSayWhy) {
  auto store = makeStore();
  ASSERT_TRUE(store->addCustomDomain("twitch.tv"));
  store->apply();
  const auto selection = store->selectedServices().get();
  const std::string watched = watchDomains();
  group.failWrites(Error{"POSIX", ENOSPC, "write: No space left on device"});

  auto added = store->addCustomDomain("test.ru");
  ASSERT_FALSE(added.has_value());
  EXPECT_EQ(added.error(), "Изменение не сохранено: на диске нет места.");
  EXPECT_EQ(store->toggle("youtube", !selection.contains("youtube")).error().code, ENOSPC);
  EXPECT_EQ(store->setCustomDomainEnabled("twitch.tv", false).error().code, ENOSPC);
  EXPECT_EQ(store->removeCustomDomain("twitch.tv").error().code, ENOSPC);
  loop.runUntilIdle();

  EXPECT_EQ(store->customDomains().get(), std::vector<std::string>{"twitch.tv"});
  EXPECT_TRUE(store->disabledDomains().get().empty());
  EXPECT_EQ(store->selectedServices().get(), selection);
  EXPECT_EQ(watchDomains(), watched);
  EXPECT_TRUE(log.contains("не сохранён: write: No space left on device"));

  group.failWrites(std::nullopt);
  EXPECT_TRUE(store->addCustomDomain("test.ru"));
  EXPECT_EQ(makeStore()->customDomains().get(), (std::vector<std::string>{"twitch.tv", "test.ru"}));
}

TEST_F(ServiceCatalogStoreTest, ADisabledDomainStaysListedButIsNotWatched) {
  auto store = makeStore();
  ASSERT_TRUE(store->addCustomDomain("twitch.tv"));
  ASSERT_TRUE(store->addCustomDomain("kick.com"));
  store->setCustomDomainEnabled("TWITCH.tv", false);
  store->apply();
  EXPECT_FALSE(hasLine(watchDomains(), "twitch.tv"));
  EXPECT_TRUE(hasLine(watchDomains(), "kick.com"));
  EXPECT_EQ(store->customDomains().get(), (std::vector<std::string>{"twitch.tv", "kick.com"}));
  EXPECT_EQ(group.stringArrayValue(ServiceCatalogStore::kDisabledCustomDomains), std::vector<std::string>{"twitch.tv"});

  store->removeCustomDomain("twitch.tv");
  EXPECT_TRUE(store->disabledDomains().get().empty());
  EXPECT_EQ(store->customDomains().get(), std::vector<std::string>{"kick.com"});
}

TEST_F(ServiceCatalogStoreTest, UserActionsApplyAfterHalfASecondOfQuiet) {
  auto store = makeStore();
  const auto before = watchDomains();
  const auto applies = log.count("[Routing] applied");
  store->toggle("discord", true);
  loop.advance(300ms);
  store->toggle("claude", true);
  loop.advance(499ms);
  EXPECT_EQ(watchDomains(), before);
  loop.advance(1ms);
  EXPECT_TRUE(hasLine(watchDomains(), "discord.com"));
  EXPECT_TRUE(hasLine(watchDomains(), "claude.ai"));
  EXPECT_EQ(log.count("[Routing] applied"), applies + 1);
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST_F(ServiceCatalogStoreTest, SwitchingOffTheLastSiteInServicesModeFallsBackToSmart) {
  servicesModeAllowed();
  group.setStringArray(ServiceCatalogStore::kSelectedServices, {"telegram"});
  auto store = makeStore();
  ASSERT_TRUE(store->addCustomDomain("twitch.tv"));
  store->setCustomDomainEnabled("twitch.tv", false);
  modes.select(VPNRoutingMode::services);

  store->toggle("telegram", false);
  EXPECT_TRUE(store->didAutoSmart().get());
  EXPECT_TRUE(store->pendingSmartNotice().get());
  EXPECT_EQ(modes.currentMode().get(), VPNRoutingMode::smart);
  EXPECT_EQ(modes.userSelectedMode(), VPNRoutingMode::smart);
  store->recordEmptySitesScreen(true);
  EXPECT_EQ(analytics.tags(), std::vector<std::string>{"empty_sites_on_screen"});
  store->acknowledgeSmartNotice();
  EXPECT_FALSE(store->pendingSmartNotice().get());

  // Outside the services mode an empty selection changes no mode.
  modes.select(VPNRoutingMode::full);
  store->toggle("telegram", true);
  EXPECT_FALSE(store->didAutoSmart().get());
  store->toggle("telegram", false);
  EXPECT_EQ(modes.currentMode().get(), VPNRoutingMode::full);
  EXPECT_FALSE(store->didAutoSmart().get());
}

TEST_F(ServiceCatalogStoreTest, ServiceListsAreDownloadedOncePerVersionAndCached) {
  endpoints["service_lists"] = [](const HttpRequest&) {
    return ok(
        R"({"version":"v1","services":{"telegram":["91.108.4.0/22","149.154.160.0/20"],"discord":["66.22.196.0/22"]}})");
  };
  auto store = makeStore();
  RoutingConfig routing;
  routing.listsVersion = "v1";
  publish(responseWith(routing));
  EXPECT_TRUE(log.hasLine("[ServiceLists] version changed (stored=none, new=v1) — downloading /service_lists"));
  ASSERT_TRUE(loop.runUntil([&] { return log.contains("[ServiceLists] synced: "); }));
  EXPECT_TRUE(log.hasLine("[ServiceLists] synced: 3 CIDRs, version=v1"));
  EXPECT_EQ(group.stringValue(ServiceCatalogStore::kServiceListsVersion), "v1");
  EXPECT_TRUE(hasLine(serviceCIDRs(), "91.108.4.0/22"));
  EXPECT_FALSE(hasLine(serviceCIDRs(), "66.22.196.0/22"));  // discord is not selected
  EXPECT_TRUE(log.contains("[ServiceLists][cache] wrote "));

  routing.disclaimer = "changed";
  publish(responseWith(routing));
  loop.runUntilIdle();
  EXPECT_TRUE(log.hasLine("[ServiceLists] version unchanged (v1)"));
  EXPECT_EQ(sends["service_lists"], 1);

  // The next start routes the cached lists without a download.
  store.reset();
  group.remove(ServiceCatalogStore::kServiceCIDRs);
  store = makeStore();
  loop.runUntilIdle();
  EXPECT_TRUE(hasLine(serviceCIDRs(), "149.154.160.0/20"));
  EXPECT_EQ(sends["service_lists"], 1);
}

TEST_F(ServiceCatalogStoreTest, AFailedDownloadKeepsTheOldVersionAndTheNextResponseRetries) {
  int calls = 0;
  endpoints["service_lists"] = [&](const HttpRequest&) -> HttpResult {
    if (++calls == 1) return FakeHttpTransport::json(500, R"({"message":"boom"})");
    return ok(R"({"version":"v2","services":{"telegram":["91.108.4.0/22"]}})");
  };
  group.setString(ServiceCatalogStore::kServiceListsVersion, "v1");
  auto store = makeStore();
  RoutingConfig routing;
  routing.listsVersion = "v2";
  publish(responseWith(routing));
  ASSERT_TRUE(loop.runUntil([&] { return log.contains("[ServiceLists] download failed"); }));
  EXPECT_EQ(group.stringValue(ServiceCatalogStore::kServiceListsVersion), "v1");

  publish(responseWith(routing));
  ASSERT_TRUE(loop.runUntil([&] { return log.contains("[ServiceLists] synced: "); }));
  EXPECT_EQ(group.stringValue(ServiceCatalogStore::kServiceListsVersion), "v2");
}

TEST_F(ServiceCatalogStoreTest, AnUnreadableListsCacheIsIgnoredAndDownloadedAgain) {
  endpoints["service_lists"] = [](const HttpRequest&) {
    return ok(R"({"version":"v1","services":{"telegram":["91.108.4.0/22"]}})");
  };
  ASSERT_TRUE(makeDirectories(geodata()));
  ASSERT_TRUE(writeFileAtomically(geodata() / "services_cache", R"({"services":{"telegram":"91.108.4.0/22"}})"));
  group.setString(ServiceCatalogStore::kServiceListsVersion, "v1");
  auto store = makeStore();
  EXPECT_TRUE(log.contains("[ServiceLists][cache] unreadable, ignored: \"services.telegram\": expected an array"));

  // The stored version describes a cache that cannot be read, so the same version is fetched again.
  RoutingConfig routing;
  routing.listsVersion = "v1";
  publish(responseWith(routing));
  EXPECT_TRUE(log.hasLine("[ServiceLists] version changed (stored=none, new=v1) — downloading /service_lists"));
  ASSERT_TRUE(loop.runUntil([&] { return log.contains("[ServiceLists] synced: "); }));
  EXPECT_EQ(sends["service_lists"], 1);
  EXPECT_TRUE(hasLine(serviceCIDRs(), "91.108.4.0/22"));
}

TEST_F(ServiceCatalogStoreTest, ACacheThatCannotBeWrittenLeavesTheVersionForTheNextTry) {
  endpoints["service_lists"] = [](const HttpRequest&) { return ok(R"({"services":{"telegram":["91.108.4.0/22"]}})"); };
  // A directory where the cache file belongs: the rename over it fails.
  ASSERT_TRUE(makeDirectories(geodata() / "services_cache" / "blocker"));
  auto store = makeStore();
  RoutingConfig routing;
  routing.listsVersion = "v1";
  publish(responseWith(routing));
  ASSERT_TRUE(loop.runUntil([&] { return log.contains("[ServiceLists] synced: "); }));
  EXPECT_TRUE(log.contains("[ServiceLists][cache] write failed: "));
  EXPECT_FALSE(group.contains(ServiceCatalogStore::kServiceListsVersion));
  EXPECT_TRUE(hasLine(serviceCIDRs(), "91.108.4.0/22"));  // this run still routes them
  EXPECT_FALSE(std::filesystem::exists(geodata() / "services_cache.tmp"));
}

}  // namespace
}  // namespace norvik
