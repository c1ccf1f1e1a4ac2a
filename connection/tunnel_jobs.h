#pragma once

// The jobs of the tunnel state machine: one operation on the tunnel each, run one at a time.
// Private to the machine (its .cpp files include this header; nothing else does).

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "connection/tunnel_state_machine.h"

namespace norvik {

// Waits until the tunnel's state gives a verdict (yes or no) or a time limit passes (no), and
// answers once, on a later turn of the loop: never inside the caller, and after whatever else the
// same change sets off (a crash report, say) has been heard. The published state only wakes it: the
// verdict is taken on the system's status as it is at that moment, because the published changes
// arrive a turn late and one from before the operation (a stop that just ended) must not decide it.
// The state at the start counts only when it is already a yes.
class TunnelStateMachine::TunnelWait {
 public:
  using Verdict = std::optional<bool> (*)(TunnelStatus);

  TunnelWait(EventLoop& loop, VPNManager& vpn, Verdict verdict, EventLoop::Duration limit,
             std::move_only_function<void(bool)> then);
  TunnelWait(const TunnelWait&) = delete;
  TunnelWait& operator=(const TunnelWait&) = delete;

 private:
  void answerLater(bool ok);
  void answer(bool ok);

  EventLoop& loop_;
  std::move_only_function<void(bool)> then_;
  Subscription subscription_;
  OneShotTimer timer_;
};

// One operation of the machine. A job reports its end once, through finish(); the machine may
// drop it earlier (the user's target changed, or a more important job takes over), after which none
// of its completions reach it. Tunnel-manager operations it starts are counted by the machine
// while they run, dropped job or not, so that two never overlap.
class TunnelStateMachine::Job {
 public:
  enum class Kind { connect, disconnect, changeServer, applyKey, fetchKey, restart, repair };

  Job(TunnelStateMachine& machine, Kind kind) : machine_(machine), kind_(kind) {}
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  virtual ~Job() = default;

  virtual void start() = 0;
  // Whether the job still serves the user's target `target`; when not, the machine drops it.
  [[nodiscard]] virtual bool serves(Target target) const = 0;
  // The machine drops the job before its end: what the screens show of it goes.
  virtual void abandon() {}
  // A key is being fetched or installed (the guards of the server change and the key refresh).
  [[nodiscard]] virtual bool installingKey() const { return false; }
  [[nodiscard]] Kind kind() const { return kind_; }

  // A failure the server reports in the body of a successful key answer: the current way
  // ("error"), or the older one (a "result" that is not a success; `legacy` is then set).
  [[nodiscard]] static std::optional<std::string> serverError(const VPNKeyResponse& response, bool& legacy);
  [[nodiscard]] static std::string resultText(const OptInt& result) {
    return result ? std::to_string(*result) : "none";
  }

 protected:
  void finish(std::optional<ShownError> failure = std::nullopt) { machine_.jobFinished(*this, std::move(failure)); }
  // Shows `message` under `title` and ends the job with it as its failure.
  void fail(std::string_view title, std::string message) {
    finish(machine_.screen_.showError(title, std::move(message)));
  }

  // The completion of a tunnel-manager operation: counted by the machine while it runs, and
  // passed on to `then` only while this job is still the machine's.
  template <class Result, class Then>
  std::move_only_function<void(Result)> operation(Then then) {
    ++machine_.opsInFlight_;
    return [machine = machine_.weakFactory_.weak(), job = weakFactory_.weak(),
            then = std::move(then)](Result result) mutable {
      auto* owner = machine.lock();
      if (owner) --owner->opsInFlight_;
      if (job.lock()) return then(std::move(result));
      if (owner) owner->scheduleAdvance();
    };
  }
  // Any other completion (the backend, a check): passed on only while this job is the machine's.
  template <class Then>
  auto whileAlive(Then then) {
    return [job = weakFactory_.weak(), then = std::move(then)](auto&&... args) mutable {
      if (job.lock()) then(std::forward<decltype(args)>(args)...);
    };
  }

  // Installs a key through the tunnel manager (an operation). A successful install carries the
  // settings as they were when it began; one of a key newer than the main configuration's (`fresh`)
  // makes a waiting key refresh pointless.
  void installKey(const std::string& keyText, bool fresh,
                  std::move_only_function<void(std::expected<void, Error>)> then);

  // Waits until the tunnel is connected (true) or has gone down (false), at most `limit` (false).
  void waitUntilConnected(EventLoop::Duration limit, std::move_only_function<void(bool)> then);
  // Waits until the tunnel is down, at most `limit` (false).
  void waitUntilDown(EventLoop::Duration limit, std::move_only_function<void(bool)> then);

  // The installed configuration's server address, logged as "Current server IP: ".
  [[nodiscard]] std::optional<std::string> currentServerIP();

  TunnelStateMachine& machine_;
  VPNManager& vpn() { return machine_.vpn_; }
  HomeScreen& screen() { return machine_.screen_; }
  Log& log() { return machine_.log_; }

 private:
  const Kind kind_;
  std::unique_ptr<TunnelWait> wait_;
  WeakPtrFactory<Job> weakFactory_{this};
};

// Connects: the pre-connect check for a connect the user asked for, a key fetched first when none
// is installed (or when the installed one has gone), the start, and the wait for connected.
class TunnelStateMachine::ConnectJob final : public Job {
 public:
  // `byUser`: the user asked (pre-connect check, the user's marks); else an automatic action.
  ConnectJob(TunnelStateMachine& machine, bool byUser) : Job(machine, Kind::connect), byUser_(byUser) {}
  void start() override;
  [[nodiscard]] bool serves(Target target) const override { return target == Target::on; }
  void abandon() override;
  [[nodiscard]] bool installingKey() const override { return fetchingKey_; }

 private:
  void checkConfiguration();
  void fetchKeyThenStart();
  void startTunnel();
  void waitForConnected();

  const bool byUser_;
  bool fetchingKey_ = false;
  bool keyFetched_ = false;
};

// Takes the tunnel down (the user's disconnect, with its marks) and waits until it is.
class TunnelStateMachine::DisconnectJob final : public Job {
 public:
  explicit DisconnectJob(TunnelStateMachine& machine) : Job(machine, Kind::disconnect) {}
  void start() override;
  [[nodiscard]] bool serves(Target target) const override { return target == Target::off; }
};

// The server change: down, "change_server", install the new key, up again.
class TunnelStateMachine::ChangeServerJob final : public Job {
 public:
  explicit ChangeServerJob(TunnelStateMachine& machine) : Job(machine, Kind::changeServer) {}
  void start() override;
  [[nodiscard]] bool serves(Target target) const override { return target == Target::on; }
  void abandon() override;

 private:
  void request();
  void onResponse(std::expected<VPNKeyResponse, APIError> response);
  void connectToNewServer();
  void failChange(std::string_view title, std::string message);

  std::optional<std::string> oldServer_;
};

// Installs a key again: a new one from the main configuration (the key refresh), or the installed
// one with new settings. A tunnel the user wants up comes back with it.
class TunnelStateMachine::ApplyKeyJob final : public Job {
 public:
  // A refresh when `newKey` is set; new settings otherwise (`reason` says which).
  ApplyKeyJob(TunnelStateMachine& machine, std::optional<std::string> newKey, std::string reason)
      : Job(machine, Kind::applyKey), newKey_(std::move(newKey)), reason_(std::move(reason)) {}
  void start() override;
  // The install itself always completes; the reconnect after it only while the user wants it.
  [[nodiscard]] bool serves(Target target) const override { return target == Target::on || !reconnecting_; }
  void abandon() override;
  [[nodiscard]] bool installingKey() const override { return newKey_.has_value(); }

 private:
  void installed(std::expected<void, Error> result);
  void reconnect();
  void done(bool connected);

  const std::optional<std::string> newKey_;
  const std::string reason_;
  bool reconnecting_ = false;
};

// Fetches and installs a key without connecting (getVPNKey on its own), or installs the key given.
class TunnelStateMachine::FetchKeyJob final : public Job {
 public:
  FetchKeyJob(TunnelStateMachine& machine, std::optional<std::string> key, std::move_only_function<void(bool)> done)
      : Job(machine, Kind::fetchKey), key_(std::move(key)), done_(std::move(done)) {}
  void start() override;
  [[nodiscard]] bool serves(Target /*target*/) const override { return true; }
  [[nodiscard]] bool installingKey() const override { return true; }
  void abandon() override;

 private:
  void install(FetchedKey key);
  void end(bool installed);
  std::optional<std::string> key_;
  std::move_only_function<void(bool)> done_;
};

// Stops and starts the tunnel again, for a tunnel program that was replaced.
class TunnelStateMachine::RestartJob final : public Job {
 public:
  RestartJob(TunnelStateMachine& machine, std::string reason, std::move_only_function<void(bool)> done)
      : Job(machine, Kind::restart), reason_(std::move(reason)), done_(std::move(done)) {}
  void start() override;
  [[nodiscard]] bool serves(Target target) const override { return target == Target::on; }
  void abandon() override { end(false); }

 private:
  void end(bool connected);
  std::string reason_;
  std::move_only_function<void(bool)> done_;
};

// The health engine's silent restart, run by the tunnel manager.
class TunnelStateMachine::RepairJob final : public Job {
 public:
  RepairJob(TunnelStateMachine& machine, std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
            SilentRestart::Done done)
      : Job(machine, Kind::repair),
        token_(token),
        delayMs_(delayMs),
        connectTimeoutMs_(connectTimeoutMs),
        done_(std::move(done)) {}
  void start() override;
  // A user's request ends the restart by itself (it moves the repair token on); the restart's
  // answer must reach the health engine in any case.
  [[nodiscard]] bool serves(Target /*target*/) const override { return true; }

 private:
  std::uint64_t token_;
  std::int64_t delayMs_;
  std::int64_t connectTimeoutMs_;
  SilentRestart::Done done_;
};

}  // namespace norvik
