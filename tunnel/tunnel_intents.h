#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tunnel/silent_restart.h"

namespace norvik {

// Where a request about the tunnel came from: for the log, and for the few rules that differ
// (a connect the user asked for runs the health check's pre-connect probe; automatic actions never
// override what the user said last).
enum class IntentOrigin {
  homeScreen,      // the toggle and the "Сменить сервер" button
  commandLine,     // norvik connect, disconnect, toggle, change-server
  widget,          // the widget's toggle and change-server commands, its disconnect requests
  link,            // a "norvikvpn://widget/…" link
  menuBar,         // the menu-bar item
  healthDialog,    // a button of a health-check dialog
  systemControls,  // the system's own VPN switch
  payment,         // the connect that follows a confirmed payment
};
[[nodiscard]] std::string_view toString(IntentOrigin origin);

// How a request ended. Every request is answered exactly once.
struct IntentOutcome {
  enum class Kind {
    succeeded,   // the tunnel is as asked (or already was: `already`)
    failed,      // it could not be done; `title` and `message` are what the user sees
    superseded,  // a later request replaced it before it was done
    refused,     // it was not started, for the reason given (another operation must end first)
  };
  Kind kind = Kind::succeeded;
  std::string title{};
  std::string message{};
  bool already = false;

  [[nodiscard]] bool ok() const { return kind == Kind::succeeded; }
};
using IntentDone = std::move_only_function<void(IntentOutcome)>;
// A request still waiting for its answer, so that its requester can withdraw it; 0 for one that
// was answered at once (or has no requester).
using RequestId = std::uint64_t;

// The user's intent about the tunnel, and the automatic actions that must respect it. One object
// owns it (the tunnel state machine of the connection flow); every front-end and every automatic
// action goes through here, never to the tunnel manager directly.
//
// Threading: the main loop.
class TunnelIntents {
 public:
  virtual ~TunnelIntents() = default;

  // The user wants the tunnel up, or down. The last word wins: an earlier opposite request still
  // running is answered as superseded at once, and whatever it had begun is abandoned cleanly.
  virtual RequestId connect(IntentOrigin origin, IntentDone done) = 0;
  virtual RequestId disconnect(IntentOrigin origin, IntentDone done) = 0;
  // Down when the user has it up or on its way up; up otherwise.
  virtual RequestId toggle(IntentOrigin origin, IntentDone done) = 0;
  // Another server, and the tunnel up on it.
  virtual RequestId changeServer(IntentOrigin origin, IntentDone done) = 0;

  // The user has asked for the tunnel up and it is up or on its way there (what a toggle turns off).
  [[nodiscard]] virtual bool wantsTunnelUp() const = 0;
  // The user's last word was on, whether or not the tunnel could be kept up (what a disconnect
  // still has to undo).
  [[nodiscard]] virtual bool isTargetOn() const = 0;
  // The state of the intent in words for logs ("connecting", "connected", …).
  [[nodiscard]] virtual std::string_view stateName() const = 0;

  // --- Automatic actions: each happens only while the user wants the tunnel up ---

  // The health engine's repair (a silent restart). Refused at "precondition" while the user wants
  // the tunnel down or another operation runs.
  [[nodiscard]] virtual std::uint64_t repairToken() const = 0;
  virtual void silentTunnelRestart(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                   SilentRestart::Done done) = 0;
  // Stop and start the tunnel again (the tunnel program was replaced). `done` gets whether it came
  // back connected; nothing happens (false) while the user wants the tunnel down.
  virtual void restartTunnel(std::string reason, std::move_only_function<void(bool)> done) = 0;
};

}  // namespace norvik
