#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "backend/network_service.h"
#include "connection/connection_messages.h"
#include "connection/overlay_queue.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

// The home screen's controller: the logic behind the connection toggle and the "Сменить сервер"
// button. It fetches a key when none is installed, installs keys through the tunnel manager,
// starts and stops the tunnel, changes server, refreshes the key when the main configuration
// carries a different one, and turns every failure into one fixed Russian message.
//
// Only one of fetching a key, changing server and refreshing runs at a time; every path ends
// back at idle with the busy text cleared.
//
// Threading: a main-loop object. Backend and tunnel completions hold it weakly.
class VPNViewModel {
 public:
  enum class Operation { none, keyInstallation, serverChange };

  struct ShownError {
    std::string title;
    std::string message;
    bool operator==(const ShownError&) const = default;
  };

  // Whether the toggle is locked because the last main-configuration load failed.
  struct SwitchBlock {
    bool locked = false;
    bool offline = false;
    bool operator==(const SwitchBlock&) const = default;
  };

  enum class Action { toggle, getKey, changeServer, refreshKey, paymentConnect };
  // How an action the user started ended; the command line waits for this.
  struct Outcome {
    Action action;
    bool ok = false;
    std::optional<ShownError> error{};
  };

  using PreConnectAnswer = std::move_only_function<void(std::optional<OverlayItem>)>;
  using PreConnectCheck = std::function<void(PreConnectAnswer)>;

  struct Dependencies {
    EventLoop& loop;
    NetworkService& network;
    VPNManager& vpn;
    OverlayQueue& overlays;
    Log& log;
    Analytics& analytics;
    // Asked before connecting: answers (once, on the loop) with the dialog to show instead when
    // the health check finds no internet at all. Empty, or answering nothing: connect.
    PreConnectCheck preConnectCheck{};
  };

  static constexpr std::chrono::seconds kDisconnectWait{10};
  static constexpr std::chrono::seconds kConnectWait{30};
  static constexpr std::chrono::minutes kPaymentWait{10};

  explicit VPNViewModel(Dependencies dependencies);
  VPNViewModel(const VPNViewModel&) = delete;
  VPNViewModel& operator=(const VPNViewModel&) = delete;
  ~VPNViewModel();

  void toggleVPN();
  // Fetches a key with "getkey" and installs it; `done` gets whether a key is now installed.
  void getVPNKey(std::move_only_function<void(bool)> done = nullptr);
  void changeServerAction();
  // After every main-configuration load: installs the response's key when it differs.
  void checkAndUpdateVPNKey(const APIResponse& response);
  void checkAndUpdateVPNKeyByFullConfig(const std::string& keyData, const APIResponse& response);
  // Installs a key received with a new server address and reconnects when the tunnel was up.
  void installKeyIpConfig(const std::string& keyText);
  [[nodiscard]] std::optional<std::string> currentServerIP();
  // Installs the built-in sample key (made-up values of the real form), for demonstrations.
  void installFakeVPNKey(std::move_only_function<void(bool)> done = nullptr);
  // The payment screen confirmed a payment: wait for the subscription, then connect once.
  void paymentConfirmed();

  [[nodiscard]] Published<Operation>& operation() { return operation_; }
  [[nodiscard]] Published<std::optional<BusyText>>& busyText() { return busyText_; }
  [[nodiscard]] Published<std::optional<ShownError>>& lastError() { return lastError_; }
  [[nodiscard]] Published<bool>& permissionCardShown() { return permissionCard_; }
  [[nodiscard]] Published<bool>& extensionApprovalCardShown() { return approvalCard_; }
  [[nodiscard]] Published<SwitchBlock>& switchBlock() { return switchBlock_; }
  [[nodiscard]] Signal<Outcome>& finished() { return finished_; }

  // The sample key text that installFakeVPNKey() installs.
  [[nodiscard]] static std::string sampleKeyText();

 private:
  class StateWait;

  // The toggle's way on once the tunnel is to come up: a key first when none is installed.
  void toggleConnect();
  void connectPath(Action action);
  void connectAfterKey(Action action);
  void showError(Action action, std::string_view title, std::string message);
  void succeed(Action action);
  void setBusy(std::optional<BusyText> text);
  void endOperation();

  void onKeyResponse(std::expected<VPNKeyResponse, APIError> response, std::move_only_function<void(bool)> done);
  void changeServerRequest(std::optional<std::string> oldServer);
  void onChangeServerResponse(std::expected<VPNKeyResponse, APIError> response, std::optional<std::string> oldServer);
  void changeServerConnect(std::optional<std::string> oldServer);
  void failServerChange(std::string_view title, std::string message);
  void finishRefresh(bool connected);

  void onMainResponse(const NetworkService::MainResponse& response);
  void onMainLoadError(const std::optional<APIError>& error);
  [[nodiscard]] std::optional<std::string> installedKeyText() const;
  // Yes, no, or not yet, for a tunnel state.
  using Verdict = std::function<std::optional<bool>(TunnelStatus)>;
  // Waits until the verdict on a change of the tunnel state is yes or no, or `limit` passes (no).
  void waitForTunnel(const Verdict& verdict, EventLoop::Duration limit, std::move_only_function<void(bool)> then);

  EventLoop& loop_;
  NetworkService& network_;
  VPNManager& vpn_;
  OverlayQueue& overlays_;
  Log& log_;
  Analytics& analytics_;
  PreConnectCheck preConnectCheck_;
  bool preConnectCheckRunning_ = false;

  Published<Operation> operation_{Operation::none};
  Published<std::optional<BusyText>> busyText_;
  Published<std::optional<ShownError>> lastError_;
  Published<bool> permissionCard_{false};
  Published<bool> approvalCard_{false};
  Published<SwitchBlock> switchBlock_;
  Signal<Outcome> finished_;

  bool refreshing_ = false;
  bool loadingBusy_ = false;
  std::optional<EventLoop::TimePoint> awaitingPaymentSince_;
  std::unique_ptr<StateWait> wait_;
  TunnelStatus previousState_ = TunnelStatus::invalid;
  TunnelStatus currentState_ = TunnelStatus::invalid;
  Subscription stateSubscription_;
  Subscription responseSubscription_;
  Subscription loadErrorSubscription_;
  Subscription loadingSubscription_;
  Subscription crashSubscription_;
  Subscription failureSubscription_;

  WeakPtrFactory<VPNViewModel> weakFactory_{this};
};

}  // namespace norvik
