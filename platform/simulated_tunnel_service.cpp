#include "platform/simulated_tunnel_service.h"

#include <algorithm>

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
  nlohmann::json out = {{"identifier", c.identifier}, {"revision", c.revision},       {"enabled", c.isEnabled},
                        {"onDemand", c.isOnDemandEnabled}, {"onDemandRules", rules}};
  if (c.localizedDescription) out["name"] = *c.localizedDescription;
  if (c.protocolConfiguration) {
    const auto& p = *c.protocolConfiguration;
    out["protocol"] = {{"providerBundleIdentifier", p.providerBundleIdentifier},
                       {"providerConfiguration", norvik::toJson(p.providerConfiguration)}};
    if (p.serverAddress) out["protocol"]["serverAddress"] = *p.serverAddress;
  }
  return out;
}

std::optional<TunnelConfiguration> configurationFromJson(const nlohmann::json& j) {
  if (!j.is_object() || !j.contains("identifier") || !j["identifier"].is_string()) return std::nullopt;
  TunnelConfiguration c;
  c.identifier = j["identifier"].get<std::string>();
  c.revision = j.value("revision", std::uint64_t{1});
  c.isEnabled = j.value("enabled", false);
  c.isOnDemandEnabled = j.value("onDemand", false);
  if (j.contains("name") && j["name"].is_string()) c.localizedDescription = j["name"].get<std::string>();
  if (j.contains("onDemandRules") && j["onDemandRules"].is_array()) {
    for (const auto& rule : j["onDemandRules"]) {
      OnDemandRule r;
      r.action = rule.value("action", std::string("connect")) == "connect" ? OnDemandRule::Action::connect
                                                                         : OnDemandRule::Action::disconnect;
      r.interfaceTypeMatch = static_cast<OnDemandRule::InterfaceType>(std::clamp(rule.value("interface", 0), 0, 3));
      c.onDemandRules.push_back(r);
    }
  }
  if (j.contains("protocol") && j["protocol"].is_object()) {
    const auto& p = j["protocol"];
    TunnelProviderProtocol protocol;
    protocol.providerBundleIdentifier = p.value("providerBundleIdentifier", std::string());
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

bool connectsOnDemand(const TunnelConfiguration& c) {
  return c.isEnabled && c.isOnDemandEnabled &&
         std::ranges::any_of(c.onDemandRules, [](const auto& r) { return r.action == OnDemandRule::Action::connect; });
}

}  // namespace

SimulatedTunnelService::SimulatedTunnelService(EventLoop& loop, Clock& clock, Log& log,
                                               NamedNotificationCenter* notifications, Options options)
    : loop_(loop),
      clock_(clock),
      log_(log),
      notifications_(notifications),
      options_(std::move(options)),
      observers_(std::make_shared<std::vector<std::pair<std::uint64_t, StatusObserver>>>()) {
  restore();
}

SimulatedTunnelService::~SimulatedTunnelService() = default;

template <class Completion, class Value>
void SimulatedTunnelService::answer(Completion completion, Value value) {
  // The caller guards its own lifetime; the answer itself needs nothing from this service.
  loop_.post([completion = std::move(completion), value = std::move(value)]() mutable { completion(std::move(value)); });
}

TunnelConfiguration* SimulatedTunnelService::find(const std::string& identifier) {
  auto it = std::ranges::find(configurations_, identifier, &TunnelConfiguration::identifier);
  return it == configurations_.end() ? nullptr : &*it;
}

std::string SimulatedTunnelService::newIdentifier() {
  return fmt::format("5E1F0000-0000-4000-8000-{:012X}", nextIdentifier_++);
}

void SimulatedTunnelService::loadAllFromPreferences(ConfigurationsCompletion completion) {
  if (!failLoadAll_.empty()) {
    Error error = std::move(failLoadAll_.front());
    failLoadAll_.erase(failLoadAll_.begin());
    return answer(std::move(completion), std::expected<std::vector<TunnelConfiguration>, Error>(std::unexpected(error)));
  }
  answer(std::move(completion), std::expected<std::vector<TunnelConfiguration>, Error>(configurations_));
}

void SimulatedTunnelService::saveToPreferences(TunnelConfiguration configuration, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  if (!failSave_.empty()) {
    Error error = std::move(failSave_.front());
    failSave_.erase(failSave_.begin());
    return answer(std::move(completion), Result(std::unexpected(error)));
  }
  ++saves_;
  if (configuration.identifier.empty()) {
    configuration.identifier = newIdentifier();
    configuration.revision = 1;
    configurations_.push_back(configuration);
  } else {
    TunnelConfiguration* stored = find(configuration.identifier);
    if (!stored) {
      return answer(std::move(completion),
                    Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid,
                                                          "The VPN configuration was removed"))));
    }
    if (configuration.revision < stored->revision) {
      return answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationStale))));
    }
    configuration.revision = stored->revision + 1;
    *stored = configuration;
    // A configuration switched off takes its session down, as the system does.
    if (!configuration.isEnabled && status(configuration.identifier) != TunnelStatus::disconnected) {
      beginStop(configuration.identifier, /*postUserStop=*/true);
    }
  }
  persist();
  answer(std::move(completion), Result(configuration));
}

void SimulatedTunnelService::loadFromPreferences(std::string identifier, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  if (const TunnelConfiguration* stored = find(identifier)) return answer(std::move(completion), Result(*stored));
  answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid))));
}

void SimulatedTunnelService::removeFromPreferences(std::string identifier, DoneCompletion completion) {
  using Result = std::expected<void, Error>;
  if (!failRemove_.empty()) {
    Error error = std::move(failRemove_.front());
    failRemove_.erase(failRemove_.begin());
    return answer(std::move(completion), Result(std::unexpected(error)));
  }
  if (!find(identifier)) {
    return answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid))));
  }
  if (status(identifier) != TunnelStatus::disconnected) finishStop(identifier, /*postUserStop=*/true, std::nullopt);
  std::erase_if(configurations_, [&](const auto& c) { return c.identifier == identifier; });
  persist();
  answer(std::move(completion), Result());
}

std::expected<void, Error> SimulatedTunnelService::startVPNTunnel(const std::string& identifier,
                                                                  const PropertyDictionary& options) {
  const TunnelConfiguration* configuration = find(identifier);
  if (!configuration) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  if (!configuration->isEnabled) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationDisabled));
  if (!configuration->protocolConfiguration) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  startOptions_.push_back(options);

  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::connecting || current == TunnelStatus::connected) return {};
  // The system runs one tunnel at a time.
  for (const auto& [other, session] : sessions_) {
    if (other != identifier && session.status != TunnelStatus::disconnected) {
      finishStop(other, /*postUserStop=*/true, std::nullopt);
    }
  }

  sessions_[identifier].disconnectError.reset();
  setStatus(identifier, TunnelStatus::connecting);
  const std::uint64_t generation = sessions_[identifier].generation;
  std::optional<Error> failure;
  if (!failConnect_.empty()) {
    failure = std::move(failConnect_.front());
    failConnect_.erase(failConnect_.begin());
  } else if (connectHangs_) {
    return {};
  }
  loop_.postAfter(options_.connectDelay, [weak = weakFactory_.weak(), identifier, generation, failure] {
    auto self = weak.lock();
    if (!self || self->sessions_[identifier].generation != generation) return;
    if (failure) {
      self->finishStop(identifier, /*postUserStop=*/false, failure);
      return;
    }
    self->sessions_[identifier].connectedAt = self->clock_.now();
    self->setStatus(identifier, TunnelStatus::connected);
  });
  return {};
}

void SimulatedTunnelService::stopVPNTunnel(const std::string& identifier) {
  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::disconnected || current == TunnelStatus::disconnecting) return;
  beginStop(identifier, /*postUserStop=*/true);
}

void SimulatedTunnelService::beginStop(const std::string& identifier, bool postUserStop) {
  setStatus(identifier, TunnelStatus::disconnecting);
  const std::uint64_t generation = sessions_[identifier].generation;
  loop_.postAfter(options_.disconnectDelay, [weak = weakFactory_.weak(), identifier, generation, postUserStop] {
    auto self = weak.lock();
    if (!self || self->sessions_[identifier].generation != generation) return;
    self->finishStop(identifier, postUserStop, std::nullopt);
    // On demand, the system brings the tunnel back up by itself.
    const TunnelConfiguration* configuration = self->find(identifier);
    if (configuration && connectsOnDemand(*configuration)) {
      const std::uint64_t stopped = self->sessions_[identifier].generation;
      self->loop_.postAfter(self->options_.onDemandRestartDelay, [weak = self->weakFactory_.weak(), identifier, stopped] {
        auto again = weak.lock();
        if (!again || again->sessions_[identifier].generation != stopped) return;
        const TunnelConfiguration* current = again->find(identifier);
        if (current && connectsOnDemand(*current)) (void)again->startVPNTunnel(identifier, {});
      });
    }
  });
}

void SimulatedTunnelService::finishStop(const std::string& identifier, bool postUserStop, std::optional<Error> error) {
  Session& session = sessions_[identifier];
  session.connectedAt.reset();
  session.stalledAt.reset();
  session.disconnectError = std::move(error);
  setStatus(identifier, TunnelStatus::disconnected);
  if (postUserStop && notifications_) notifications_->post(kUserStopNotification);
}

void SimulatedTunnelService::endSessionFromTunnel(const std::string& identifier, Error error) {
  if (status(identifier) == TunnelStatus::disconnected) return;
  finishStop(identifier, /*postUserStop=*/false, std::move(error));
}

void SimulatedTunnelService::stopFromSystemControls(const std::string& identifier) {
  if (status(identifier) == TunnelStatus::disconnected) return;
  // The system's own switch also ends on-demand, so the tunnel stays down.
  if (TunnelConfiguration* configuration = find(identifier)) {
    configuration->isOnDemandEnabled = false;
    ++configuration->revision;
    persist();
  }
  finishStop(identifier, /*postUserStop=*/true, std::nullopt);
}

TunnelStatus SimulatedTunnelService::status(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? TunnelStatus::disconnected : it->second.status;
}

std::optional<Clock::TimePoint> SimulatedTunnelService::connectedDate(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.connectedAt;
}

std::optional<Error> SimulatedTunnelService::lastDisconnectError(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.disconnectError;
}

void SimulatedTunnelService::fetchTelemetry(const std::string& identifier, TelemetryCompletion completion) {
  using Result = std::expected<TunnelTelemetry, Error>;
  auto it = sessions_.find(identifier);
  if (it == sessions_.end() || it->second.status != TunnelStatus::connected || !it->second.connectedAt) {
    return answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed,
                                                                               "no running session"))));
  }
  Session& session = it->second;
  const Clock::TimePoint now = clock_.now();
  if (!trafficFlows_ && !session.stalledAt) session.stalledAt = now;
  if (trafficFlows_) session.stalledAt.reset();
  // Up to the stall the session behaves like a healthy one: a handshake at connect and every two
  // minutes after, and a steady stream of bytes.
  const Clock::TimePoint until = session.stalledAt.value_or(now);
  const auto flowing = std::chrono::duration_cast<std::chrono::seconds>(until - *session.connectedAt);
  constexpr auto kRekey = std::chrono::seconds(120);
  TunnelTelemetry telemetry;
  telemetry.lastHandshake = *session.connectedAt + (flowing / kRekey) * kRekey;
  telemetry.receivedBytes = static_cast<std::uint64_t>(std::max<std::int64_t>(flowing.count(), 0)) * bytesPerSecond_ + 148;
  telemetry.sentBytes = telemetry.receivedBytes / 4 + 148;
  telemetry.interfaceName = "norvik0";
  answer(std::move(completion), Result(telemetry));
}

Subscription SimulatedTunnelService::observeStatus(StatusObserver observer) {
  const std::uint64_t id = nextObserverId_++;
  observers_->emplace_back(id, std::move(observer));
  std::weak_ptr<std::vector<std::pair<std::uint64_t, StatusObserver>>> weak = observers_;
  return Subscription([weak, id] {
    if (auto observers = weak.lock()) std::erase_if(*observers, [id](const auto& entry) { return entry.first == id; });
  });
}

void SimulatedTunnelService::setStatus(const std::string& identifier, TunnelStatus status) {
  Session& session = sessions_[identifier];
  session.status = status;
  ++session.generation;
  // Observers hear of it on the loop, in order.
  loop_.post([observers = std::weak_ptr(observers_), identifier, status] {
    auto list = observers.lock();
    if (!list) return;
    auto snapshot = *list;
    for (const auto& [id, observer] : snapshot) {
      const bool still = std::ranges::any_of(*list, [id](const auto& entry) { return entry.first == id; });
      if (still) observer(identifier, status);
    }
  });
}

void SimulatedTunnelService::persist() {
  if (!options_.storeFile) return;
  nlohmann::json list = nlohmann::json::array();
  for (const auto& c : configurations_) list.push_back(toJson(c));
  const nlohmann::json document = {{"configurations", list}, {"nextIdentifier", nextIdentifier_}};
  if (auto made = makeDirectories(options_.storeFile->parent_path(), 0700); !made) {
    log_.format("[Tunnel] настройки туннеля не сохранены: {}", made.error().message);
    return;
  }
  auto written = writeFileAtomically(*options_.storeFile,
                                     document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace), 0600);
  if (!written) log_.format("[Tunnel] настройки туннеля не сохранены: {}", written.error().message);
}

void SimulatedTunnelService::restore() {
  if (!options_.storeFile) return;
  auto text = readFile(*options_.storeFile);
  if (!text) return;  // nothing saved yet
  auto document = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  std::vector<TunnelConfiguration> restored;
  bool damaged = !document.is_object() || !document.contains("configurations") || !document["configurations"].is_array();
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
    // Kept aside for a person to look at; the service starts empty rather than half-read.
    auto aside = *options_.storeFile;
    aside += ".damaged";
    std::error_code ec;
    std::filesystem::rename(*options_.storeFile, aside, ec);
    log_.format("[Tunnel] настройки туннеля повреждены, сохранены как {}", aside.string());
    return;
  }
  configurations_ = std::move(restored);
  nextIdentifier_ = std::max<std::uint64_t>(document.value("nextIdentifier", std::uint64_t{1}), configurations_.size() + 1);
}

}  // namespace norvik
