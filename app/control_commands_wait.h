#pragma once

// What the two halves of ControlCommands (control_commands.cpp, management_commands.cpp) share:
// the reading of arguments and a request waiting for its outcome.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/control_commands.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// An optional argument of a request: `fallback` when absent, nothing when it has another type
// (a local client's mistake is answered, never trusted).
inline std::optional<bool> boolArgument(const nlohmann::json& request, std::string_view key, bool fallback) {
  const auto found = request.find(key);
  if (found == request.end()) return fallback;
  return found->is_boolean() ? std::optional<bool>(found->get<bool>()) : std::nullopt;
}
inline std::optional<std::string> textArgument(const nlohmann::json& request, std::string_view key,
                                               std::string fallback) {
  const auto found = request.find(key);
  if (found == request.end()) return fallback;
  return found->is_string() ? std::optional<std::string>(found->get<std::string>()) : std::nullopt;
}

// One request waiting for the application to reach an outcome: it watches published values,
// answers at most once, and ends with its time limit or when the client hangs up.
class ControlCommands::Wait {
 public:
  Wait(EventLoop& loop, ControlReply reply, std::chrono::seconds limit,
       std::function<void(const ControlReply&)> onTimeout)
      : reply_(std::move(reply)) {
    timer_.start(loop, limit, [this, onTimeout = std::move(onTimeout)] {
      if (done_) return;
      done_ = true;
      subscriptions_.clear();
      // Last, and with a copy: the answer starts the connection's next request, which lets go of
      // this wait.
      const ControlReply reply = reply_;
      onTimeout(reply);
    });
    // The connection outlives a wait that has answered (the next request lets go of it). A client
    // that hangs up before its answer gave the request up (Ctrl-C on the command line).
    reply_.onClosed([weak = weakFactory_.weak()] {
      auto* self = weak.lock();
      if (!self || self->done_) return;
      self->end();
      if (self->onHangUp_) std::exchange(self->onHangUp_, nullptr)();
    });
  }

  // What giving the request up means; runs once, only while the answer is still to come.
  void onHangUp(std::function<void()> handler) { onHangUp_ = std::move(handler); }

  // Runs `decide` on every change; it answers (and returns true) when the outcome is known.
  template <class T>
  void watch(Published<T>& value, std::function<bool(const T&)> decide) {
    subscriptions_.push_back(value.subscribe([this, decide = std::move(decide)](const T& v) {
      if (!done_ && decide(v)) end();
    }));
  }
  template <class... Args>
  void listen(Signal<Args...>& signal, std::type_identity_t<std::function<bool(const Args&...)>> decide) {
    subscriptions_.push_back(signal.subscribe([this, decide = std::move(decide)](const Args&... args) {
      if (!done_ && decide(args...)) end();
    }));
  }

  [[nodiscard]] bool finished() const { return done_; }
  [[nodiscard]] WeakPtr<Wait> weak() const { return weakFactory_.weak(); }
  [[nodiscard]] const ControlReply& reply() const { return reply_; }
  void end() {
    done_ = true;
    timer_.stop();
    // Nothing more reaches a request that has its answer (nor a client that has gone).
    subscriptions_.clear();
  }
  // Keeps a subscription for as long as the request waits.
  void keep(Subscription subscription) { subscriptions_.push_back(std::move(subscription)); }

 private:
  ControlReply reply_;
  bool done_ = false;
  std::function<void()> onHangUp_;
  std::vector<Subscription> subscriptions_;
  OneShotTimer timer_;
  WeakPtrFactory<Wait> weakFactory_{this};
};

}  // namespace norvik
