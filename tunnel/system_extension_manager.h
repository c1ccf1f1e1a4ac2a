#pragma once

#include <chrono>
#include <deque>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/system_extension_requests.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/system_extension_texts.h"
#include "tunnel/tunnel_intents.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

enum class SystemExtensionOutcome { completed, needsUserApproval, willCompleteAfterReboot };

[[nodiscard]] std::string_view toString(SystemExtensionOutcome outcome);

// Keeps the network extension that serves the tunnel activated: asks the system to activate the
// copy the application carries, decides whether an installed copy is replaced by it, turns the
// outcome into `VPNManager::systemExtensionState()` and the Russian texts the screens show
// (through `VPNManager::connectionFailed()`), and, after an update of the application, replaces
// the running extension quietly and brings the tunnel back.
//
// Requests run one at a time, in the order they were asked for. Each request has its own runner
// (the system's delegate), which answers its caller once and ignores whatever the system says
// after that.
//
// Threading: a main-loop object. Ownership: owns its runners; borrows the rest. The system holds
// the runners weakly, so nothing answers once the manager is gone.
class SystemExtensionManager {
 public:
  static constexpr std::string_view kExtensionIdentifier = "com.norvik.macos.tunnel";
  // + the carried version: how many quiet replacements were tried for that version.
  static constexpr std::string_view kRefreshAttemptsKeyPrefix = "sysext.refreshAttempts.";

  struct Config {
    // Quiet replacements tried per carried version before waiting for the user to connect.
    int quietRefreshAttemptLimit = 3;
    // How long the tunnel has to come back after a quiet replacement.
    std::chrono::milliseconds quietReconnectTimeout{30'000};
  };

  struct Dependencies {
    EventLoop& loop;
    SystemExtensionRequests& system;
    VPNManager& vpn;
    // The reconnect after a quiet replacement goes through the owner of the user's intent.
    TunnelIntents& intents;
    Defaults& standardDefaults;
    Log& log;
    Analytics& analytics;
  };

  using ActivationResult = std::expected<SystemExtensionOutcome, SysExtError>;
  using ActivationCompletion = std::move_only_function<void(ActivationResult)>;
  using PropertiesResult = std::expected<std::vector<SystemExtensionProperties>, SysExtError>;
  using PropertiesCompletion = std::move_only_function<void(PropertiesResult)>;

  SystemExtensionManager(Dependencies dependencies, Config config);
  explicit SystemExtensionManager(Dependencies dependencies) : SystemExtensionManager(dependencies, Config{}) {}
  SystemExtensionManager(const SystemExtensionManager&) = delete;
  SystemExtensionManager& operator=(const SystemExtensionManager&) = delete;
  ~SystemExtensionManager();

  // Asks the system to activate the carried extension. `forceReplace` replaces an installed copy
  // even when it is the same version. Fails without asking the system when the application runs
  // from a translocated copy or from outside the applications folder. The completion runs on the
  // loop, later, exactly once.
  void activate(bool forceReplace, ActivationCompletion completion = {});
  // What the system has installed under the extension's identifier.
  void installedProperties(PropertiesCompletion completion);
  // The bundle version of the extension the application carries.
  [[nodiscard]] std::optional<std::string> packagedExtensionVersion() const;

  // At start-up: when an update of the application brought a different extension than the one
  // installed, replaces it quietly (and reconnects a tunnel that was up); otherwise activates the
  // carried extension as usual.
  void activateOnLaunch();

  // Short texts for the user about a quiet replacement ("Обновление применяется, переподключаем…",
  // "Обновление применено"), shown as toasts by the application.
  [[nodiscard]] Signal<std::string>& updateNotice() { return updateNotice_; }
  [[nodiscard]] bool isRequestRunning() const { return activeRunner_ != nullptr; }
  [[nodiscard]] int systemMajorVersion() const { return system_.operatingSystemMajorVersion(); }

 private:
  class RequestRunner;
  struct Request {
    bool properties = false;
    bool forceReplace = false;
    ActivationCompletion activationDone;
    PropertiesCompletion propertiesDone;
  };

  void runNext();
  void startActivation(Request request);
  [[nodiscard]] std::optional<SysExtError> preconditionFailure() const;
  void finishActivation(ActivationResult result, ActivationCompletion completion);
  void requestEnded();

  // The quiet replacement after an update.
  void onLaunchProperties(PropertiesResult result);
  void replaceQuietly(std::string version, bool tunnelWasUp);
  void onQuietOutcome(const std::string& version, bool tunnelWasUp, const ActivationResult& result);
  void waitForUserConnect(const std::string& version);
  void reconnectAfterReplacement(const std::string& version);
  void finishReconnect(const std::string& version, std::optional<std::string> failure);

  EventLoop& loop_;
  SystemExtensionRequests& system_;
  VPNManager& vpn_;
  TunnelIntents& intents_;
  Defaults& standard_;
  Log& log_;
  Analytics& analytics_;
  Config config_;

  std::deque<Request> queue_;
  std::shared_ptr<RequestRunner> activeRunner_;
  Signal<std::string> updateNotice_;

  Subscription userConnectWatch_;
  Subscription reconnectWatch_;
  OneShotTimer reconnectDeadline_;
  bool reconnecting_ = false;

  WeakPtrFactory<SystemExtensionManager> weakFactory_{this};
};

}  // namespace norvik
