#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/named_notifications.h"
#include "platform/published.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_intents.h"
#include "tunnel/widget_files.h"

namespace norvik {

class VPNManager;

// The bridge to the desktop widget, which shares nothing with the application but the group
// container. The application writes the tunnel's state to "widget-state.json" and posts
// "com.norvik.macos.widget.state"; the widget writes a command to "widget-command.json" and posts
// "com.norvik.macos.widget.command", or opens a "norvikvpn://widget/…" link. Commands are read on
// the notification and, as a fall-back, on a poll; each id acts once, a command more than 3.0 s
// old is dropped, and a toggle within 1.5 s of the last one is taken for a double click.
//
// Threading: a main-loop object. Ownership: borrows the manager, the tunnel service, the owner of
// the user's intent and the platform services, which outlive it.
class WidgetCommandCenter {
 public:
  static constexpr std::string_view kStateNotification = "com.norvik.macos.widget.state";
  static constexpr std::string_view kCommandNotification = "com.norvik.macos.widget.command";
  static constexpr std::string_view kURLScheme = "norvikvpn";

  static constexpr std::chrono::milliseconds kStaleAfter{3000};
  static constexpr std::chrono::milliseconds kDoubleClickWithin{1500};
  static constexpr std::chrono::milliseconds kPollPeriod{1000};
  static constexpr std::chrono::seconds kHeartbeatPeriod{30};
  static constexpr std::chrono::milliseconds kReloadThrottle{1000};
  static constexpr std::chrono::seconds kConnectedDateRetryDelay{2};
  static constexpr std::size_t kRememberedCommandIDs = 256;

  struct Dependencies {
    EventLoop& loop;
    Clock& clock;
    Log& log;
    NamedNotificationCenter& notifications;
    VPNManager& vpn;
    TunnelService& tunnels;
    // The owner of the user's intent: connect, disconnect and the server change go there.
    TunnelIntents& intents;
    std::filesystem::path container;  // the group container
    // Brings the main window to the front ("norvikvpn://widget/open"); may be empty.
    std::function<void()> bringToFront{};
    // Asks the system to redraw the widget from the state file; may be empty.
    std::function<void()> reloadWidget{};
  };

  explicit WidgetCommandCenter(Dependencies dependencies);
  WidgetCommandCenter(const WidgetCommandCenter&) = delete;
  WidgetCommandCenter& operator=(const WidgetCommandCenter&) = delete;
  ~WidgetCommandCenter();

  // On the first call only: listens for commands, writes the current state and starts the poll
  // and heartbeat timers.
  void start();
  // At quit: writes the state once more with "appRunning" false and stops listening.
  void stop();

  // A "norvikvpn://widget/…" link; false when it is not one of ours.
  bool handleURL(std::string_view link);

  // Inputs of later parts, absent until they are fed.
  void setHealth(std::optional<std::string> healthRaw);
  void setTraffic(std::optional<std::string> down, std::optional<std::string> up);
  // Something runs (a server change, a key installation) that the widget must not interrupt.
  void setBusy(bool busy);

  [[nodiscard]] const std::optional<WidgetVPNState>& lastPublished() const { return lastPublished_; }
  [[nodiscard]] std::filesystem::path stateFile() const { return container_ / std::string(kWidgetStateFileName); }
  [[nodiscard]] std::filesystem::path commandFile() const { return container_ / std::string(kWidgetCommandFileName); }

 private:
  void schedulePublish();
  // Writes the state when it differs from the last one written, or always for a heartbeat.
  void publish(bool heartbeat);
  [[nodiscard]] WidgetVPNState currentState();
  [[nodiscard]] std::optional<Clock::TimePoint> connectedSince(TunnelStatus status);
  void requestReload();
  void reloadNow();

  void handleCommandFile();
  [[nodiscard]] bool rememberCommand(const std::string& id);
  void toggle();
  void connectAction(IntentOrigin origin);
  void disconnectAction(IntentOrigin origin);
  void changeServerAction(IntentOrigin origin);
  // What the logs say about the tunnel when an action is decided.
  [[nodiscard]] std::string describeTunnel() const;

  EventLoop& loop_;
  Clock& clock_;
  Log& log_;
  NamedNotificationCenter& notifications_;
  VPNManager& vpn_;
  TunnelService& tunnels_;
  TunnelIntents& intents_;
  std::filesystem::path container_;
  std::function<void()> bringToFront_;
  std::function<void()> reloadWidget_;

  bool started_ = false;
  bool running_ = false;
  Subscription commandObserver_;
  Subscription stateSubscription_;
  Subscription configuredSubscription_;
  RepeatingTimer pollTimer_;
  RepeatingTimer heartbeatTimer_;

  bool publishScheduled_ = false;
  std::optional<WidgetVPNState> lastPublished_;
  std::optional<EventLoop::TimePoint> lastReloadAt_;
  OneShotTimer reloadWorkItem_;

  std::optional<std::string> healthRaw_;
  std::optional<std::string> lastTrafficDown_;
  std::optional<std::string> lastTrafficUp_;
  bool busy_ = false;

  std::deque<std::string> handledOrder_;
  std::set<std::string, std::less<>> handledCommandIDs_;
  std::optional<std::string> lastRejectedCommand_;
  std::optional<Clock::TimePoint> lastToggleAt_;

  std::optional<Clock::TimePoint> fallbackConnectedSince_;
  bool connectedDateRetryScheduled_ = false;
  OneShotTimer connectedDateRetry_;

  WeakPtrFactory<WidgetCommandCenter> weakFactory_{this};
};

}  // namespace norvik
