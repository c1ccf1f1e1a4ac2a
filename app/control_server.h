#pragma once

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

// The answering side of one request on the control socket. Lines go out in order; finish() sends
// the last one, after which the connection takes the next request. A client that hangs up ends
// the reply: isOpen() turns false and the close handler runs once.
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
// the agent.
//
// Threading: the main loop.
class ControlServer {
 public:
  static constexpr std::size_t kMaxLine = 64 * 1024;
  using RequestHandler = std::function<void(const nlohmann::json& request, const ControlReply& reply)>;

  [[nodiscard]] static std::expected<std::unique_ptr<ControlServer>, Error> open(
      AsioEventLoop& loop, const std::filesystem::path& socketPath, Log& log, RequestHandler handler);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer();

  [[nodiscard]] std::size_t sessionCount() const { return sessions_.size(); }

 private:
  struct Impl;
  explicit ControlServer(std::unique_ptr<Impl> impl);
  void accept();

  std::unique_ptr<Impl> impl_;
  std::set<std::shared_ptr<ControlSession>> sessions_;
};

}  // namespace norvik
