#include "platform/tunnel_preferences_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"

namespace norvik {
namespace {

nlohmann::json toJson(const TunnelConfiguration& c) {
  nlohmann::json rules = nlohmann::json::array();
  for (const auto& rule : c.onDemandRules) {
    rules.push_back({{"action", rule.action == OnDemandRule::Action::connect ? "connect" : "disconnect"},
                     {"interface", static_cast<int>(rule.interfaceTypeMatch)}});
  }
  nlohmann::json out = {{"identifier", c.identifier},
                        {"revision", c.revision},
                        {"enabled", c.isEnabled},
                        {"onDemand", c.isOnDemandEnabled},
                        {"onDemandRules", rules}};
  if (c.localizedDescription) out["name"] = *c.localizedDescription;
  if (c.protocolConfiguration) {
    const auto& p = *c.protocolConfiguration;
    out["protocol"] = {{"providerBundleIdentifier", p.providerBundleIdentifier},
                       {"providerConfiguration", norvik::toJson(p.providerConfiguration)}};
    if (p.serverAddress) out["protocol"]["serverAddress"] = *p.serverAddress;
  }
  return out;
}

// A field of a saved configuration: `fallback` when absent, nothing when it has another type (the
// file was edited or damaged, and the entry cannot be trusted).
template <class T>
std::optional<T> field(const nlohmann::json& j, std::string_view key, T fallback) {
  const auto found = j.find(key);
  if (found == j.end()) return fallback;
  bool fits = false;
  if constexpr (std::is_same_v<T, bool>) {
    fits = found->is_boolean();
  } else if constexpr (std::is_same_v<T, std::string>) {
    fits = found->is_string();
  } else if constexpr (std::is_unsigned_v<T>) {
    fits = found->is_number_unsigned();
  } else {
    fits = found->is_number_integer();
  }
  if (!fits) return std::nullopt;
  return found->get<T>();
}

std::optional<TunnelConfiguration> configurationFromJson(const nlohmann::json& j) {
  if (!j.is_object() || !j.contains("identifier") || !j["identifier"].is_string()) return std::nullopt;
  TunnelConfiguration c;
  c.identifier = j["identifier"].get<std::string>();
  const auto revision = field(j, "revision", std::uint64_t{1});
  const auto enabled = field(j, "enabled", false);
  const auto onDemand = field(j, "onDemand", false);
  if (!revision || !enabled || !onDemand) return std::nullopt;
  c.revision = *revision;
  c.isEnabled = *enabled;
  c.isOnDemandEnabled = *onDemand;
  if (j.contains("name") && j["name"].is_string()) c.localizedDescription = j["name"].get<std::string>();
  if (j.contains("onDemandRules") && j["onDemandRules"].is_array()) {
    for (const auto& rule : j["onDemandRules"]) {
      if (!rule.is_object()) return std::nullopt;
      const auto action = field(rule, "action", std::string("connect"));
      const auto interface = field(rule, "interface", std::int64_t{0});
      if (!action || !interface) return std::nullopt;
      OnDemandRule r;
      r.action = *action == "connect" ? OnDemandRule::Action::connect : OnDemandRule::Action::disconnect;
      r.interfaceTypeMatch = static_cast<OnDemandRule::InterfaceType>(std::clamp<std::int64_t>(*interface, 0, 3));
      c.onDemandRules.push_back(r);
    }
  }
  if (j.contains("protocol") && j["protocol"].is_object()) {
    const auto& p = j["protocol"];
    TunnelProviderProtocol protocol;
    auto bundle = field(p, "providerBundleIdentifier", std::string());
    if (!bundle) return std::nullopt;
    protocol.providerBundleIdentifier = std::move(*bundle);
    if (p.contains("serverAddress") && p["serverAddress"].is_string()) {
      protocol.serverAddress = p["serverAddress"].get<std::string>();
    }
    if (p.contains("providerConfiguration")) {
      auto dictionary = propertyFromJson(p["providerConfiguration"]);
      if (!dictionary || !dictionary->dictionary()) return std::nullopt;
      protocol.providerConfiguration = *dictionary->dictionary();
    }
    c.protocolConfiguration = std::move(protocol);
  }
  return c;
}

}  // namespace

bool connectsOnDemand(const TunnelConfiguration& c) {
  return c.isEnabled && c.isOnDemandEnabled &&
         std::ranges::any_of(c.onDemandRules, [](const auto& r) { return r.action == OnDemandRule::Action::connect; });
}

TunnelPreferencesStore::TunnelPreferencesStore(Log& log, std::optional<std::filesystem::path> file)
    : log_(log), file_(std::move(file)) {
  restore();
}

TunnelConfiguration* TunnelPreferencesStore::find(const std::string& identifier) {
  auto it = std::ranges::find(configurations_, identifier, &TunnelConfiguration::identifier);
  return it == configurations_.end() ? nullptr : &*it;
}

const TunnelConfiguration* TunnelPreferencesStore::find(const std::string& identifier) const {
  auto it = std::ranges::find(configurations_, identifier, &TunnelConfiguration::identifier);
  return it == configurations_.end() ? nullptr : &*it;
}

std::expected<TunnelConfiguration, Error> TunnelPreferencesStore::save(TunnelConfiguration configuration) {
  std::vector<TunnelConfiguration> next = configurations_;
  std::uint64_t nextIdentifier = nextIdentifier_;
  if (configuration.identifier.empty()) {
    configuration.identifier = fmt::format("5E1F0000-0000-4000-8000-{:012X}", nextIdentifier++);
    configuration.revision = 1;
    next.push_back(configuration);
  } else {
    auto stored = std::ranges::find(next, configuration.identifier, &TunnelConfiguration::identifier);
    if (stored == next.end()) {
      return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid, "The VPN configuration was removed"));
    }
    if (configuration.revision < stored->revision) {
      return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationStale));
    }
    configuration.revision = stored->revision + 1;
    *stored = configuration;
  }
  if (auto persisted = persist(next, nextIdentifier); !persisted) return std::unexpected(persisted.error());
  configurations_ = std::move(next);
  nextIdentifier_ = nextIdentifier;
  return configuration;
}

std::expected<void, Error> TunnelPreferencesStore::remove(const std::string& identifier) {
  if (!find(identifier)) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  std::vector<TunnelConfiguration> next = configurations_;
  std::erase_if(next, [&](const auto& c) { return c.identifier == identifier; });
  if (auto persisted = persist(next, nextIdentifier_); !persisted) return std::unexpected(persisted.error());
  configurations_ = std::move(next);
  return {};
}

std::expected<void, Error> TunnelPreferencesStore::update(const std::string& identifier,
                                                          const std::function<void(TunnelConfiguration&)>& change) {
  TunnelConfiguration* configuration = find(identifier);
  if (!configuration) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  // The system's own change happens whether or not it reaches the file: it holds for this run.
  change(*configuration);
  ++configuration->revision;
  return persist(configurations_, nextIdentifier_);
}

std::expected<void, Error> TunnelPreferencesStore::persist(const std::vector<TunnelConfiguration>& configurations,
                                                           std::uint64_t nextIdentifier) {
  if (!file_) return {};
  nlohmann::json list = nlohmann::json::array();
  for (const auto& c : configurations) list.push_back(toJson(c));
  const nlohmann::json document = {{"configurations", list}, {"nextIdentifier", nextIdentifier}};
  auto written = makeDirectories(file_->parent_path(), 0700);
  if (written) {
    written = writeFileAtomically(*file_, document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace), 0600);
  }
  if (!written) log_.format("[Tunnel] настройки туннеля не сохранены: {}", written.error().message);
  return written;
}

void TunnelPreferencesStore::restore() {
  if (!file_) return;
  auto text = readFile(*file_, 16u << 20);
  if (!text && text.error().code == ENOENT) return;  // nothing saved yet
  auto document = text ? nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false)
                       : nlohmann::json(nlohmann::json::value_t::discarded);
  std::vector<TunnelConfiguration> restored;
  bool damaged =
      !document.is_object() || !document.contains("configurations") || !document["configurations"].is_array();
  if (!damaged) {
    for (const auto& entry : document["configurations"]) {
      auto configuration = configurationFromJson(entry);
      if (!configuration) {
        damaged = true;
        break;
      }
      restored.push_back(std::move(*configuration));
    }
  }
  if (damaged) {
    // Kept aside for a person to look at; the store starts empty rather than half-read. A file
    // that cannot be read at all (not a regular file, far too large) is set aside the same way.
    const auto aside = setDamagedFileAside(*file_);
    log_.format("[Tunnel] настройки туннеля повреждены{}, сохранены как {}",
                text ? std::string() : " (" + text.error().message + ")", aside.string());
    reset_ = StoreReset{"tunnel preferences", text ? "not a saved configuration list" : text.error().message, aside, 0};
    return;
  }
  configurations_ = std::move(restored);
  // A counter that cannot be read starts above every restored entry, like a missing one.
  nextIdentifier_ = std::max<std::uint64_t>(field(document, "nextIdentifier", std::uint64_t{1}).value_or(1),
                                            configurations_.size() + 1);
}

}  // namespace norvik
