#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "backend/network_service.h"
#include "connection/connection_messages.h"
#include "connection/home_screen.h"
#include "connection/overlay_queue.h"
#include "connection/tunnel_state_machine.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

// The home screen's controller: the logic behind the connection toggle and the "Сменить сервер"
// button, and what the screen shows of them. Its taps go to the tunnel state machine, which owns
// what the user asked for and runs the flows (fetching a key when none is installed, connecting,
// changing server, refreshing the key); their busy texts, errors, toasts and cards appear here.
// It also follows the main configuration: a different key in it is a key refresh, a failed load
// locks the toggle while no configuration is installed, and an activated subscription after a
// payment connects once.
//
// Threading: a main-loop object; every public operation asserts it. Backend completions hold it
// weakly.
class VPNViewModel {
 public:
  using Operation = HomeScreen::Operation;
  using ShownError = HomeScreen::ShownError;
  using SwitchBlock = HomeScreen::SwitchBlock;
  using PreConnectAnswer = TunnelStateMachine::PreConnectAnswer;
  using PreConnectCheck = TunnelStateMachine::PreConnectCheck;

  struct Dependencies {
    EventLoop& loop;
    NetworkService& network;
    VPNManager& vpn;
    OverlayQueue& overlays;
    Defaults& standardDefaults;
    Defaults& groupDefaults;
    Log& log;
    Analytics& analytics;
    // Asked before a connect the user asked for (see TunnelStateMachine::PreConnectCheck).
    PreConnectCheck preConnectCheck{};
  };

  static constexpr std::chrono::minutes kPaymentWait{10};

  explicit VPNViewModel(Dependencies dependencies);
  VPNViewModel(const VPNViewModel&) = delete;
  VPNViewModel& operator=(const VPNViewModel&) = delete;
  ~VPNViewModel();

  // The toggle: off when the user has the tunnel up or on its way up, on otherwise.
  void toggleVPN(IntentDone done = nullptr);
  // Fetches a key with "getkey" and installs it; `done` gets whether a key is now installed.
  void getVPNKey(std::move_only_function<void(bool)> done = nullptr);
  void changeServerAction(IntentDone done = nullptr);
  // After every main-configuration load: installs the response's key when it differs.
  void checkAndUpdateVPNKey(const APIResponse& response);
  void checkAndUpdateVPNKeyByFullConfig(const std::string& keyData, const APIResponse& response);
  // Installs a key received with a new server address and reconnects when the user has the tunnel up.
  void installKeyIpConfig(const std::string& keyText);
  [[nodiscard]] std::optional<std::string> currentServerIP();
  // Installs the built-in sample key (made-up values of the real form), for demonstrations.
  void installFakeVPNKey(std::move_only_function<void(bool)> done = nullptr);
  // The payment screen confirmed a payment: wait for the subscription, then connect once.
  void paymentConfirmed();

  [[nodiscard]] Published<Operation>& operation() { return screen_.operation(); }
  [[nodiscard]] Published<std::optional<BusyText>>& busyText() { return screen_.busyText(); }
  [[nodiscard]] Published<std::optional<ShownError>>& lastError() { return screen_.lastError(); }
  [[nodiscard]] Published<bool>& permissionCardShown() { return screen_.permissionCardShown(); }
  [[nodiscard]] Published<bool>& extensionApprovalCardShown() { return screen_.extensionApprovalCardShown(); }
  [[nodiscard]] Published<std::optional<HomeScreen::ServerPlace>>& serverPlace() { return screen_.serverPlace(); }
  [[nodiscard]] Published<SwitchBlock>& switchBlock() { return screen_.switchBlock(); }
  [[nodiscard]] TunnelStateMachine& machine() { return machine_; }

  // The sample key text that installFakeVPNKey() installs.
  [[nodiscard]] static std::string sampleKeyText();

 private:
  void onMainResponse(const NetworkService::MainResponse& response);
  void onMainLoadError(const std::optional<APIError>& error);

  EventLoop& loop_;
  NetworkService& network_;
  VPNManager& vpn_;
  Log& log_;
  Analytics& analytics_;

  HomeScreen screen_;
  TunnelStateMachine machine_;

  std::optional<EventLoop::TimePoint> awaitingPaymentSince_;
  Subscription responseSubscription_;
  Subscription loadErrorSubscription_;
  Subscription loadingSubscription_;
  Subscription failureSubscription_;

  WeakPtrFactory<VPNViewModel> weakFactory_{this};
};

}  // namespace norvik
