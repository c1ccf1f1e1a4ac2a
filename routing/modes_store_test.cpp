#include "routing/modes_store.h"

#include <gtest/gtest.h>

#include "routing/routing_texts.h"
#include "testing/fakes.h"

namespace norvik {
namespace {

using M = VPNRoutingMode;

RoutingConfig section(std::optional<std::vector<std::int64_t>> allowed, OptInt forced = std::nullopt,
                      OptInt fallback = std::nullopt, OptBool killSwitch = std::nullopt) {
  RoutingConfig r;
  r.allowedModes = std::move(allowed);
  r.forcedMode = forced;
  r.defaultMode = fallback;
  r.killSwitch = killSwitch;
  return r;
}

std::shared_ptr<APIResponse> responseWith(RoutingConfig routing) {
  auto response = std::make_shared<APIResponse>();
  response->routing = std::move(routing);
  return response;
}

TEST(RoutingModeTest, TheThreeNumberingsStayApart) {
  EXPECT_EQ(backendCode(M::full), 1);
  EXPECT_EQ(storedCode(M::full), 2);
  EXPECT_EQ(backendCode(M::services), 2);
  EXPECT_EQ(storedCode(M::services), 1);
  EXPECT_EQ(modeFromBackendCode(2), M::services);
  EXPECT_EQ(modeFromStoredCode(2), M::full);
  EXPECT_EQ(modeFromBackendCode(3), std::nullopt);
  EXPECT_EQ(modeFromBackendCode(-1), std::nullopt);
  for (std::int64_t garbage : {0, 3, -1, 1'000'000}) EXPECT_EQ(modeFromStoredCode(garbage), M::smart) << garbage;
  EXPECT_EQ(widgetText(M::services), "sites");
}

TEST(RoutingModeTest, EffectiveModeFollowsKillSwitchForcedAllowedDefaultFirst) {
  // The kill switch beats a forced full mode.
  EXPECT_EQ(effectiveMode(section({{0, 1, 2}}, 1, std::nullopt, true), M::full), M::smart);
  // A forced 7 is no mode: the request for full is not allowed, services is the only choice.
  EXPECT_EQ(effectiveMode(section({{2}}, 7), M::full), M::services);
  EXPECT_EQ(effectiveMode(section({{0, 1}}, 2), M::smart), M::services);
  // Unknown codes leave nothing: smart and full, never services.
  EXPECT_EQ(allowedModes(section({{5, 9}})), (std::vector<M>{M::smart, M::full}));
  EXPECT_EQ(effectiveMode(section({{5, 9}}), M::services), M::smart);
  EXPECT_EQ(allowedModes(section({{}})), (std::vector<M>{M::smart, M::full}));
  // Repeats dropped and the list ordered smart, full, services; full and the default are not
  // allowed, so the first of the list wins.
  EXPECT_EQ(allowedModes(section({{2, 0, 2}})), (std::vector<M>{M::smart, M::services}));
  EXPECT_EQ(effectiveMode(section({{2, 0, 2}}, std::nullopt, 1), M::full), M::smart);
  // An allowed default replaces a request that is not allowed.
  EXPECT_EQ(effectiveMode(section({{1, 2}}, std::nullopt, 2), M::smart), M::services);
  EXPECT_EQ(effectiveMode(section(std::nullopt), M::full), M::full);
  EXPECT_EQ(effectiveMode(section(std::nullopt), M::services), M::smart);
}

class ModesStoreTest : public ::testing::Test {
 protected:
  std::unique_ptr<ModesStore> makeStore() {
    auto store = std::make_unique<ModesStore>(loop, group, responses, log);
    store->setModeChangeHandler([this](M from, M to) { handed.emplace_back(from, to); });
    return store;
  }
  std::int64_t active() { return *group.integerValue(ModesStore::kModeServicesActive); }

  testing::VirtualEventLoop loop;
  testing::MemoryDefaults group;
  testing::CapturingLog log;
  Published<NetworkService::MainResponse> responses;
  std::vector<std::pair<M, M>> handed;
};

TEST_F(ModesStoreTest, AFreshInstallWithTheLegacyBypassOffStartsInFull) {
  group.setBool(ModesStore::kRuBypass, false);
  auto store = makeStore();
  EXPECT_EQ(store->currentMode().get(), M::full);
  EXPECT_EQ(group.integerValue(ModesStore::kUserSelectedMode), 2);
  EXPECT_EQ(active(), 2);
}

TEST_F(ModesStoreTest, OtherLegacyStatesStartInSmart) {
  for (const DefaultsValue& legacy : {DefaultsValue{true}, DefaultsValue{std::string("false")}}) {
    testing::MemoryDefaults fresh;
    fresh.set(ModesStore::kRuBypass, legacy);
    ModesStore store(loop, fresh, responses, log);
    EXPECT_EQ(store.currentMode().get(), M::smart);
    EXPECT_EQ(fresh.integerValue(ModesStore::kUserSelectedMode), 0);
  }
}

TEST_F(ModesStoreTest, AnOlderInForceCodeBecomesTheUsersChoice) {
  group.setInteger(ModesStore::kModeServicesActive, 1);
  auto store = makeStore();
  EXPECT_EQ(group.integerValue(ModesStore::kUserSelectedMode), 1);
  EXPECT_EQ(store->userSelectedMode(), M::services);
  // Services is not offered without a routing section that lists it.
  EXPECT_EQ(store->currentMode().get(), M::smart);
  EXPECT_EQ(active(), 0);
}

TEST_F(ModesStoreTest, AStaleInForceModeIsCorrectedAtStart) {
  // The last run ended under a forced smart mode that the cached response no longer has.
  group.setInteger(ModesStore::kUserSelectedMode, 2);
  group.setInteger(ModesStore::kModeServicesActive, 0);
  group.setBool(ModesStore::kRuBypass, true);
  auto store = makeStore();
  EXPECT_EQ(store->currentMode().get(), M::full);
  EXPECT_EQ(active(), 2);
  EXPECT_EQ(group.boolValue(ModesStore::kRuBypass), false);
}

// The user's choice that cannot be written is refused with the reason: the mode stays, and so
// does the choice remembered for later.
TEST_F(ModesStoreTest, AChoiceThatCannotBeSavedIsRefusedWithTheReasonAndNothingChanges) {
  responses.set(responseWith(section({{0, 1, 2}})));
  auto store = makeStore();
  group.failWrites(Error{"POSIX", ENOSPC, "No space left on device"});
  auto selected = store->select(M::full);
  ASSERT_FALSE(selected.has_value());
  EXPECT_EQ(selected.error().code, ENOSPC);
  EXPECT_EQ(store->currentMode().get(), M::smart);
  EXPECT_EQ(store->userSelectedMode(), M::smart);
  EXPECT_TRUE(log.contains("[Routing] выбор режима full не сохранён: No space left on device"));
  loop.runUntilIdle();
  EXPECT_TRUE(handed.empty()) << "the tunnel hears of no change";
}

// Group settings that could not be opened: the mode reads as smart and nothing is written.
TEST_F(ModesStoreTest, UnavailableGroupSettingsReadAsSmart) {
  UnavailableDefaults unavailable(Error{"POSIX", EACCES, "mkdir: Permission denied"});
  ModesStore store(loop, unavailable, responses, log);
  EXPECT_EQ(store.currentMode().get(), M::smart);
  EXPECT_FALSE(store.select(M::full).has_value());
  EXPECT_EQ(store.currentMode().get(), M::smart);
}

TEST_F(ModesStoreTest, BackendRestrictionsApplyAtOnceAndTheUsersChoiceSurvivesThem) {
  responses.set(responseWith(section({{0, 1, 2}})));
  auto store = makeStore();
  store->select(M::services);
  EXPECT_EQ(store->currentMode().get(), M::services);
  EXPECT_EQ(active(), 1);

  responses.set(responseWith(section({{0, 1, 2}}, 1)));
  EXPECT_EQ(store->currentMode().get(), M::full);
  EXPECT_EQ(active(), 2);
  EXPECT_EQ(group.boolValue(ModesStore::kRuBypass), false);
  EXPECT_EQ(group.integerValue(ModesStore::kUserSelectedMode), 1);
  EXPECT_EQ(store->modeControlNotice(), routing_texts::kModeSetByProvider);

  responses.set(responseWith(section({{0, 1, 2}}, std::nullopt, std::nullopt, true)));
  EXPECT_EQ(store->currentMode().get(), M::smart);
  EXPECT_EQ(store->modeControlNotice(), routing_texts::kModeControlUnavailable);

  responses.set(responseWith(section({{0, 1, 2}})));
  EXPECT_EQ(store->currentMode().get(), M::services);
  EXPECT_EQ(group.boolValue(ModesStore::kRuBypass), true);
  EXPECT_EQ(store->modeControlNotice(), std::nullopt);
}

TEST_F(ModesStoreTest, TheSameRoutingSectionTwiceIsNotAppliedAgain) {
  auto store = makeStore();
  responses.set(responseWith(section({{0, 1}})));
  // Another process changed the choice; only a new section (or select) would apply it.
  group.setInteger(ModesStore::kUserSelectedMode, 2);
  responses.set(responseWith(section({{0, 1}})));
  EXPECT_EQ(store->currentMode().get(), M::smart);

  responses.set(responseWith(section({{0, 1, 2}})));
  EXPECT_EQ(store->currentMode().get(), M::full);
}

TEST_F(ModesStoreTest, TheInForceKeysAreWrittenOnlyOnAChange) {
  auto store = makeStore();
  store->select(M::full);
  const auto writes = group.writeCount();
  store->select(M::full);  // the choice is written again, nothing else
  store->apply();
  EXPECT_EQ(group.writeCount(), writes + 1);
}

TEST_F(ModesStoreTest, TheTunnelSideHearsOfAChangeInATaskOfItsOwn) {
  auto store = makeStore();
  std::vector<M> seenByScreen;
  auto subscription = store->currentMode().subscribe([&](M mode) { seenByScreen.push_back(mode); });
  store->select(M::full);
  EXPECT_EQ(seenByScreen, std::vector<M>{M::full});
  EXPECT_TRUE(handed.empty());
  loop.runUntilIdle();
  EXPECT_EQ(handed, (std::vector<std::pair<M, M>>{{M::smart, M::full}}));

  store.reset();  // a hand-over still queued for a store that is gone does nothing
  loop.runUntilIdle();
}

TEST_F(ModesStoreTest, EveryResponseRefreshesTheCopiesOfTheBackendSwitches) {
  auto store = makeStore();
  RoutingConfig routing;
  routing.fullModeLightDatapath = true;
  routing.onDemandEnabled = false;
  routing.relayHardenEnabled = true;
  routing.extensionMemLimitMb = 48;
  auto response = responseWith(routing);
  response->main.geoBypassEnabledLegacy = false;
  responses.set(response);
  EXPECT_TRUE(store->isFullLightDatapath());
  EXPECT_EQ(group.boolValue(ModesStore::kOnDemandEnabled), false);
  EXPECT_EQ(group.boolValue(ModesStore::kRelayHarden), true);
  EXPECT_EQ(group.integerValue(ModesStore::kExtMemLimitMb), 48);
  EXPECT_EQ(group.boolValue(ModesStore::kGeoBypassAllowedByBackend), false);

  // The next response no longer sends them: nothing stale is left for the tunnel.
  responses.set(std::make_shared<APIResponse>());
  EXPECT_FALSE(store->isFullLightDatapath());
  for (auto key : {ModesStore::kFullModeLightDatapath, ModesStore::kOnDemandEnabled, ModesStore::kRelayHarden,
                   ModesStore::kExtMemLimitMb, ModesStore::kGeoBypassAllowedByBackend}) {
    EXPECT_FALSE(group.contains(key)) << key;
  }
}

TEST_F(ModesStoreTest, TheFullModeConfirmationTakesTheBackendsNonEmptyTexts) {
  auto store = makeStore();
  auto builtIn = store->fullModeConfirmation();
  EXPECT_EQ(builtIn.identifier, "modes_full_mode_confirm");
  EXPECT_EQ(builtIn.title, "Включить Обычный режим?");
  EXPECT_EQ(builtIn.confirm, "Всё равно переключить");
  EXPECT_EQ(builtIn.cancel, "Не переключать");
  EXPECT_TRUE(builtIn.message.starts_with("Весь трафик пойдёт через VPN — просто и надёжно."));

  RoutingConfig routing;
  routing.fullModeAlertTitle = "Точно?";
  routing.fullModeAlertMessage = "";
  routing.fullModeAlertConfirm = "Да";
  responses.set(responseWith(routing));
  auto fromBackend = store->fullModeConfirmation();
  EXPECT_EQ(fromBackend.title, "Точно?");
  EXPECT_EQ(fromBackend.message, builtIn.message);
  EXPECT_EQ(fromBackend.confirm, "Да");
  EXPECT_EQ(fromBackend.cancel, "Не переключать");
}

}  // namespace
}  // namespace norvik
