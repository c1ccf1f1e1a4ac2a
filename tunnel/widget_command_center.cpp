#include "tunnel/widget_command_center.h"

#include <cerrno>

#include <fmt/format.h>

#include "platform/files.h"
#include "tunnel/menu_bar_model.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

using Seconds = std::chrono::duration<double>;

// A link as it may be logged: links come from other programs and may be anything.
std::string shortened(std::string_view text) {
  constexpr std::size_t kMax = 300;
  if (text.size() <= kMax) return std::string(text);
  return std::string(text.substr(0, kMax)) + "…";
}

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace

WidgetCommandCenter::WidgetCommandCenter(Dependencies d)
    : loop_(d.loop),
      clock_(d.clock),
      log_(d.log),
      notifications_(d.notifications),
      vpn_(d.vpn),
      tunnels_(d.tunnels),
      intents_(d.intents),
      container_(std::move(d.container)),
      bringToFront_(std::move(d.bringToFront)),
      reloadWidget_(std::move(d.reloadWidget)) {}

WidgetCommandCenter::~WidgetCommandCenter() = default;

void WidgetCommandCenter::start() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (started_) return;
  started_ = true;
  running_ = true;
  log_.format("[Widget] мост запущен, контейнер: {}", container_.string());
  if (auto made = makeDirectories(container_, 0700); !made) {
    log_.format("[Widget] контейнер недоступен: {}", made.error().description());
  }
  commandObserver_ = notifications_.observe(std::string(kCommandNotification), [this] { handleCommandFile(); });
  stateSubscription_ = vpn_.connectionState().subscribe([this](const TunnelStatus&) { schedulePublish(); });
  configuredSubscription_ = vpn_.isConfigured().subscribe([this](const bool&) { schedulePublish(); });
  publish(false);
  pollTimer_.startAligned(loop_, kPollPeriod, [this] { handleCommandFile(); });
  heartbeatTimer_.startAligned(loop_, kHeartbeatPeriod, [this] { publish(true); });
}

void WidgetCommandCenter::stop() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!running_) return;
  running_ = false;
  commandObserver_.reset();
  stateSubscription_.reset();
  configuredSubscription_.reset();
  pollTimer_.stop();
  heartbeatTimer_.stop();
  connectedDateRetry_.stop();
  reloadWorkItem_.stop();
  // The widget shows from now on that the application is not there to act on its buttons.
  publish(false);
}

// --- Inputs ---

void WidgetCommandCenter::setHealth(std::optional<std::string> healthRaw) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (healthRaw == healthRaw_) return;
  healthRaw_ = std::move(healthRaw);
  schedulePublish();
}

void WidgetCommandCenter::setTraffic(std::optional<std::string> down, std::optional<std::string> up) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (down == lastTrafficDown_ && up == lastTrafficUp_) return;
  lastTrafficDown_ = std::move(down);
  lastTrafficUp_ = std::move(up);
  schedulePublish();
}

void WidgetCommandCenter::setBusy(bool busy) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (busy == busy_) return;
  busy_ = busy;
  schedulePublish();
}

// --- Publishing ---

void WidgetCommandCenter::schedulePublish() {
  // Changes that arrive together (a status and the configuration, say) make one write.
  if (!running_ || publishScheduled_) return;
  publishScheduled_ = true;
  loop_.post([weak = weakFactory_.weak()] {
    auto* self = weak.lock();
    if (!self) return;
    self->publishScheduled_ = false;
    if (self->running_) self->publish(false);
  });
}

void WidgetCommandCenter::publish(bool heartbeat) {
  WidgetVPNState state = currentState();
  if (!heartbeat && lastPublished_ && lastPublished_->sameContent(state)) return;
  // Written at start and on every change: a crash loses nothing the next start does not rewrite.
  if (auto written = writeFileAtomically(stateFile(), encodeWidgetState(state), 0644, {}, FileDurability::replaceOnly);
      !written) {
    // The last state stays unwritten in lastPublished_, so the next change tries again.
    log_.format("[Widget] не удалось записать состояние: {}", written.error().description());
    return;
  }
  lastPublished_ = std::move(state);
  notifications_.post(kStateNotification);
  requestReload();
}

WidgetVPNState WidgetCommandCenter::currentState() {
  const TunnelStatus status = vpn_.connectionState().get();
  WidgetVPNState state;
  state.phase = std::string(widgetPhase(status));
  state.connectedSince = connectedSince(status);
  state.statusText = std::string(tunnelStateText(status));
  // The toggle always works (the last word wins); a server change waits for one that runs, or for a
  // key being installed.
  state.canToggle = running_;
  state.canChangeServer = running_ && !busy_;
  state.updatedAt = clock_.now();
  state.healthRaw = healthRaw_;
  state.appRunning = running_;
  state.trafficDown = lastTrafficDown_;
  state.trafficUp = lastTrafficUp_;
  if (const auto& manager = vpn_.tunnelManager(); manager && manager->protocolConfiguration) {
    state.tunnelAddress = manager->protocolConfiguration->serverAddress;
  }
  if (!state.tunnelAddress) state.tunnelAddress = vpn_.lastServerIP();
  return state;
}

std::optional<Clock::TimePoint> WidgetCommandCenter::connectedSince(TunnelStatus status) {
  if (status != TunnelStatus::connected && status != TunnelStatus::reasserting) {
    fallbackConnectedSince_.reset();
    connectedDateRetryScheduled_ = false;
    connectedDateRetry_.stop();
    return std::nullopt;
  }
  if (const auto& manager = vpn_.tunnelManager()) {
    if (auto date = tunnels_.connectedDate(manager->identifier)) {
      fallbackConnectedSince_.reset();
      return date;
    }
  }
  // The system reports a new connection before it knows when it began: show now, and ask once
  // more a little later.
  if (!fallbackConnectedSince_) fallbackConnectedSince_ = clock_.now();
  if (!connectedDateRetryScheduled_) {
    connectedDateRetryScheduled_ = true;
    connectedDateRetry_.start(loop_, kConnectedDateRetryDelay, [this] { schedulePublish(); });
  }
  return fallbackConnectedSince_;
}

void WidgetCommandCenter::requestReload() {
  if (!reloadWidget_ || reloadWorkItem_.isRunning()) return;  // a waiting reload shows the latest state
  const EventLoop::TimePoint now = loop_.now();
  if (!lastReloadAt_ || now - *lastReloadAt_ >= kReloadThrottle) return reloadNow();
  reloadWorkItem_.start(loop_, *lastReloadAt_ + kReloadThrottle - now, [this] { reloadNow(); });
}

void WidgetCommandCenter::reloadNow() {
  lastReloadAt_ = loop_.now();
  reloadWidget_();
}

// --- Commands ---

bool WidgetCommandCenter::rememberCommand(const std::string& id) {
  if (handledCommandIDs_.contains(id)) return false;
  handledCommandIDs_.insert(id);
  handledOrder_.push_back(id);
  if (handledOrder_.size() > kRememberedCommandIDs) {
    handledCommandIDs_.erase(handledOrder_.front());
    handledOrder_.pop_front();
  }
  return true;
}

void WidgetCommandCenter::handleCommandFile() {
  auto text = readFile(commandFile(), kWidgetCommandMaxBytes);
  if (!text) {
    if (text.error().code != ENOENT && lastRejectedCommand_ != text.error().message) {
      lastRejectedCommand_ = text.error().message;
      log_.format("[Widget] файл команды не читается: {}", text.error().description());
    }
    return;
  }
  auto command = decodeWidgetCommand(*text);
  if (!command) {
    // The poll reads the same bad file every second; say so once per content.
    if (lastRejectedCommand_ != *text) {
      lastRejectedCommand_ = std::move(*text);
      log_.format("[Widget] файл команды не разобран: {}", command.error());
    }
    return;
  }
  if (!rememberCommand(command->id)) return;

  const auto age = clock_.now() - command->issuedAt;
  const double ageSeconds = Seconds(age).count();
  // A command from the future is as untrustworthy as an old one: the clock moved in between.
  if (age > kStaleAfter || age < -kStaleAfter) {
    log_.format("[Widget] команда {} протухла ({:.2f} с) — игнорирую", command->id, ageSeconds);
    return;
  }
  log_.format("[Widget] команда {} принята ({:.2f} с)", command->id, ageSeconds);
  switch (command->kind) {
    case WidgetCommand::Kind::toggle:
      return toggle();
    case WidgetCommand::Kind::changeServer:
      return changeServerAction(IntentOrigin::widget);
    default:
      return;
  }
}

void WidgetCommandCenter::toggle() {
  const Clock::TimePoint now = clock_.now();
  if (lastToggleAt_) {
    const auto interval = now - *lastToggleAt_;
    // A clock set back makes the interval negative; that is no double click.
    if (interval >= Clock::TimePoint::duration::zero() && interval < kDoubleClickWithin) {
      log_.format("[Widget] тумблер через {:.2f} с после прошлого — двойной клик, игнорирую",
                  Seconds(interval).count());
      return;
    }
  }
  lastToggleAt_ = now;
  // Off when the tunnel is connected or on its way up (a key being fetched counts), on otherwise.
  if (intents_.wantsTunnelUp() || isLive(vpn_.connectionState().get())) return disconnectAction(IntentOrigin::widget);
  connectAction(IntentOrigin::widget);
}

std::string WidgetCommandCenter::describeTunnel() const {
  const std::string_view status = toString(vpn_.connectionState().get());
  const std::string_view intent = intents_.stateName();
  if (intent == status) return std::string(status);
  return fmt::format("{}, {}", status, intent);
}

void WidgetCommandCenter::connectAction(IntentOrigin origin) {
  if (intents_.wantsTunnelUp()) {
    log_.format("[Widget] подключить: туннель уже поднят ({}) — ничего не делаю", describeTunnel());
    return;
  }
  log_.format("[Widget] подключить ({})", describeTunnel());
  intents_.connect(origin, nullptr);
}

void WidgetCommandCenter::disconnectAction(IntentOrigin origin) {
  // Down, and the user's last word was off: nothing to undo.
  if (!intents_.isTargetOn() && !isLive(vpn_.connectionState().get())) {
    log_.format("[Widget] отключить: туннель уже выключен ({}) — ничего не делаю", describeTunnel());
    return;
  }
  log_.format("[Widget] отключить ({})", describeTunnel());
  intents_.disconnect(origin, nullptr);
}

void WidgetCommandCenter::changeServerAction(IntentOrigin origin) {
  log_.format("[Widget] сменить сервер ({})", describeTunnel());
  intents_.changeServer(origin, nullptr);
}

// --- Links ---

bool WidgetCommandCenter::handleURL(std::string_view link) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  log_.format("[Widget] ссылка: {}", shortened(link));
  // Scheme and host are case-insensitive; a query, a fragment or a final slash change nothing.
  std::string_view rest = link;
  const std::string prefix = std::string(kURLScheme) + "://";
  if (rest.size() < prefix.size() || lowered(rest.substr(0, prefix.size())) != prefix) {
    log_.write("[Widget] ссылка не наша — игнорирую");
    return false;
  }
  rest.remove_prefix(prefix.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  while (rest.ends_with('/')) rest.remove_suffix(1);
  const std::size_t slash = rest.find('/');
  const std::string host = lowered(rest.substr(0, slash));
  const std::string_view route = slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);

  if (host == "widget") {
    if (route == "connect") return connectAction(IntentOrigin::link), true;
    if (route == "disconnect") return disconnectAction(IntentOrigin::link), true;
    if (route == "change-server") return changeServerAction(IntentOrigin::link), true;
    if (route == "open") {
      if (bringToFront_) bringToFront_();
      return true;
    }
  }
  log_.write("[Widget] неизвестная ссылка — игнорирую");
  return false;
}

}  // namespace norvik
