#include "app/control_commands.h"

#include <algorithm>
#include <optional>
#include <string>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "platform/weak_ptr_factory.h"
#include "routing/routing_texts.h"
#include "tunnel/menu_bar_model.h"

namespace norvik {
namespace {

using Json = nlohmann::json;

// An optional argument of a request: `fallback` when absent, nothing when it has another type
// (a local client's mistake is answered, never trusted).
std::optional<bool> boolArgument(const Json& request, std::string_view key, bool fallback) {
  const auto found = request.find(key);
  if (found == request.end()) return fallback;
  return found->is_boolean() ? std::optional<bool>(found->get<bool>()) : std::nullopt;
}
std::optional<std::string> textArgument(const Json& request, std::string_view key, std::string fallback) {
  const auto found = request.find(key);
  if (found == request.end()) return fallback;
  return found->is_string() ? std::optional<std::string>(found->get<std::string>()) : std::nullopt;
}

std::string isoTime(Clock::TimePoint moment) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(moment.time_since_epoch()) % 1000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(moment)),
                     ms.count());
}

std::optional<VPNRoutingMode> modeNamed(std::string_view name) {
  for (auto mode : {VPNRoutingMode::full, VPNRoutingMode::smart, VPNRoutingMode::services}) {
    if (rawText(mode) == name) return mode;
  }
  return std::nullopt;
}

}  // namespace

// One request waiting for the application to reach an outcome: it watches published values,
// answers at most once, and ends with its time limit or when the client hangs up.
class ControlCommands::Wait {
 public:
  Wait(EventLoop& loop, ControlReply reply, std::chrono::seconds limit,
       std::function<void(const ControlReply&)> onTimeout)
      : reply_(std::move(reply)) {
    timer_.start(loop, limit, [this, onTimeout = std::move(onTimeout)] {
      if (done_) return;
      done_ = true;
      subscriptions_.clear();
      // Last, and with a copy: the answer starts the connection's next request, which lets go of
      // this wait.
      const ControlReply reply = reply_;
      onTimeout(reply);
    });
    // The connection outlives a wait that has answered (the next request lets go of it). A client
    // that hangs up before its answer gave the request up (Ctrl-C on the command line).
    reply_.onClosed([weak = weakFactory_.weak()] {
      auto* self = weak.lock();
      if (!self || self->done_) return;
      self->end();
      if (self->onHangUp_) std::exchange(self->onHangUp_, nullptr)();
    });
  }

  // What giving the request up means; runs once, only while the answer is still to come.
  void onHangUp(std::function<void()> handler) { onHangUp_ = std::move(handler); }

  // Runs `decide` on every change; it answers (and returns true) when the outcome is known.
  template <class T>
  void watch(Published<T>& value, std::function<bool(const T&)> decide) {
    subscriptions_.push_back(value.subscribe([this, decide = std::move(decide)](const T& v) {
      if (!done_ && decide(v)) end();
    }));
  }
  template <class... Args>
  void listen(Signal<Args...>& signal, std::type_identity_t<std::function<bool(const Args&...)>> decide) {
    subscriptions_.push_back(signal.subscribe([this, decide = std::move(decide)](const Args&... args) {
      if (!done_ && decide(args...)) end();
    }));
  }

  [[nodiscard]] bool finished() const { return done_; }
  [[nodiscard]] WeakPtr<Wait> weak() const { return weakFactory_.weak(); }
  [[nodiscard]] const ControlReply& reply() const { return reply_; }
  void end() {
    done_ = true;
    timer_.stop();
  }

 private:
  ControlReply reply_;
  bool done_ = false;
  std::function<void()> onHangUp_;
  std::vector<Subscription> subscriptions_;
  OneShotTimer timer_;
  WeakPtrFactory<Wait> weakFactory_{this};
};

ControlCommands::ControlCommands(Application& app) : app_(app) {}
ControlCommands::~ControlCommands() = default;

void ControlCommands::track(std::unique_ptr<Wait> wait) {
  std::erase_if(waits_, [](const auto& w) { return w->finished(); });
  waits_.push_back(std::move(wait));
}

std::size_t ControlCommands::waitingCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(waits_, [](const auto& w) { return !w->finished(); }));
}

Json ControlCommands::status() {
  VPNManager& vpn = app_.vpn();
  VPNViewModel& home = app_.home();
  const TunnelStatus state = vpn.connectionState().get();
  const auto& manager = vpn.tunnelManager();
  const VPNRoutingMode mode = app_.modes().currentMode().get();

  Json out = {{"tunnel", toString(state)},
              {"tunnelText", tunnelStateText(state)},
              {"intent", home.machine().target().get() == TunnelStateMachine::Target::on ? "on" : "off"},
              {"state", toString(home.machine().state().get())},
              {"tunnelService", app_.tunnelServiceName()},
              {"configured", vpn.isConfigured().get()},
              {"mode", rawText(mode)},
              {"modeLabel", routing_texts::label(mode)},
              {"extension", toString(vpn.systemExtensionState().get().kind)},
              {"switchLocked", home.switchBlock().get().locked}};
  out["server"] = manager && manager->protocolConfiguration && manager->protocolConfiguration->serverAddress
                      ? Json(*manager->protocolConfiguration->serverAddress)
                      : Json(nullptr);
  out["connectedSince"] = vpn.connectionStartTime() ? Json(isoTime(*vpn.connectionStartTime())) : Json(nullptr);
  out["busy"] = home.busyText().get() ? Json(home.busyText().get()->text) : Json(nullptr);
  // The health check's verdict while it has one for this connection.
  SmartStatusEngine& health = app_.health();
  const bool verdict =
      health.health().get().kind() != SmartStatusHealth::Case::none && !health.statusText().get().empty();
  out["health"] = verdict ? Json(health.statusText().get()) : Json(nullptr);
  out["healthRaw"] = health.healthRaw().get() ? Json(*health.healthRaw().get()) : Json(nullptr);
  if (const auto& error = home.lastError().get()) {
    out["lastError"] = {{"title", error->title}, {"message", error->message}};
  } else {
    out["lastError"] = nullptr;
  }
  if (auto notice = app_.modes().modeControlNotice()) {
    out["modeNotice"] = std::string(*notice);
  } else {
    out["modeNotice"] = nullptr;
  }
  // Stores found damaged at start-up and started afresh: the user should know what was reset.
  Json resets = Json::array();
  for (const StoreReset& reset : app_.platform().storeResets) {
    resets.push_back({{"store", reset.store},
                      {"reason", reset.reason},
                      {"setAside", reset.setAside.empty() ? Json(nullptr) : Json(reset.setAside.string())},
                      {"recovered", reset.recovered}});
  }
  out["storeResets"] = std::move(resets);
  if (const auto& overlay = app_.overlays().current().get()) {
    out["overlay"] = {{"identifier", overlay->identifier}, {"title", overlay->title}, {"message", overlay->message}};
  } else {
    out["overlay"] = nullptr;
  }
  return out;
}

void ControlCommands::finishOk(const ControlReply& reply, std::string message) {
  Json line = {{"ok", true}, {"status", status()}};
  if (!message.empty()) line["message"] = std::move(message);
  reply.finish(line);
}

void ControlCommands::finishError(const ControlReply& reply, std::string_view code, std::string title,
                                  std::string message) {
  reply.finish(Json{{"ok", false},
                    {"code", code},
                    {"error", {{"title", std::move(title)}, {"message", std::move(message)}}},
                    {"status", status()}});
}

void ControlCommands::handle(const Json& request, const ControlReply& reply) {
  const std::string command = request["command"].get<std::string>();
  if (command == "status") return finishOk(reply);
  if (command == "connect") return intent(reply, Intent::connect);
  if (command == "disconnect") return intent(reply, Intent::disconnect);
  if (command == "toggle") return intent(reply, Intent::toggle);
  if (command == "change-server") return intent(reply, Intent::changeServer);
  if (command == "mode") return mode(request, reply);
  if (command == "sites") return sites(request, reply);
  if (command == "watch") return watch(reply);
  finishError(reply, "usage", "", fmt::format("unknown command \"{}\"", command));
}

void ControlCommands::intent(const ControlReply& reply, Intent kind) {
  // The machine answers every request; the limit only guards against a fault of ours.
  auto wait = std::make_unique<Wait>(app_.loop(), reply, kIntentLimit, [this](const ControlReply& r) {
    finishError(r, "failed", "", "Агент Norvik не получил ответа от туннеля вовремя.");
  });
  Wait* w = wait.get();
  w->watch<std::optional<BusyText>>(app_.home().busyText(), [w](const std::optional<BusyText>& busy) {
    if (busy) w->reply().event(Json{{"event", "progress"}, {"busy", busy->text}});
    return false;
  });
  IntentDone done = [this, weak = w->weak()](IntentOutcome outcome) {
    Wait* waiting = weak.lock();
    if (!waiting || waiting->finished()) return;
    waiting->end();
    // A copy: the answer starts the connection's next request, which lets go of this wait.
    const ControlReply reply = waiting->reply();
    switch (outcome.kind) {
      case IntentOutcome::Kind::succeeded:
        return finishOk(reply, std::move(outcome.message));
      case IntentOutcome::Kind::superseded:
        return finishError(reply, "superseded", std::move(outcome.title), std::move(outcome.message));
      case IntentOutcome::Kind::failed:
      case IntentOutcome::Kind::refused:
      default:
        return finishError(reply, "failed", std::move(outcome.title), std::move(outcome.message));
    }
  };
  track(std::move(wait));
  TunnelStateMachine& machine = app_.home().machine();
  RequestId id = 0;
  switch (kind) {
    case Intent::connect:
      id = machine.connect(IntentOrigin::commandLine, std::move(done));
      break;
    case Intent::disconnect:
      id = machine.disconnect(IntentOrigin::commandLine, std::move(done));
      break;
    case Intent::toggle:
      id = machine.toggle(IntentOrigin::commandLine, std::move(done));
      break;
    case Intent::changeServer:
    default:
      id = machine.changeServer(IntentOrigin::commandLine, std::move(done));
      break;
  }
  if (id != 0) w->onHangUp([&machine, id] { machine.withdraw(id); });
}

void ControlCommands::mode(const Json& request, const ControlReply& reply) {
  ModesStore& modes = app_.modes();
  if (!request.contains("set")) {
    Json allowed = Json::array();
    for (auto m : modes.allowedModes()) allowed.push_back(rawText(m));
    Json line = {{"ok", true}, {"status", status()}, {"allowed", allowed}};
    return reply.finish(line);
  }
  const auto wanted = request["set"].is_string() ? modeNamed(request["set"].get<std::string>()) : std::nullopt;
  if (!wanted) return finishError(reply, "usage", "", "режим: full, smart или services");
  const auto confirmedArgument = boolArgument(request, "confirmed", false);
  if (!confirmedArgument) return finishError(reply, "usage", "", "\"confirmed\" is true or false");
  const bool confirmed = *confirmedArgument;
  if (*wanted == VPNRoutingMode::full && !confirmed && modes.currentMode().get() != VPNRoutingMode::full) {
    const FullModeConfirmation dialog = modes.fullModeConfirmation();
    return reply.finish(Json{{"ok", false},
                             {"code", "confirm"},
                             {"confirm",
                              {{"identifier", dialog.identifier},
                               {"title", dialog.title},
                               {"message", dialog.message},
                               {"confirm", dialog.confirm},
                               {"cancel", dialog.cancel}}},
                             {"status", status()}});
  }
  if (auto saved = modes.select(*wanted); !saved) {
    return finishError(reply, "failed", std::string(routing_texts::label(*wanted)), writeFailureText(saved.error()));
  }
  const VPNRoutingMode now = modes.currentMode().get();
  if (now != *wanted) {
    // The choice is kept for when the backend allows it again; the mode in force stays.
    const std::string why = modes.modeControlNotice()
                                ? std::string(*modes.modeControlNotice())
                                : fmt::format("Режим «{}» сейчас недоступен", routing_texts::label(*wanted));
    return finishError(reply, "failed", std::string(routing_texts::label(*wanted)), why);
  }
  finishOk(reply, std::string(routing_texts::label(now)));
}

void ControlCommands::sites(const Json& request, const ControlReply& reply) {
  ServiceCatalogStore& sites = app_.sites();
  const auto actionArgument = textArgument(request, "action", "list");
  const auto valueArgument = textArgument(request, "value", "");
  if (!actionArgument || !valueArgument) return finishError(reply, "usage", "", R"("action" and "value" are texts)");
  const std::string& action = *actionArgument;
  const std::string& value = *valueArgument;
  auto listing = [&] {
    Json services = Json::array();
    for (const auto& item : sites.catalog()) {
      services.push_back(
          {{"key", item.key}, {"title", item.title}, {"on", sites.selectedServices().get().contains(item.key)}});
    }
    Json domains = Json::array();
    const auto& disabled = sites.disabledDomains().get();
    for (const auto& domain : sites.customDomains().get()) {
      domains.push_back({{"domain", domain}, {"on", std::ranges::find(disabled, domain) == disabled.end()}});
    }
    return Json{{"ok", true}, {"services", services}, {"domains", domains}, {"status", status()}};
  };
  auto known = [&](std::string_view key) {
    return std::ranges::any_of(sites.catalog(), [&](const auto& item) { return item.key == key; });
  };

  if (action == "list") return reply.finish(listing());
  if (value.empty()) return finishError(reply, "usage", "", "укажите сайт или сервис");
  Defaults::WriteResult saved;  // a change that did not persist is not reported as made
  if (action == "on" || action == "off") {
    if (!known(value)) return finishError(reply, "usage", "", fmt::format("нет такого сервиса: {}", value));
    saved = sites.toggle(value, action == "on");
  } else if (action == "add") {
    auto added = sites.addCustomDomain(value);
    if (!added) return finishError(reply, "failed", "Свои сайты", added.error());
  } else if (action == "remove") {
    saved = sites.removeCustomDomain(value);
  } else if (action == "enable" || action == "disable") {
    saved = sites.setCustomDomainEnabled(value, action == "enable");
  } else {
    return finishError(reply, "usage", "", fmt::format("unknown sites action \"{}\"", action));
  }
  if (!saved) return finishError(reply, "failed", "Сайты через VPN", writeFailureText(saved.error()));
  reply.finish(listing());
}

void ControlCommands::watch(const ControlReply& reply) {
  // Never finishes: the client ends it by hanging up.
  auto wait = std::make_unique<Wait>(app_.loop(), reply, std::chrono::hours(24 * 365), [](const ControlReply&) {});
  Wait* w = wait.get();
  auto send = [this, w] { w->reply().event(Json{{"event", "status"}, {"status", status()}}); };
  send();
  w->watch<TunnelStatus>(app_.vpn().connectionState(), [send](const TunnelStatus&) {
    send();
    return false;
  });
  w->watch<std::optional<BusyText>>(app_.home().busyText(), [send](const auto&) {
    send();
    return false;
  });
  w->watch<std::optional<VPNViewModel::ShownError>>(app_.home().lastError(), [send](const auto&) {
    send();
    return false;
  });
  w->watch<VPNRoutingMode>(app_.modes().currentMode(), [send](const VPNRoutingMode&) {
    send();
    return false;
  });
  w->watch<std::string>(app_.health().statusText(), [send](const std::string&) {
    send();
    return false;
  });
  track(std::move(wait));
}

}  // namespace norvik
