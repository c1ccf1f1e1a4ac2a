#include "routing/tunnel_extras_snapshot.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "routing/geoip_cache.h"
#include "routing/modes_store.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

class TunnelExtrasSnapshotTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::string text(const PropertyDictionary& extras, std::string_view key) const {
    auto it = extras.find(key);
    if (it == extras.end()) return "<absent>";
    return it->second.string() ? *it->second.string() : "<not a text>";
  }

  testing::MemoryDefaults group;
  testing::TempDir container;
  std::filesystem::path geoipFile = container / "geodata" / "geoip_cache.txt";
  std::string profile;
  TunnelExtrasSnapshot extras{group, geoipFile, [this] { return profile; }};
};

TEST_F(TunnelExtrasSnapshotTest, AnEmptySuiteGivesSmartEmptyListsAndBypassAllowed) {
  const auto snapshot = extras.snapshot();
  EXPECT_EQ(text(snapshot, "routing.goMode"), "0");
  EXPECT_EQ(text(snapshot, "routing.serviceCIDRs"), "");
  EXPECT_EQ(text(snapshot, "routing.watchDomains"), "");
  EXPECT_EQ(text(snapshot, "routing.geoBypassAllowed"), "1");
  EXPECT_EQ(text(snapshot, "routing.netProfile"), "");
  EXPECT_FALSE(snapshot.contains("geodata.geoip_cache.path"));
  EXPECT_FALSE(snapshot.contains("iosFixes.tunMTU"));
  EXPECT_FALSE(group.contains(GeoIPCache::kPushedToExtensionKey));
}

TEST_F(TunnelExtrasSnapshotTest, TheModeIsSentAsItsStoredCodeAndNothingElse) {
  const std::pair<DefaultsValue, std::string> cases[] = {{std::int64_t{1}, "1"},  {std::int64_t{2}, "2"},
                                                         {std::int64_t{7}, "0"},  {std::int64_t{-1}, "0"},
                                                         {std::string("2"), "2"}, {std::string("garbage"), "0"}};
  for (const auto& [stored, sent] : cases) {
    group.set(ModesStore::kModeServicesActive, stored);
    EXPECT_EQ(text(extras.snapshot(), "routing.goMode"), sent);
  }
}

TEST_F(TunnelExtrasSnapshotTest, TheBypassIsRefusedOnlyByAnExplicitFalse) {
  group.setString(ModesStore::kGeoBypassAllowedByBackend, "false");
  EXPECT_EQ(text(extras.snapshot(), "routing.geoBypassAllowed"), "1");
  group.setBool(ModesStore::kGeoBypassAllowedByBackend, false);
  EXPECT_EQ(text(extras.snapshot(), "routing.geoBypassAllowed"), "0");
}

TEST_F(TunnelExtrasSnapshotTest, CarriesTheListsFlagsProfileAndTheGeoIPFile) {
  group.setString("routing.serviceCIDRs", "91.108.4.0/22\n149.154.160.0/20");
  group.setString("routing.watchDomains", "t.me\nxn--e1afmkfd.xn--p1ai");
  group.setBool(ModesStore::kRelayHarden, true);
  group.setInteger(ModesStore::kExtMemLimitMb, 48);
  group.setBool("iosFixes.iosFixedEnable", true);
  group.setInteger("iosFixes.tunMTU", 1280);
  group.setBool("iosFixes.everReceived", true);
  group.setString(GeoIPCache::kBackendVersionKey, "v7");
  group.setBool(GeoIPCache::kPushedToExtensionKey, false);
  profile = "access=relay\nmtu=1380";
  ASSERT_TRUE(makeDirectories(geoipFile.parent_path()));
  ASSERT_TRUE(writeFileAtomically(geoipFile, "2.56.88.0/22\n"));

  const auto snapshot = extras.snapshot();
  EXPECT_EQ(text(snapshot, "routing.serviceCIDRs"), "91.108.4.0/22\n149.154.160.0/20");
  EXPECT_EQ(text(snapshot, "routing.watchDomains"), "t.me\nxn--e1afmkfd.xn--p1ai");
  EXPECT_EQ(text(snapshot, "routing.netProfile"), "access=relay\nmtu=1380");
  EXPECT_EQ(snapshot.at("routing.relayHarden"), PropertyValue(true));
  EXPECT_EQ(snapshot.at("routing.extMemLimitMb"), PropertyValue(48));
  EXPECT_EQ(snapshot.at("iosFixes.iosFixedEnable"), PropertyValue(true));
  EXPECT_EQ(snapshot.at("iosFixes.tunMTU"), PropertyValue(1280));
  EXPECT_EQ(snapshot.at("iosFixes.everReceived"), PropertyValue(true));
  EXPECT_EQ(text(snapshot, "geodata.geoip_cache.path"), std::filesystem::absolute(geoipFile).string());
  EXPECT_EQ(text(snapshot, "geodata.geoip_cache.backendVersion"), "v7");
  // The install that takes this snapshot hands the file over.
  EXPECT_EQ(group.boolValue(GeoIPCache::kPushedToExtensionKey), true);
}

}  // namespace
}  // namespace norvik
