#include "routing/ios_fixes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "testing/fakes.h"

namespace norvik {
namespace {

// Remembers the order of writes, as another process reading the suite mid-way would see them.
class OrderedDefaults final : public Defaults {
 public:
  [[nodiscard]] std::optional<DefaultsValue> value(std::string_view key) const override { return inner.value(key); }
  WriteResult set(std::string_view key, DefaultsValue value) override {
    order.emplace_back(key);
    return inner.set(key, std::move(value));
  }
  WriteResult remove(std::string_view key) override { return inner.remove(key); }
  using Defaults::set;

  testing::MemoryDefaults inner;
  std::vector<std::string> order;
};

// Every cached flag key, in the order the tunnel's readers expect them written.
const std::vector<std::string>& writeOrder() {
  static const std::vector<std::string> kOrder = {
      "iosFixes.iosFixedEnable",
      "iosFixes.sockBufBytes",
      "iosFixes.enobufsRetryCount",
      "iosFixes.maxPaddingTransport",
      "iosFixes.preallocBufsPerPool",
      "iosFixes.useShortHeaderAfterHandshake",
      "iosFixes.tunMTU",
      "iosFixes.disableIPv6",
      "iosFixes.selfCheckBlockSend",
      "iosFixes.debugLogEnabled",
      "iosFixes.smartIfaceProbeEnabled",
      "iosFixes.preConnectNoInternet",
      "iosFixes.rebuildHygiene",
      "iosFixes.gvisorFlowBudget",
      "iosFixes.extGcPercent",
      "iosFixes.extMemLimitMb",
      "iosFixes.hopHygiene",
      "iosFixes.wakeRebind",
      "iosFixes.wakeRebindNewPort",
      "iosFixes.pathRebindCheck",
      "iosFixes.diagRecorderEnabled",
      "iosFixes.delkeyVerifyViaMain",
      "iosFixes.healthCheckMode",
      "iosFixes.selfHealMaxPerDay",
      "iosFixes.reconnectWaitMs",
      "iosFixes.diagExportRaw",
      "iosFixes.keySoftDelete",
      "iosFixes.keySoftDeleteDebug",
      "iosFixes.everReceived",
  };
  return kOrder;
}

class IOSFixesCacheTest : public ::testing::Test {
 protected:
  void respond(OptBool enable, std::optional<nlohmann::json> fixes) {
    auto response = std::make_shared<APIResponse>();
    response->main.iosFixedEnable = enable;
    response->main.iosFixes = std::move(fixes);
    responses.set(response);
  }

  OrderedDefaults group;
  testing::CapturingLog log;
  Published<NetworkService::MainResponse> responses;
  IOSFixesCache cache{group, responses, log};
};

TEST_F(IOSFixesCacheTest, AbsentFlagsAreCachedAsZerosInOrderAndMarkedReceived) {
  respond(std::nullopt, std::nullopt);
  EXPECT_EQ(group.order, writeOrder());
  EXPECT_EQ(group.boolValue("iosFixes.iosFixedEnable"), false);
  for (std::size_t i = 1; i + 1 < writeOrder().size(); ++i)
    EXPECT_EQ(group.integerValue(writeOrder()[i]), 0) << writeOrder()[i];
  EXPECT_EQ(group.boolValue("iosFixes.everReceived"), true);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"[iosFixes] cached (non-sticky): enable=false  sockBuf=0  retry=0  pad=0  "
                                     "prealloc=0  shortHeader=0  tunMTU=0  disableIPv6=0  selfCheckBlock=0  "
                                     "debugLog=0  smartProbe=0"});
}

TEST_F(IOSFixesCacheTest, AFlagTheBackendStopsSendingFallsBackToZero) {
  respond(true, nlohmann::json{{"tunMTU", 1280},
                               {"sockBufBytes", "4194304"},
                               {"disableIPv6", true},
                               {"keySoftDelete", 3},
                               {"healthCheckMode", 1.5},
                               {"dpiDiag", 1}});
  EXPECT_EQ(group.integerValue("iosFixes.tunMTU"), 1280);
  EXPECT_EQ(group.integerValue("iosFixes.sockBufBytes"), 4194304);  // digits in a string count
  EXPECT_EQ(group.integerValue("iosFixes.disableIPv6"), 1);         // a JSON true is 1
  EXPECT_EQ(group.integerValue("iosFixes.keySoftDelete"), 3);
  EXPECT_EQ(group.integerValue("iosFixes.healthCheckMode"), 0);  // not an integer: not sent
  EXPECT_FALSE(group.contains("iosFixes.dpiDiag"));              // decoded, never cached
  EXPECT_TRUE(
      log.hasLine("[iosFixes] cached (non-sticky): enable=true  sockBuf=4194304  retry=0  pad=0  prealloc=0  "
                  "shortHeader=0  tunMTU=1280  disableIPv6=1  selfCheckBlock=0  debugLog=0  smartProbe=0"));

  respond(true, nlohmann::json{{"keySoftDelete", 3}});
  EXPECT_EQ(group.integerValue("iosFixes.tunMTU"), 0);
  EXPECT_EQ(group.integerValue("iosFixes.sockBufBytes"), 0);
  EXPECT_EQ(group.integerValue("iosFixes.keySoftDelete"), 3);
}

}  // namespace
}  // namespace norvik
