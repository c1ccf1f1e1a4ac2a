#include "app/control_commands.h"
#include "app/control_commands_wait.h"

#include <algorithm>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "routing/routing_texts.h"
#include "tunnel/menu_bar_model.h"

namespace norvik {
namespace {

using Json = nlohmann::json;

std::optional<VPNRoutingMode> modeNamed(std::string_view name) {
  for (auto mode : {VPNRoutingMode::full, VPNRoutingMode::smart, VPNRoutingMode::services}) {
    if (rawText(mode) == name) return mode;
  }
  return std::nullopt;
}

}  // namespace

ControlCommands::ControlCommands(Application& app) : app_(app), feed_(std::make_unique<ManagementFeed>(app)) {}
ControlCommands::~ControlCommands() = default;

void ControlCommands::track(std::unique_ptr<Wait> wait) {
  std::erase_if(waits_, [](const auto& w) { return w->finished(); });
  waits_.push_back(std::move(wait));
}

std::size_t ControlCommands::waitingCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(waits_, [](const auto& w) { return !w->finished(); }));
}

Json ControlCommands::status() {
  Json out = topicValue(app_, ManagementTopic::home);
  out["protocol"] = kManagementProtocol;
  out["extension"] = toString(app_.vpn().systemExtensionState().get().kind);
  // Stores found damaged at start-up and started afresh: the user should know what was reset.
  Json resets = Json::array();
  for (const StoreReset& reset : app_.platform().storeResets) {
    resets.push_back({{"store", reset.store},
                      {"reason", reset.reason},
                      {"setAside", reset.setAside.empty() ? Json(nullptr) : Json(reset.setAside.string())},
                      {"recovered", reset.recovered}});
  }
  out["storeResets"] = std::move(resets);
  // What waits for the user's answer.
  for (ManagementTopic topic : {ManagementTopic::overlay, ManagementTopic::prompt}) {
    out[std::string(toString(topic))] = topicValue(app_, topic);
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
  if (command == "status") {
    // Whoever asked for the status shows what it carries: an update prompt in it counts as shown.
    Json line = {{"ok", true}, {"status", status()}};
    feed_->delivered(ManagementTopic::prompt, line["status"]["prompt"]);
    return reply.finish(line);
  }
  if (command == "connect") return intent(reply, Intent::connect);
  if (command == "disconnect") return intent(reply, Intent::disconnect);
  if (command == "toggle") return intent(reply, Intent::toggle);
  if (command == "change-server") return intent(reply, Intent::changeServer);
  if (command == "mode") return mode(request, reply);
  if (command == "sites") return sites(request, reply);
  if (command == "watch") return watch(reply);
  if (command == "hello") return hello(reply);
  if (command == "subscribe") return subscribe(request, reply);
  if (command == "answer") return answer(request, reply);
  if (command == "open-url") return openURL(request, reply);
  if (command == "update") return update(request, reply);
  if (command == "menu") return menu(request, reply);
  if (command == "smart-mode") return smartMode(request, reply);
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
  const auto asDialog = boolArgument(request, "dialog", false);
  if (!asDialog) return finishError(reply, "usage", "", "\"dialog\" is true or false");
  const FullModeConfirmation dialog = modes.fullModeConfirmation();
  if (*wanted == VPNRoutingMode::full && !confirmed && modes.currentMode().get() != VPNRoutingMode::full) {
    Json confirm = {{"identifier", dialog.identifier},
                    {"title", dialog.title},
                    {"message", dialog.message},
                    {"confirm", dialog.confirm},
                    {"cancel", dialog.cancel}};
    // A front-end that shows the overlay queue asks for the dialog there and answers it like any.
    if (*asDialog) {
      OverlayItem item{OverlayItem::Kind::dialog, dialog.identifier, dialog.title, dialog.message, {}};
      item.buttons = {OverlayButton{dialog.confirm, [&modes] { (void)modes.select(VPNRoutingMode::full); }},
                      OverlayButton{dialog.cancel, {}}};
      if (const std::uint64_t id = app_.overlays().enqueue(std::move(item))) confirm["id"] = overlayAnswerId(id);
    }
    return reply.finish(Json{{"ok", false}, {"code", "confirm"}, {"confirm", confirm}, {"status", status()}});
  }
  // Settled here: the same question on screen is no longer asked.
  if (*wanted == VPNRoutingMode::full) app_.overlays().withdraw(dialog.identifier);
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
