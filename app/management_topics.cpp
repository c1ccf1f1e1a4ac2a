// The value of each topic of the management interface, as docs/management_interface.md gives it.
#include "app/management_topics.h"

#include <algorithm>
#include <array>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "app/application.h"
#include "connection/connection_messages.h"
#include "norvik/version.h"
#include "routing/routing_texts.h"
#include "tunnel/system_extension_texts.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using Json = nlohmann::json;

constexpr std::array kTopics = {ManagementTopic::home,    ManagementTopic::overlay,   ManagementTopic::prompt,
                                ManagementTopic::updater, ManagementTopic::extension, ManagementTopic::menu,
                                ManagementTopic::mode,    ManagementTopic::sites,     ManagementTopic::links};

Json textOrNull(const std::optional<std::string>& text) { return text ? Json(*text) : Json(nullptr); }

std::string isoTime(Clock::TimePoint moment) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(moment.time_since_epoch()) % 1000;
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(moment)),
                     ms.count());
}

std::string_view operationName(HomeScreen::Operation operation) {
  switch (operation) {
    case HomeScreen::Operation::keyInstallation:
      return "keyInstallation";
    case HomeScreen::Operation::serverChange:
      return "serverChange";
    case HomeScreen::Operation::none:
    default:
      return "none";
  }
}

Json homeValue(Application& app) {
  VPNManager& vpn = app.vpn();
  VPNViewModel& home = app.home();
  const TunnelStatus state = vpn.connectionState().get();
  const auto& manager = vpn.tunnelManager();
  const VPNRoutingMode mode = app.modes().currentMode().get();
  Json out = {{"tunnel", toString(state)},
              {"tunnelText", tunnelStateText(state)},
              {"intent", home.machine().target().get() == TunnelStateMachine::Target::on ? "on" : "off"},
              {"state", toString(home.machine().state().get())},
              {"tunnelService", app.tunnelServiceName()},
              {"configured", vpn.isConfigured().get()},
              {"mode", rawText(mode)},
              {"modeLabel", routing_texts::label(mode)},
              {"operation", operationName(home.operation().get())},
              {"switchLocked", home.switchBlock().get().locked}};
  const std::optional<std::string> address =
      manager && manager->protocolConfiguration ? manager->protocolConfiguration->serverAddress : std::nullopt;
  out["server"] = address ? Json(*address) : Json(nullptr);
  // The backend's names for the server, while the installed key still leads to it.
  const auto& place = home.serverPlace().get();
  const bool named = address && place && place->address == *address;
  out["serverName"] = named && !place->name.empty() ? Json(place->name) : Json(nullptr);
  out["location"] = named && !place->location.empty() ? Json(place->location) : Json(nullptr);
  out["connectedSince"] = vpn.connectionStartTime() ? Json(isoTime(*vpn.connectionStartTime())) : Json(nullptr);
  out["busy"] = home.busyText().get() ? Json(home.busyText().get()->text) : Json(nullptr);
  // The health check's verdict while it has one for this connection.
  SmartStatusEngine& health = app.health();
  const bool verdict =
      health.health().get().kind() != SmartStatusHealth::Case::none && !health.statusText().get().empty();
  out["health"] = verdict ? Json(health.statusText().get()) : Json(nullptr);
  out["healthRaw"] = textOrNull(health.healthRaw().get());
  if (const auto& error = home.lastError().get()) {
    out["lastError"] = {{"title", error->title}, {"message", error->message}};
  } else {
    out["lastError"] = nullptr;
  }
  out["permissionCard"] =
      home.permissionCardShown().get() ? Json{{"title", connection_texts::kAllowVPN}} : Json(nullptr);
  out["approvalCard"] = home.extensionApprovalCardShown().get() ? Json{{"title", sysext_texts::kBannerApprovalTitle},
                                                                       {"message", sysext_texts::kBannerApprovalSwitch}}
                                                                : Json(nullptr);
  if (auto notice = app.modes().modeControlNotice()) {
    out["modeNotice"] = std::string(*notice);
  } else {
    out["modeNotice"] = nullptr;
  }
  return out;
}

Json overlayValue(Application& app) {
  const auto& shown = app.overlays().current().get();
  if (!shown) return nullptr;
  Json buttons = Json::array();
  for (std::size_t i = 0; i < shown->buttons.size(); ++i) {
    buttons.push_back({{"index", i}, {"title", shown->buttons[i].title}});
  }
  return {{"id", overlayAnswerId(shown->id)},
          {"kind", shown->kind == OverlayItem::Kind::toast ? "toast" : "dialog"},
          {"identifier", shown->identifier},
          {"title", shown->title},
          {"message", shown->message},
          {"buttons", std::move(buttons)},
          {"choice", shown->choice ? Json{{"title", shown->choice->title}} : Json(nullptr)},
          {"waiting", app.overlays().waitingCount()}};
}

std::string_view promptKindName(UpdatePromptKind kind) {
  switch (kind) {
    case UpdatePromptKind::forced:
      return "forced";
    case UpdatePromptKind::softScreen:
      return "softScreen";
    case UpdatePromptKind::oneTime:
      return "oneTime";
    case UpdatePromptKind::ordinary:
      return "ordinary";
    case UpdatePromptKind::none:
    default:
      return "none";
  }
}

Json promptValue(Application& app) {
  AppVersionChecker& checker = app.versionChecker();
  const UpdatePrompt& prompt = checker.prompt().get();
  if (!prompt.showUpdateAlert) return nullptr;
  const bool forced = prompt.isForceUpdate;
  Json buttons = Json::array({{{"index", 0}, {"title", prompt.updateMainButton}, {"action", "main"}}});
  if (!forced) buttons.push_back({{"index", 1}, {"title", prompt.updateLaterButton}, {"action", "later"}});
  return {{"id", promptAnswerId(prompt.id)},
          {"kind", promptKindName(checker.promptKind())},
          {"title", prompt.updateTitle},
          {"message", prompt.updateMessage},
          {"textAfterButton", prompt.updateTextAfterButton},
          {"mainButton", prompt.updateMainButton},
          {"laterButton", forced ? Json(nullptr) : Json(prompt.updateLaterButton)},
          {"link", prompt.updateLink},
          {"webLink", prompt.updateWebLink},
          {"installsInApp", checker.installsInApp()},
          {"buttons", std::move(buttons)}};
}

Json updaterValue(Application& app) {
  AppUpdater* updater = app.updater();
  if (!updater) return {{"state", "unavailable"}, {"text", update_texts::kCouldNotUpdate}, {"canCheck", false}};
  using S = AppUpdateState;
  const AppUpdateState& state = updater->state().get();
  Json out = {{"text", describe(state)},
              {"currentVersion", kAppVersion},
              {"canCheck", updater->canCheck().get()},
              {"postponedVersion", textOrNull(updater->postponedVersion().get())},
              {"releaseNotes", textOrNull(updater->releaseNotes().get())},
              {"releaseNotesLoading", updater->releaseNotesLoading().get()}};
  if (state.is<S::Idle>()) out["state"] = "idle";
  if (state.is<S::Checking>()) out["state"] = "checking";
  if (state.is<S::UpToDate>()) out["state"] = "upToDate";
  if (const auto* a = state.as<S::Available>()) {
    out.update({{"state", "available"},
                {"version", a->version},
                {"title", a->title},
                {"message", a->message},
                {"button", a->button},
                {"laterButton", a->dismissible ? Json(update_texts::kNotNow) : Json(nullptr)},
                {"dismissible", a->dismissible}});
  }
  if (const auto* d = state.as<S::Downloading>()) {
    out.update({{"state", "downloading"},
                {"version", d->version},
                {"received", d->received},
                {"total", d->total ? Json(*d->total) : Json(nullptr)}});
  }
  if (const auto* e = state.as<S::Extracting>()) {
    out.update({{"state", "extracting"}, {"version", e->version}, {"progress", e->progress}});
  }
  if (const auto* r = state.as<S::ReadyToInstall>()) out.update({{"state", "readyToInstall"}, {"version", r->version}});
  if (state.is<S::Installing>()) out["state"] = "installing";
  if (const auto* f = state.as<S::Failed>()) out.update({{"state", "failed"}, {"failure", f->message}});
  return out;
}

Json extensionValue(Application& app) {
  const SystemExtensionState& state = app.vpn().systemExtensionState().get();
  Json banner = nullptr;
  switch (state.kind) {
    case SystemExtensionState::Kind::failed:
      banner = {{"title", sysext_texts::kBannerErrorTitle}, {"message", state.failureText}};
      break;
    case SystemExtensionState::Kind::needsReboot:
      banner = {{"title", sysext_texts::kBannerRebootTitle}, {"message", sysext_texts::kReboot}};
      break;
    case SystemExtensionState::Kind::needsApproval:
      banner = {{"title", sysext_texts::kBannerApprovalTitle}, {"message", sysext_texts::kBannerApprovalSwitch}};
      break;
    case SystemExtensionState::Kind::unknown:
    case SystemExtensionState::Kind::activating:
    case SystemExtensionState::Kind::active:
    default:
      break;
  }
  return {{"state", toString(state.kind)},
          {"failureText", state.kind == SystemExtensionState::Kind::failed ? Json(state.failureText) : Json(nullptr)},
          {"banner", std::move(banner)}};
}

std::string_view menuActionName(MenuBarItem::Action action) {
  switch (action) {
    case MenuBarItem::Action::connect:
      return "connect";
    case MenuBarItem::Action::disconnect:
      return "disconnect";
    case MenuBarItem::Action::toggleLaunchAtLogin:
      return "toggleLaunchAtLogin";
    case MenuBarItem::Action::installUpdate:
      return "installUpdate";
    case MenuBarItem::Action::openMainWindow:
    default:
      return "openMainWindow";
  }
}

Json menuValue(Application& app) {
  const MenuBarMenu& menu = app.menuBar().menu().get();
  Json items = Json::array();
  for (std::size_t i = 0; i < menu.items.size(); ++i) {
    const MenuBarItem& item = menu.items[i];
    items.push_back({{"index", i},
                     {"title", item.title},
                     {"action", menuActionName(item.action)},
                     {"enabled", item.enabled},
                     {"checked", item.checked ? Json(*item.checked) : Json(nullptr)}});
  }
  return {{"title", menu.title}, {"items", std::move(items)}};
}

Json modeValue(Application& app) {
  ModesStore& modes = app.modes();
  const RoutingConfig& routing = modes.routing();
  const VPNRoutingMode mode = modes.currentMode().get();
  Json allowed = Json::array();
  for (auto m : modes.allowedModes()) {
    allowed.push_back(
        {{"mode", rawText(m)}, {"label", routing_texts::label(m)}, {"description", routing_texts::description(m)}});
  }
  std::optional<VPNRoutingMode> forced;
  if (routing.forcedMode) forced = modeFromBackendCode(*routing.forcedMode);
  const FullModeConfirmation full = modes.fullModeConfirmation();
  const SmartModeDisableConfirmation smartOff = ModesStore::smartModeDisableConfirmation();
  return {{"mode", rawText(mode)},
          {"label", routing_texts::label(mode)},
          {"userSelected", rawText(modes.userSelectedMode())},
          {"allowed", std::move(allowed)},
          {"showModeTab", routing.showModeTab.value_or(true)},
          {"forced", forced ? Json(rawText(*forced)) : Json(nullptr)},
          {"killSwitch", routing.killSwitch.value_or(false)},
          {"notice", modes.modeControlNotice() ? Json(std::string(*modes.modeControlNotice())) : Json(nullptr)},
          {"disclaimer", textOrNull(routing.disclaimer)},
          {"showDnsHint", routing.showDnsHint.value_or(false)},
          {"fullModeConfirmation",
           {{"identifier", full.identifier},
            {"title", full.title},
            {"message", full.message},
            {"confirm", full.confirm},
            {"cancel", full.cancel}}},
          {"smartModeDisableConfirmation",
           {{"identifier", smartOff.identifier},
            {"title", smartOff.title},
            {"message", smartOff.message},
            {"confirm", smartOff.confirm},
            {"keep", smartOff.keep},
            {"dontShowAgain", smartOff.dontShowAgain},
            {"hidden", modes.smartDisableConfirmHidden().get()}}}};
}

Json sitesValue(Application& app) {
  ServiceCatalogStore& sites = app.sites();
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
  const bool tunnelOn = isLive(app.vpn().connectionState().get());
  Json empty = nullptr;
  if (sites.isSelectionEmpty()) {
    empty = {{"tunnelOn", tunnelOn},
             {"title", routing_texts::kChooseAtLeastOneSite},
             {"message", routing_texts::kEnableSiteBelow}};
  }
  return {
      {"services", std::move(services)},
      {"domains", std::move(domains)},
      {"allowCustomDomains", sites.allowsCustomDomains()},
      {"canAddDomain", sites.canAddCustomDomain()},
      {"domainLimitText",
       sites.canAddCustomDomain() ? Json(nullptr) : Json(ServiceCatalogStore::customDomainLimitText())},
      {"emptyScreen", std::move(empty)},
      {"vpnOffNote", tunnelOn ? Json(nullptr)
                              : Json{{"title", routing_texts::kVPNOff}, {"message", routing_texts::kSitesAfterVPNOn}}},
      {"texts",
       {{"sitesTitle", routing_texts::kSitesThroughVPN},
        {"ownSitesTitle", routing_texts::kOwnSites},
        {"note", routing_texts::kOnlySelectedSites},
        {"domainPlaceholder", routing_texts::kDomainPlaceholder}}}};
}

Json linksValue(Application& app) {
  Defaults& defaults = *app.platform().standardDefaults;
  return {{"support", textOrNull(defaults.stringValue(NetworkService::kCachedSupportURLKey))},
          {"supportChannel", textOrNull(defaults.stringValue(NetworkService::kCachedTelegramURLKey))},
          {"share", app.network().shareURL()},
          {"showCompany", defaults.boolValue(NetworkService::kCachedShowCompanyKey).value_or(false)},
          {"moveButton", defaults.boolValue(NetworkService::kCachedMoveButtonKey).value_or(false)}};
}

}  // namespace

std::string_view toString(ManagementTopic topic) {
  switch (topic) {
    case ManagementTopic::home:
      return "home";
    case ManagementTopic::overlay:
      return "overlay";
    case ManagementTopic::prompt:
      return "prompt";
    case ManagementTopic::updater:
      return "updater";
    case ManagementTopic::extension:
      return "extension";
    case ManagementTopic::menu:
      return "menu";
    case ManagementTopic::mode:
      return "mode";
    case ManagementTopic::sites:
      return "sites";
    case ManagementTopic::links:
    default:
      return "links";
  }
}

std::optional<ManagementTopic> managementTopicNamed(std::string_view name) {
  for (ManagementTopic topic : kTopics) {
    if (toString(topic) == name) return topic;
  }
  return std::nullopt;
}

std::span<const ManagementTopic> allManagementTopics() { return kTopics; }

std::string overlayAnswerId(std::uint64_t id) { return fmt::format("overlay-{}", id); }
std::string promptAnswerId(std::uint64_t id) { return fmt::format("prompt-{}", id); }

Json topicValue(Application& app, ManagementTopic topic) {
  switch (topic) {
    case ManagementTopic::home:
      return homeValue(app);
    case ManagementTopic::overlay:
      return overlayValue(app);
    case ManagementTopic::prompt:
      return promptValue(app);
    case ManagementTopic::updater:
      return updaterValue(app);
    case ManagementTopic::extension:
      return extensionValue(app);
    case ManagementTopic::menu:
      return menuValue(app);
    case ManagementTopic::mode:
      return modeValue(app);
    case ManagementTopic::sites:
      return sitesValue(app);
    case ManagementTopic::links:
    default:
      return linksValue(app);
  }
}

}  // namespace norvik
