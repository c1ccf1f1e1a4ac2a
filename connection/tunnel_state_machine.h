#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/network_service.h"
#include "connection/home_screen.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_intents.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

// The one owner of what the user asked of the tunnel. It keeps the user's target (on or off), the
// state of the way there, and the one operation ("job") that runs at a time: connecting (with a
// key fetched first when none is installed), disconnecting, changing server, installing a new key
// or new settings, restarting the tunnel for a repair or an update. Every front-end and every
// automatic action asks here; nothing else starts or stops the tunnel in the running application.
//
// The rules (docs/tunnel_state_machine.md has the table of states and transitions):
// - The user's last explicit word wins. A request is answered exactly once: when the tunnel is as
//   asked, with the error the user sees, or — when a later opposite request replaced it — at once
//   as superseded. A job that no longer serves the target is dropped at its next step; a start
//   being prepared is cancelled by the stop, so nothing comes up after the user said off.
// - Automatic actions (self-heal, the health engine's repair, a new key or new settings from the
//   backend, a restart after an update, the network coming back) act only while the user wants
//   the tunnel up, and never replace the user's own request.
// - Changes of settings or key arrive as pending work and are merged: any number of mode changes in
//   a row make one install with the settings of the last one.
// - The target survives the process: on is "app.userIntentOn" set and "routing.userInitiatedStop"
//   not set; restoreIntent() brings back what the user had after a crash, a kill or a restart.
//
// Threading: a main-loop object; every public operation asserts it. Completions hold the machine and
// its jobs weakly.
class TunnelStateMachine final : public TunnelIntents {
 public:
  enum class Target { off, on };
  enum class State {
    disconnected,   // off, and the tunnel is down
    connecting,     // on, on the way up: a key being fetched, a start, waiting for connected
    connected,      // on, and up
    reconnecting,   // on, and restarting to take a new server, key or settings, or for a repair
    disconnecting,  // off, on the way down
    failed,         // not as the user asked and nothing more is tried: the error was shown
  };

  // Where the installed key leads ([address, serverName, location]), kept for the next start.
  static constexpr std::string_view kServerPlaceKey = "app.serverPlace";

  // How long a start may take to reach connected before it counts as failed and is stopped.
  static constexpr std::chrono::seconds kConnectLimit{45};
  // How long a stop may take.
  static constexpr std::chrono::seconds kDisconnectLimit{20};
  // The server change's own waits: down before the request, up again after the install.
  static constexpr std::chrono::seconds kServerChangeDisconnectLimit{10};
  static constexpr std::chrono::seconds kReconnectLimit{30};

  // Asked before a connect the user asked for: answers (once, on the loop) with the dialog to show
  // instead when the health check finds no internet at all. Empty, or answering nothing: connect.
  using PreConnectAnswer = std::move_only_function<void(std::optional<OverlayItem>)>;
  using PreConnectCheck = std::function<void(PreConnectAnswer)>;

  struct Dependencies {
    EventLoop& loop;
    NetworkService& network;
    VPNManager& vpn;
    HomeScreen& screen;
    Defaults& standardDefaults;
    Defaults& groupDefaults;
    Log& log;
    Analytics& analytics;
    PreConnectCheck preConnectCheck{};
  };

  explicit TunnelStateMachine(Dependencies dependencies);
  TunnelStateMachine(const TunnelStateMachine&) = delete;
  TunnelStateMachine& operator=(const TunnelStateMachine&) = delete;
  ~TunnelStateMachine() override;

  // Brings back what the user had when the application last ran: with the intent on the tunnel
  // comes up; with it off a tunnel found running goes down. Call once, after the tunnel manager
  // has loaded the configurations.
  void restoreIntent();

  // --- The user's requests (TunnelIntents) ---
  RequestId connect(IntentOrigin origin, IntentDone done) override;
  RequestId disconnect(IntentOrigin origin, IntentDone done) override;
  RequestId toggle(IntentOrigin origin, IntentDone done) override;
  RequestId changeServer(IntentOrigin origin, IntentDone done) override;
  // The requester gave up waiting (the command line was interrupted): a connect that is still on
  // its way up is cancelled — the tunnel stays down — unless another request for it waits too; a
  // disconnect and a server change go on to their end. The request is answered as superseded.
  void withdraw(RequestId id);
  [[nodiscard]] bool wantsTunnelUp() const override;
  [[nodiscard]] bool isTargetOn() const override { return target_.get() == Target::on; }
  [[nodiscard]] std::string_view stateName() const override;

  // Fetches a key with "getkey" and installs it, without connecting; `done` gets whether a key is
  // now installed. Refused during a server change, ignored during another key installation.
  void fetchKey(std::move_only_function<void(bool)> done);
  // Installs `keyText` without connecting (the sample key of demonstrations); ignored while
  // another operation runs.
  void installKey(std::string keyText, std::move_only_function<void(bool)> done);

  // --- Automatic actions ---
  [[nodiscard]] std::uint64_t repairToken() const override { return vpn_.repairToken(); }
  void silentTunnelRestart(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                           SilentRestart::Done done) override;
  void restartTunnel(std::string reason, std::move_only_function<void(bool)> done) override;
  // New settings for the tunnel (a routing mode, the sites): the key is installed again with them
  // and a tunnel the user wants up comes back with them. Merged with changes still waiting.
  void applyConfiguration(std::string reason);
  // The main configuration carries another key: it replaces the installed one (busy text
  // "Обновляем сервер…"), and a tunnel the user wants up reconnects with it. Never runs during a
  // server change or another key installation; it waits for them, and one that started later drops it.
  void refreshKey(std::string keyText);
  // The physical network came back, or the machine woke: with on-demand on, a tunnel the user wants
  // up and that could not be kept up is tried again.
  void networkAvailable(std::string_view why);

  // --- State ---
  [[nodiscard]] Published<State>& state() { return state_; }
  [[nodiscard]] Published<Target>& target() { return target_; }
  // A key is being fetched or installed by the user's connect or a key refresh.
  [[nodiscard]] bool isKeyInstallationRunning() const;
  // A server change runs or waits to run (a second one is refused meanwhile).
  [[nodiscard]] bool isServerChangeRunning() const;
  // Requests not answered yet (for tests and diagnostics).
  [[nodiscard]] std::size_t pendingRequests() const { return requests_.size(); }
  // Nothing runs and nothing is about to be decided.
  [[nodiscard]] bool isIdle() const { return !job_ && opsInFlight_ == 0 && !advanceScheduled_; }

 private:
  class Job;
  class ConnectJob;
  class DisconnectJob;
  class ChangeServerJob;
  class ApplyKeyJob;
  class FetchKeyJob;
  class RestartJob;
  class RepairJob;
  class TunnelWait;

  enum class RequestKind { connect, disconnect, changeServer };
  struct Request {
    RequestKind kind;
    IntentOrigin origin;
    IntentDone done;
    RequestId id = 0;
  };
  using ShownError = HomeScreen::ShownError;

  struct PendingRestart {
    std::string reason;
    std::move_only_function<void(bool)> done;
  };

  // The user's word: records it (also on disk), answers the requests it replaces, and drops the job
  // that no longer serves it.
  void setTarget(Target target, IntentOrigin origin);
  // The tunnel is as `target` asks, nothing runs and nothing waits: a request for it is answered at once.
  [[nodiscard]] bool settled(Target target) const;
  [[nodiscard]] bool hasPendingWork() const;
  void reply(IntentDone done, IntentOutcome outcome);
  RequestId addRequest(RequestKind kind, IntentOrigin origin, IntentDone done);
  void answer(RequestKind kind, const IntentOutcome& outcome);
  void supersede(RequestKind kind);

  void startJob(std::unique_ptr<Job> job);
  // Ends the running job before its end; it undoes what the screens show.
  void dropJob(std::string_view why);
  // A job reports its end; `failure` is set when it could not do what it was for.
  void jobFinished(const Job& job, std::optional<ShownError> failure);

  // Looks at the target, the pending work and the tunnel, and starts what comes next — or settles
  // and answers the requests. Runs on a later turn of the loop, once per batch of causes.
  void scheduleAdvance();
  void advance();
  void onTunnelState(TunnelStatus status);
  // The tunnel went down while the user wants it up and nothing of ours was running.
  void handleDrop();
  void setState(State state);

  // Shared steps of the jobs (tunnel_jobs.cpp).
  // A key as the backend gave it, with how its answer named the server ("serverName",
  // "location"; empty when it did not).
  struct FetchedKey {
    std::string text;
    std::string serverName;
    std::string location;
  };
  // The key of a "getkey" answer, logged as the flow defines, or the error to show: the server's
  // own title heads it when the server gave one.
  [[nodiscard]] std::expected<FetchedKey, ShownError> acceptKey(std::expected<VPNKeyResponse, APIError> response);
  // A key the backend just gave is installed: the home screen names its server from now on, also
  // after a restart of the agent.
  void rememberServer(const FetchedKey& installed);
  void restoreServer();
  // The message of a failed install of a fetched key; nothing for a refused VPN permission, which
  // the permission card shows instead of a dialog.
  [[nodiscard]] std::optional<std::string> keyInstallFailure(const Error& error);

  EventLoop& loop_;
  NetworkService& network_;
  VPNManager& vpn_;
  HomeScreen& screen_;
  Defaults& standard_;
  Defaults& group_;
  Log& log_;
  Analytics& analytics_;
  PreConnectCheck preConnectCheck_;

  Published<Target> target_{Target::off};
  Published<State> state_{State::disconnected};
  std::unique_ptr<Job> job_;
  // Tunnel-manager operations of dropped jobs still running; nothing new starts until they end.
  int opsInFlight_ = 0;
  std::vector<Request> requests_;
  RequestId nextRequestId_ = 1;

  // Nothing is decided before restoreIntent(); a request of the user before it wins over it.
  bool restored_ = false;
  bool userSpoke_ = false;

  // Pending work, merged until it runs.
  bool serverChangeWanted_ = false;
  std::optional<std::string> pendingKey_;
  std::optional<PendingRestart> pendingRestart_;
  // Settings changes are counted; an install that began after change N carries it.
  std::uint64_t settingsVersion_ = 0;
  std::uint64_t appliedSettings_ = 0;
  std::string settingsReason_;
  // Who asked for the tunnel up last: the user (pre-connect check, intent marks) or an automatic action.
  std::optional<IntentOrigin> connectOrigin_;
  // Why the target could not be reached; the machine rests in `failed` until something new happens.
  std::optional<ShownError> failure_;
  // The last error the tunnel program ended a session with, for the failure it causes.
  std::optional<Error> lastCrash_;
  bool advanceScheduled_ = false;

  Subscription stateSubscription_;
  Subscription crashSubscription_;
  Subscription widgetDisconnectSubscription_;
  Subscription systemStopSubscription_;
  WeakPtrFactory<TunnelStateMachine> weakFactory_{this};
};

[[nodiscard]] std::string_view toString(TunnelStateMachine::State state);

}  // namespace norvik
