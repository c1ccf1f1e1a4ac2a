#include "routing/ios_fixes.h"

#include <array>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "backend/json_fields.h"

namespace norvik {
namespace {

using Member = OptInt IOSFixesConfig::*;

struct Flag {
  const char* name;
  Member member;
};

// Every flag, in the backend's order.
constexpr std::array<Flag, 32> kFlags = {{
    {"sockBufBytes", &IOSFixesConfig::sockBufBytes},
    {"enobufsRetryCount", &IOSFixesConfig::enobufsRetryCount},
    {"maxPaddingTransport", &IOSFixesConfig::maxPaddingTransport},
    {"preallocBufsPerPool", &IOSFixesConfig::preallocBufsPerPool},
    {"useShortHeaderAfterHandshake", &IOSFixesConfig::useShortHeaderAfterHandshake},
    {"tunMTU", &IOSFixesConfig::tunMTU},
    {"disableIPv6", &IOSFixesConfig::disableIPv6},
    {"selfCheckBlockSend", &IOSFixesConfig::selfCheckBlockSend},
    {"debugLogEnabled", &IOSFixesConfig::debugLogEnabled},
    {"smartIfaceProbeEnabled", &IOSFixesConfig::smartIfaceProbeEnabled},
    {"routingRuntimeFlagsEnabled", &IOSFixesConfig::routingRuntimeFlagsEnabled},
    {"delkeyVerifyViaMain", &IOSFixesConfig::delkeyVerifyViaMain},
    {"healthCheckMode", &IOSFixesConfig::healthCheckMode},
    {"reconnectWaitMs", &IOSFixesConfig::reconnectWaitMs},
    {"selfHealMaxPerDay", &IOSFixesConfig::selfHealMaxPerDay},
    {"diagRecorderEnabled", &IOSFixesConfig::diagRecorderEnabled},
    {"dpiDiag", &IOSFixesConfig::dpiDiag},
    {"pathOfflineMode", &IOSFixesConfig::pathOfflineMode},
    {"wakeRebind", &IOSFixesConfig::wakeRebind},
    {"wakeRebindNewPort", &IOSFixesConfig::wakeRebindNewPort},
    {"pathRebindCheck", &IOSFixesConfig::pathRebindCheck},
    {"hopHygiene", &IOSFixesConfig::hopHygiene},
    {"diagExportRaw", &IOSFixesConfig::diagExportRaw},
    {"memPressureTrim", &IOSFixesConfig::memPressureTrim},
    {"rebuildHygiene", &IOSFixesConfig::rebuildHygiene},
    {"gvisorFlowBudget", &IOSFixesConfig::gvisorFlowBudget},
    {"extGcPercent", &IOSFixesConfig::extGcPercent},
    {"extMemLimitMb", &IOSFixesConfig::extMemLimitMb},
    {"keySoftDelete", &IOSFixesConfig::keySoftDelete},
    {"keySoftDeleteDebug", &IOSFixesConfig::keySoftDeleteDebug},
    {"keyIpSeamless", &IOSFixesConfig::keyIpSeamless},
    {"preConnectNoInternet", &IOSFixesConfig::preConnectNoInternet},
}};

// The cached flags in the order they are written; the runtime-only flags (routing runtime,
// DPI diagnostics, offline path mode, memory-pressure trim, seamless key IP) are not cached.
constexpr std::array<Flag, 27> kCached = {{
    {"sockBufBytes", &IOSFixesConfig::sockBufBytes},
    {"enobufsRetryCount", &IOSFixesConfig::enobufsRetryCount},
    {"maxPaddingTransport", &IOSFixesConfig::maxPaddingTransport},
    {"preallocBufsPerPool", &IOSFixesConfig::preallocBufsPerPool},
    {"useShortHeaderAfterHandshake", &IOSFixesConfig::useShortHeaderAfterHandshake},
    {"tunMTU", &IOSFixesConfig::tunMTU},
    {"disableIPv6", &IOSFixesConfig::disableIPv6},
    {"selfCheckBlockSend", &IOSFixesConfig::selfCheckBlockSend},
    {"debugLogEnabled", &IOSFixesConfig::debugLogEnabled},
    {"smartIfaceProbeEnabled", &IOSFixesConfig::smartIfaceProbeEnabled},
    {"preConnectNoInternet", &IOSFixesConfig::preConnectNoInternet},
    {"rebuildHygiene", &IOSFixesConfig::rebuildHygiene},
    {"gvisorFlowBudget", &IOSFixesConfig::gvisorFlowBudget},
    {"extGcPercent", &IOSFixesConfig::extGcPercent},
    {"extMemLimitMb", &IOSFixesConfig::extMemLimitMb},
    {"hopHygiene", &IOSFixesConfig::hopHygiene},
    {"wakeRebind", &IOSFixesConfig::wakeRebind},
    {"wakeRebindNewPort", &IOSFixesConfig::wakeRebindNewPort},
    {"pathRebindCheck", &IOSFixesConfig::pathRebindCheck},
    {"diagRecorderEnabled", &IOSFixesConfig::diagRecorderEnabled},
    {"delkeyVerifyViaMain", &IOSFixesConfig::delkeyVerifyViaMain},
    {"healthCheckMode", &IOSFixesConfig::healthCheckMode},
    {"selfHealMaxPerDay", &IOSFixesConfig::selfHealMaxPerDay},
    {"reconnectWaitMs", &IOSFixesConfig::reconnectWaitMs},
    {"diagExportRaw", &IOSFixesConfig::diagExportRaw},
    {"keySoftDelete", &IOSFixesConfig::keySoftDelete},
    {"keySoftDeleteDebug", &IOSFixesConfig::keySoftDeleteDebug},
}};

// The summary line's short names for the main values.
constexpr std::array<Flag, 10> kSummary = {{
    {"sockBuf", &IOSFixesConfig::sockBufBytes},
    {"retry", &IOSFixesConfig::enobufsRetryCount},
    {"pad", &IOSFixesConfig::maxPaddingTransport},
    {"prealloc", &IOSFixesConfig::preallocBufsPerPool},
    {"shortHeader", &IOSFixesConfig::useShortHeaderAfterHandshake},
    {"tunMTU", &IOSFixesConfig::tunMTU},
    {"disableIPv6", &IOSFixesConfig::disableIPv6},
    {"selfCheckBlock", &IOSFixesConfig::selfCheckBlockSend},
    {"debugLog", &IOSFixesConfig::debugLogEnabled},
    {"smartProbe", &IOSFixesConfig::smartIfaceProbeEnabled},
}};

}  // namespace

IOSFixesConfig decodeIOSFixesConfig(const nlohmann::json& object) {
  IOSFixesConfig config;
  if (!object.is_object()) return config;
  const json_fields::Fields fields(object, "main.iosFixes");
  for (const Flag& flag : kFlags) {
    const auto* value = fields.find(flag.name);
    if (!value) continue;
    if (value->is_boolean()) {
      config.*flag.member = value->get<bool>() ? 1 : 0;
      continue;
    }
    try {
      fields.integer(flag.name, config.*flag.member);
    } catch (const json_fields::DecodeFailure&) {
      // A flag that cannot be read is a flag that was not sent.
    }
  }
  return config;
}

std::span<const std::string> iosFixesCachedIntegerKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> out;
    out.reserve(std::size(kCached));
    for (const Flag& flag : kCached) out.push_back(std::string("iosFixes.") + flag.name);
    return out;
  }();
  return keys;
}

IOSFixesCache::IOSFixesCache(Defaults& groupDefaults, Published<NetworkService::MainResponse>& responses, Log& log)
    : defaults_(groupDefaults), log_(log) {
  if (const auto& response = responses.get()) cache(response->main);
  responseSubscription_ = responses.subscribe([this](const NetworkService::MainResponse& response) {
    if (response) cache(response->main);
  });
}

void IOSFixesCache::cache(const MainConfig& main) {
  const IOSFixesConfig config = main.iosFixes ? decodeIOSFixesConfig(*main.iosFixes) : IOSFixesConfig{};
  const bool enabled = main.iosFixedEnable.value_or(false);

  defaults_.setBool(kIOSFixesEnableKey, enabled);
  const auto keys = iosFixesCachedIntegerKeys();
  for (std::size_t i = 0; i < kCached.size(); ++i) {
    defaults_.setInteger(keys[i], (config.*kCached[i].member).value_or(0));
  }
  defaults_.setBool(kIOSFixesEverReceivedKey, true);

  std::string line = fmt::format("[iosFixes] cached (non-sticky): enable={}", enabled ? "true" : "false");
  for (const Flag& flag : kSummary)
    fmt::format_to(std::back_inserter(line), "  {}={}", flag.name, (config.*flag.member).value_or(0));
  log_.write(line);
}

}  // namespace norvik
