#pragma once

#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "tunnel/tunnel_intents.h"
#include "tunnel/vpn_manager.h"

namespace norvik::testing {

// The user's requests carried straight to the tunnel manager, with no state machine in between:
// for the tests of a part that asks for them (the health engine) and is not about who decides. The
// whole application's tests use the real tunnel state machine.
class DirectTunnelIntents final : public TunnelIntents {
 public:
  // Each request's name ("connect", "disconnect", "changeServer") is appended to `record` if given.
  DirectTunnelIntents(EventLoop& loop, VPNManager& vpn, std::vector<std::string>* record = nullptr)
      : loop_(loop), vpn_(vpn), record_(record) {}

  RequestId connect(IntentOrigin /*origin*/, IntentDone done) override {
    note("connect");
    vpn_.connect([this, done = std::move(done)](std::expected<void, Error> started) mutable {
      reply(std::move(done), started.has_value());
    });
    return 0;
  }
  RequestId disconnect(IntentOrigin /*origin*/, IntentDone done) override {
    note("disconnect");
    vpn_.disconnect();
    reply(std::move(done), true);
    return 0;
  }
  RequestId toggle(IntentOrigin origin, IntentDone done) override {
    if (wantsTunnelUp()) return disconnect(origin, std::move(done));
    return connect(origin, std::move(done));
  }
  RequestId changeServer(IntentOrigin /*origin*/, IntentDone done) override {
    note("changeServer");
    reply(std::move(done), false);
    return 0;
  }
  [[nodiscard]] bool wantsTunnelUp() const override { return isLive(vpn_.connectionState().get()); }
  [[nodiscard]] bool isTargetOn() const override { return wantsTunnelUp(); }
  [[nodiscard]] std::string_view stateName() const override { return toString(vpn_.connectionState().get()); }

  [[nodiscard]] std::uint64_t repairToken() const override { return vpn_.repairToken(); }
  void silentTunnelRestart(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                           SilentRestart::Done done) override {
    vpn_.silentTunnelRestart(token, delayMs, connectTimeoutMs, std::move(done));
  }
  // The manager's own reconnect; the caller watches the tunnel come back. Answers (false) only
  // when there is nothing to restart.
  void restartTunnel(std::string /*reason*/, std::move_only_function<void(bool)> done) override {
    if (!isLive(vpn_.connectionState().get())) {
      if (done) loop_.post([done = std::move(done)]() mutable { done(false); });
      return;
    }
    vpn_.reconnectIfActive();
  }

 private:
  void note(std::string name) {
    if (record_) record_->push_back(std::move(name));
  }
  void reply(IntentDone done, bool ok) {
    if (!done) return;
    loop_.post([done = std::move(done), ok]() mutable {
      done(IntentOutcome{ok ? IntentOutcome::Kind::succeeded : IntentOutcome::Kind::failed});
    });
  }

  EventLoop& loop_;
  VPNManager& vpn_;
  std::vector<std::string>* record_;
};

}  // namespace norvik::testing
