// The requests of the management interface beyond the command line's first ones: hello,
// subscribe, answer, open-url, update, menu and smart-mode (docs/management_interface.md).
#include <charconv>

#include <fmt/format.h>

#include "app/control_commands.h"
#include "app/control_commands_wait.h"
#include "norvik/version.h"
#include "routing/routing_texts.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using Json = nlohmann::json;

constexpr std::string_view kCommands[] = {"hello",      "status", "subscribe",     "watch",  "connect",
                                          "disconnect", "toggle", "change-server", "mode",   "smart-mode",
                                          "sites",      "answer", "open-url",      "update", "menu"};

// A button named by its index or its title (or by one of `aliases`, index for index).
std::optional<std::size_t> buttonIndex(const Json& button, const std::vector<std::string>& titles,
                                       const std::vector<std::string_view>& aliases = {}) {
  if (button.is_number_unsigned() && button.get<std::uint64_t>() < titles.size()) {
    return static_cast<std::size_t>(button.get<std::uint64_t>());
  }
  if (!button.is_string()) return std::nullopt;
  const auto& name = button.get_ref<const std::string&>();
  for (std::size_t i = 0; i < titles.size(); ++i) {
    if (titles[i] == name || (i < aliases.size() && aliases[i] == name)) return i;
  }
  return std::nullopt;
}

// The number after `prefix` in an answer id ("overlay-7"), when `id` is one of those.
std::optional<std::uint64_t> idNumber(std::string_view id, std::string_view prefix) {
  if (!id.starts_with(prefix)) return std::nullopt;
  id.remove_prefix(prefix.size());
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number);
  if (error != std::errc() || end != id.data() + id.size() || number == 0) return std::nullopt;
  return number;
}

std::string buttonList(const std::vector<std::string>& titles) {
  std::string out;
  for (std::size_t i = 0; i < titles.size(); ++i) out += fmt::format("{}{} «{}»", i == 0 ? "" : ", ", i, titles[i]);
  return out;
}

}  // namespace

void ControlCommands::hello(const ControlReply& reply) {
  Json topics = Json::array();
  for (ManagementTopic topic : allManagementTopics()) topics.push_back(toString(topic));
  Json commands = Json::array();
  for (std::string_view command : kCommands) commands.push_back(command);
  reply.finish(Json{{"ok", true},
                    {"protocol", kManagementProtocol},
                    {"version", kAppVersion},
                    {"commands", std::move(commands)},
                    {"topics", std::move(topics)}});
}

void ControlCommands::subscribe(const Json& request, const ControlReply& reply) {
  std::set<ManagementTopic> topics;
  if (!request.contains("topics")) {
    topics.insert(allManagementTopics().begin(), allManagementTopics().end());
  } else if (!request["topics"].is_array()) {
    return finishError(reply, "usage", "", R"("topics" is a list of topic names)");
  } else {
    for (const Json& name : request["topics"]) {
      const auto topic = name.is_string() ? managementTopicNamed(name.get<std::string>()) : std::nullopt;
      if (!topic) return finishError(reply, "usage", "", fmt::format("unknown topic {}", name.dump()));
      topics.insert(*topic);
    }
  }
  // Never finishes: the client ends it by hanging up.
  auto wait = std::make_unique<Wait>(app_.loop(), reply, std::chrono::hours(24 * 365), [](const ControlReply&) {});
  Wait* w = wait.get();
  track(std::move(wait));
  w->keep(feed_->subscribe(std::move(topics), [w](std::string_view event, ManagementTopic topic, const Json& value) {
    w->reply().event(Json{{"event", event}, {"topic", toString(topic)}, {"value", value}});
  }));
}

void ControlCommands::answer(const Json& request, const ControlReply& reply) {
  const auto id = textArgument(request, "id", "");
  if (!id || id->empty()) {
    return finishError(reply, "usage", "", R"("id" names the dialog or the prompt: "overlay-N" or "prompt-N")");
  }
  if (!request.contains("button")) return finishError(reply, "usage", "", R"("button" is an index or a title)");
  if (auto number = idNumber(*id, "overlay-")) return answerOverlay(*number, request, reply);
  if (auto number = idNumber(*id, "prompt-")) return answerPrompt(*number, request, reply);
  finishError(reply, "usage", "", fmt::format("нет такого окна: {}", *id));
}

void ControlCommands::answerOverlay(std::uint64_t id, const Json& request, const ControlReply& reply) {
  const auto& shown = app_.overlays().current().get();
  if (!shown || shown->id != id) {
    return finishError(reply, "not-showing", "", fmt::format("Окно {} сейчас не на экране.", overlayAnswerId(id)));
  }
  std::vector<std::string> titles;
  titles.reserve(shown->buttons.size());
  for (const auto& button : shown->buttons) titles.push_back(button.title);
  const auto index = buttonIndex(request["button"], titles);
  if (!index) {
    return finishError(reply, "usage", "",
                       fmt::format("нет такой кнопки: {}; есть: {}", request["button"].dump(), buttonList(titles)));
  }
  const auto choice = boolArgument(request, "dontShowAgain", false);
  if (!choice) return finishError(reply, "usage", "", R"("dontShowAgain" is true or false)");
  // A button may ask for a page to be opened: this front-end opens it.
  std::string page;
  Subscription pages = app_.pageToOpen().subscribe([&page](const std::string& url) { page = url; });
  (void)app_.overlays().respond(id, *index, *choice);
  Json line = {{"ok", true}, {"status", status()}};
  if (!page.empty()) line["openURL"] = page;
  reply.finish(line);
}

void ControlCommands::answerPrompt(std::uint64_t id, const Json& request, const ControlReply& reply) {
  AppVersionChecker& checker = app_.versionChecker();
  const UpdatePrompt& prompt = checker.prompt().get();
  if (!prompt.showUpdateAlert || prompt.id != id) {
    return finishError(reply, "not-showing", "", fmt::format("Окно {} сейчас не на экране.", promptAnswerId(id)));
  }
  std::vector<std::string> titles = {prompt.updateMainButton};
  if (!prompt.isForceUpdate) titles.push_back(prompt.updateLaterButton);
  const auto index = buttonIndex(request["button"], titles, {"main", "later"});
  if (!index) {
    return finishError(reply, "usage", "",
                       fmt::format("нет такой кнопки: {}; есть: {}", request["button"].dump(), buttonList(titles)));
  }
  std::string page;
  Subscription pages = app_.pageToOpen().subscribe([&page](const std::string& url) { page = url; });
  if (*index == 0) {
    checker.pressMainButton();
  } else if (!checker.dismiss()) {
    return finishError(reply, "failed", prompt.updateTitle, "Подсказку об обновлении ещё никто не видел.");
  }
  Json line = {{"ok", true}, {"status", status()}, {"updater", topicValue(app_, ManagementTopic::updater)}};
  if (!page.empty()) line["openURL"] = page;
  reply.finish(line);
}

void ControlCommands::openURL(const Json& request, const ControlReply& reply) {
  const auto url = textArgument(request, "url", "");
  if (!url || url->empty()) return finishError(reply, "usage", "", R"("url" is a norvikvpn:// link)");
  if (!app_.widget().handleURL(*url))
    return finishError(reply, "usage", "", fmt::format("неизвестная ссылка: {}", *url));
  finishOk(reply);
}

void ControlCommands::update(const Json& request, const ControlReply& reply) {
  const auto action = textArgument(request, "action", "check");
  const auto msiURL = textArgument(request, "msiURL", "");
  const auto msiVersion = textArgument(request, "msiVersion", "");
  if (!action || !msiURL || !msiVersion)
    return finishError(reply, "usage", "", R"("action", "msiURL" and "msiVersion" are texts)");
  AppUpdater* updater = app_.updater();
  if (!updater) return finishError(reply, "failed", "", std::string(update_texts::kCouldNotUpdate));
  auto answerNow = [&] {
    reply.finish(Json{{"ok", true}, {"updater", topicValue(app_, ManagementTopic::updater)}, {"status", status()}});
  };
  if (*action == "check") {
    // A check of the agent's own may be under way: the user's starts when it has ended, so that
    // its outcome is always shown.
    const bool free = updater->canCheck().get();
    if (free) updater->checkForUpdates();
    return updateAndWait(reply, false, !free);
  }
  if (*action == "install") {
    if (!msiURL->empty()) {
      updater->installMandatoryUpdate(MandatoryUpdate{*msiURL, *msiVersion, ""});
    } else if (updater->state().get().is<AppUpdateState::Available>()) {
      updater->installUpdate();
    } else {
      updater->checkForUpdates();
    }
    return updateAndWait(reply, true);
  }
  if (*action == "postpone") {
    updater->postpone();
    return answerNow();
  }
  if (*action == "cancel") {
    updater->cancelDownload();
    return answerNow();
  }
  finishError(reply, "usage", "", fmt::format("unknown update action \"{}\"", *action));
}

void ControlCommands::updateAndWait(const ControlReply& reply, bool install, bool checkWhenFree) {
  AppUpdater& updater = *app_.updater();
  // An install may download for long; the limit only guards the client against a fault of ours.
  const auto limit = install ? std::chrono::seconds(std::chrono::hours(2)) : std::chrono::seconds(300);
  auto wait = std::make_unique<Wait>(app_.loop(), reply, limit, [this](const ControlReply& r) {
    finishError(r, "failed", "", "Агент Norvik не дождался конца обновления.");
  });
  Wait* w = wait.get();
  track(std::move(wait));
  // The user's check waits for the agent's own to end (queued), then starts (started); what the
  // updater shows before it started is not its outcome.
  enum class Check { none, queued, starting };
  auto check = std::make_shared<Check>(checkWhenFree ? Check::queued : Check::none);
  auto decide = [this, w, install, &updater, check] {
    using S = AppUpdateState;
    if (*check == Check::starting) return false;
    if (*check == Check::queued) {
      if (!updater.canCheck().get()) return false;
      // Out of this notification: the check publishes new values of its own.
      *check = Check::starting;
      app_.loop().post([weak = w->weak(), &updater, check] {
        auto* waiting = weak.lock();
        if (!waiting || waiting->finished()) return;
        *check = Check::none;
        updater.checkForUpdates();
      });
      return false;
    }
    const AppUpdateState& state = updater.state().get();
    const Json value = topicValue(app_, ManagementTopic::updater);
    if (install) w->reply().event(Json{{"event", "changed"}, {"topic", "updater"}, {"value", value}});
    // A copy: the answer starts the connection's next request, which lets go of this wait.
    const ControlReply r = w->reply();
    if (const auto* failed = state.as<S::Failed>()) {
      w->end();
      r.finish(Json{{"ok", false},
                    {"code", "failed"},
                    {"error", {{"title", ""}, {"message", failed->message}}},
                    {"updater", value},
                    {"status", status()}});
      return true;
    }
    const bool settled = !state.is<S::Checking>() && !updater.releaseNotesLoading().get();
    if (!install && !settled) return false;
    if (install && state.is<S::Available>()) {
      app_.loop().post([weak = w->weak(), &updater] {
        auto* waiting = weak.lock();
        if (waiting && !waiting->finished()) updater.installUpdate();
      });
      return false;
    }
    if (install && !state.is<S::UpToDate>() && !state.is<S::ReadyToInstall>()) return false;
    w->end();
    Json line = {{"ok", true}, {"updater", value}, {"status", status()}};
    if (state.is<S::ReadyToInstall>()) line["message"] = update_texts::kWillRelaunch;
    r.finish(line);
    return true;
  };
  if (decide()) return;
  w->watch<AppUpdateState>(updater.state(), [decide](const AppUpdateState&) { return decide(); });
  w->watch<bool>(updater.releaseNotesLoading(), [decide](const bool&) { return decide(); });
  if (checkWhenFree) w->watch<bool>(updater.canCheck(), [decide](const bool&) { return decide(); });
}

void ControlCommands::menu(const Json& request, const ControlReply& reply) {
  const MenuBarMenu& menu = app_.menuBar().menu().get();
  if (!request.contains("item")) {
    return reply.finish(Json{{"ok", true}, {"menu", topicValue(app_, ManagementTopic::menu)}, {"status", status()}});
  }
  std::vector<std::string> titles;
  titles.reserve(menu.items.size());
  for (const auto& item : menu.items) titles.push_back(item.title);
  const auto index = buttonIndex(request["item"], titles);
  if (!index) return finishError(reply, "usage", "", fmt::format("нет такого пункта: {}", request["item"].dump()));
  const MenuBarItem item = menu.items[*index];
  if (!item.enabled) return finishError(reply, "failed", "", fmt::format("Пункт «{}» сейчас недоступен.", item.title));
  app_.menuBar().choose(item);
  reply.finish(Json{{"ok", true}, {"menu", topicValue(app_, ManagementTopic::menu)}, {"status", status()}});
}

void ControlCommands::smartMode(const Json& request, const ControlReply& reply) {
  ModesStore& modes = app_.modes();
  if (!request.contains("enabled") || !request["enabled"].is_boolean()) {
    return finishError(reply, "usage", "", R"("enabled" is true or false)");
  }
  const auto confirmed = boolArgument(request, "confirmed", false);
  const auto dontShowAgain = boolArgument(request, "dontShowAgain", false);
  const auto dialog = boolArgument(request, "dialog", false);
  if (!confirmed || !dontShowAgain || !dialog) {
    return finishError(reply, "usage", "", R"("confirmed", "dontShowAgain" and "dialog" are true or false)");
  }
  const VPNRoutingMode target = request["enabled"].get<bool>() ? VPNRoutingMode::smart : VPNRoutingMode::full;
  const SmartModeDisableConfirmation texts = ModesStore::smartModeDisableConfirmation();
  if (target == VPNRoutingMode::full) {
    // Only switching the smart mode off asks; from another mode there is nothing to switch off.
    if (modes.currentMode().get() != VPNRoutingMode::smart)
      return finishOk(reply, std::string(routing_texts::label(modes.currentMode().get())));
    if (!*confirmed && !modes.smartDisableConfirmHidden().get()) {
      Json confirm = {{"identifier", texts.identifier}, {"title", texts.title}, {"message", texts.message},
                      {"confirm", texts.confirm},       {"keep", texts.keep},   {"dontShowAgain", texts.dontShowAgain}};
      if (*dialog) {
        OverlayItem item{OverlayItem::Kind::dialog, texts.identifier, texts.title, texts.message, {}};
        item.buttons = {OverlayButton{texts.confirm, [&modes] { (void)modes.select(VPNRoutingMode::full); }},
                        OverlayButton{texts.keep, {}}};
        item.choice = OverlayChoice{texts.dontShowAgain, [&modes](bool checked) {
                                      if (checked) (void)modes.hideSmartDisableConfirm();
                                    }};
        if (const std::uint64_t id = app_.overlays().enqueue(std::move(item))) confirm["id"] = overlayAnswerId(id);
      }
      return reply.finish(Json{{"ok", false}, {"code", "confirm"}, {"confirm", confirm}, {"status", status()}});
    }
    if (*dontShowAgain) {
      if (auto saved = modes.hideSmartDisableConfirm(); !saved) {
        return finishError(reply, "failed", texts.title, writeFailureText(saved.error()));
      }
    }
    // Settled here: the same question on screen is no longer asked.
    app_.overlays().withdraw(texts.identifier);
  }
  if (auto saved = modes.select(target); !saved) {
    return finishError(reply, "failed", std::string(routing_texts::label(target)), writeFailureText(saved.error()));
  }
  const VPNRoutingMode now = modes.currentMode().get();
  if (now != target) {
    const std::string why = modes.modeControlNotice()
                                ? std::string(*modes.modeControlNotice())
                                : fmt::format("Режим «{}» сейчас недоступен", routing_texts::label(target));
    return finishError(reply, "failed", std::string(routing_texts::label(target)), why);
  }
  finishOk(reply, std::string(routing_texts::label(now)));
}

}  // namespace norvik
