#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace norvik {

// The command line's side of the control socket: one connection, with a time limit on every
// step. Closing it (the process ending on Ctrl-C included) is how a request in progress is called
// off: the agent takes the hang-up as its cancellation.
class ControlClient {
 public:
  // No answer line of the agent comes near this; a peer that sends more without a newline is not
  // the agent.
  static constexpr std::size_t kMaxAnswerLine = 4u << 20;
  enum class Failure { noAgent, io, timedOut, badAnswer };
  struct Error {
    Failure failure;
    std::string detail;
  };

  [[nodiscard]] static std::expected<ControlClient, Error> connect(
      const std::filesystem::path& socketPath, std::chrono::milliseconds limit = std::chrono::seconds(5));
  ControlClient(ControlClient&& other) noexcept;
  ControlClient& operator=(ControlClient&&) = delete;
  ~ControlClient();

  // Sends one request and reads lines until the final one (the line with "ok"), which it returns.
  // Intermediate lines go to `onEvent`. `limit` bounds the whole exchange.
  [[nodiscard]] std::expected<nlohmann::json, Error> request(const nlohmann::json& request,
                                                             const std::function<void(const nlohmann::json&)>& onEvent,
                                                             std::chrono::milliseconds limit);

 private:
  explicit ControlClient(int fd) : fd_(fd) {}
  [[nodiscard]] std::expected<void, Error> sendAll(std::string_view bytes,
                                                   std::chrono::steady_clock::time_point deadline);
  int fd_;
  std::string buffer_;
  std::size_t scanned_ = 0;  // bytes of buffer_ known to hold no newline
};

}  // namespace norvik
