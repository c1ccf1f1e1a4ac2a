#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>

#include <nlohmann/json.hpp>

#include "platform/error.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/log.h"

namespace norvik {

class ControlSession;

// What one client may hold of the agent. A client over a bound is disconnected, and whatever it
// held is freed; the others carry on.
struct ControlLimits {
  // Connections at once. A newcomer over it takes the place of the longest-idle client, or is
  // refused when every connection has a request in progress.
  std::size_t maxConnections = 32;
  // Answer bytes a client has not read yet. A client that sends requests and never reads their
  // answers is disconnected when it passes this.
  std::size_t maxUnreadOutput = 1u << 20;
  // Request lines waiting behind the one in progress on one connection.
  std::size_t maxQueuedRequests = 16;
  // A connection without a request in progress that completes no request line for this long is
  // closed (clients that connect and say nothing, or dribble bytes).
  std::chrono::milliseconds idleTimeout{60'000};
  // When the process is out of file descriptors, accepting pauses this long (after freeing an
  // idle connection's descriptor, if there is one) instead of spinning.
  std::chrono::milliseconds acceptBackoff{250};
  // The loop whose clock times the two above; the socket's own loop when null (tests pass their
  // virtual loop).
  EventLoop* timers = nullptr;
};

// The answering side of one request on the control socket. Lines go out in order; finish() sends
// the last one, after which the connection takes the next request. A client that hangs up ends
// the reply: isOpen() turns false and the close handlers run once (never inside this reply's own
// event() or finish()). The client hanging up while its request is in progress is
// its cancellation (Ctrl-C on the command line): whatever the request started for that client and
// has not finished should be called off in the close handler. A request whose client hung up
// before it began is never started.
class ControlReply {
 public:
  ControlReply() = default;
  explicit ControlReply(std::weak_ptr<ControlSession> session) : session_(std::move(session)) {}

  // An intermediate line (a busy text, a state change).
  void event(const nlohmann::json& line) const;
  // The final line of this request.
  void finish(const nlohmann::json& line) const;
  [[nodiscard]] bool isOpen() const;
  void onClosed(std::function<void()> handler) const;

 private:
  std::weak_ptr<ControlSession> session_;
};

// The agent's control socket: a UNIX stream socket that only its user can reach (the directory
// is 0700, the socket 0600). Each line a client sends is one JSON request; the answer is one or
// more JSON lines, the last carrying "ok". A line that is not a JSON object, or is longer than
// 64 KiB, is answered with an error and the connection is closed; nothing a client sends can stop
// the agent. Each client is held to `ControlLimits`.
//
// Threading: the main loop.
class ControlServer {
 public:
  static constexpr std::size_t kMaxLine = 64 * 1024;
  using RequestHandler = std::function<void(const nlohmann::json& request, const ControlReply& reply)>;

  [[nodiscard]] static std::expected<std::unique_ptr<ControlServer>, Error> open(
      AsioEventLoop& loop, const std::filesystem::path& socketPath, Log& log, RequestHandler handler,
      ControlLimits limits = {});
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer();

  [[nodiscard]] std::size_t sessionCount() const { return sessions_.size(); }

 private:
  struct Impl;
  explicit ControlServer(std::unique_ptr<Impl> impl);
  void accept();
  // Closes the connection that has waited longest without a request; false when none is idle.
  bool closeLongestIdle(std::string_view why);

  std::unique_ptr<Impl> impl_;
  std::set<std::shared_ptr<ControlSession>> sessions_;
};

}  // namespace norvik
